#include "config_data.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "conn.h"

extern char **environ;

namespace tarvex_server {

namespace {

// Configuration texts are small JSON documents; anything bigger is a
// mistake (a command printing a file it should not), not data.
constexpr size_t max_config_size = size_t{4} * 1024 * 1024;
constexpr int command_timeout_ms = 60000;

} // namespace

ConfigData::Status read_config_data_file(const std::string &path, std::string &text)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        text = path + ": " + strerror(errno);
        return ConfigData::Status::failed;
    }
    std::string out;
    char buf[65536];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0 || out.size() + static_cast<size_t>(n) > max_config_size) {
            int e = n < 0 ? errno : EFBIG;
            close(fd);
            if (n == 0)
                break;
            text = path + ": " + strerror(e);
            return ConfigData::Status::failed;
        }
        out.append(buf, static_cast<size_t>(n));
    }
    text = std::move(out);
    return ConfigData::Status::found;
}

namespace {

ConfigData::Status run_command(const std::string &cmd, const std::string &login,
                               std::string &text)
{
    int pipefd[2];
    if (pipe2(pipefd, O_CLOEXEC) != 0) {
        text = std::string("pipe: ") + strerror(errno);
        return ConfigData::Status::failed;
    }
    // The child's environment: ours, with TARVEX_USER set to the login.
    std::vector<std::string> env_store;
    for (char **e = environ; *e != nullptr; ++e)
        if (strncmp(*e, "TARVEX_USER=", 12) != 0)
            env_store.emplace_back(*e);
    env_store.push_back("TARVEX_USER=" + login);
    std::vector<char *> envp;
    envp.reserve(env_store.size() + 1);
    for (std::string &s : env_store)
        envp.push_back(s.data());
    envp.push_back(nullptr);

    // The session ignores SIGPIPE; the helper gets the usual behaviour.
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF);
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_adddup2(&fa, pipefd[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&fa, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    const char *argv[] = {"/bin/sh", "-c", cmd.c_str(), nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, "/bin/sh", &fa, &attr, const_cast<char **>(argv), envp.data());
    posix_spawn_file_actions_destroy(&fa);
    posix_spawnattr_destroy(&attr);
    close(pipefd[1]);
    if (rc != 0) {
        close(pipefd[0]);
        text = std::string("cannot run configuration command: ") + strerror(rc);
        return ConfigData::Status::failed;
    }

    std::string out;
    bool too_big = false;
    bool timed_out = false;
    long long deadline = now_ms() + command_timeout_ms;
    char buf[65536];
    for (;;) {
        long long rest = deadline - now_ms();
        pollfd p{pipefd[0], POLLIN, 0};
        if (rest <= 0 || poll(&p, 1, static_cast<int>(rest)) == 0) {
            timed_out = true;
            break;
        }
        ssize_t n = read(pipefd[0], buf, sizeof buf);
        if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (n <= 0)
            break;
        if (out.size() + static_cast<size_t>(n) > max_config_size) {
            too_big = true;
            break;
        }
        out.append(buf, static_cast<size_t>(n));
    }
    close(pipefd[0]);
    if (timed_out || too_big)
        kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (timed_out || too_big) {
        text = timed_out ? "configuration command timed out" : "configuration command output too large";
        return ConfigData::Status::failed;
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        text = "configuration command failed (status " +
               std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)) + ")";
        return ConfigData::Status::failed;
    }
    if (out.empty())
        return ConfigData::Status::none;
    text = std::move(out);
    return ConfigData::Status::found;
}

} // namespace

ConfigData::Status ConfigData::get(const std::string &key, const std::string &login,
                                   std::string &text) const
{
    if (auto t = texts_.find(key); t != texts_.end()) {
        text = t->second;
        return Status::found;
    }
    if (auto f = files_.find(key); f != files_.end())
        return read_config_data_file(f->second, text);
    if (auto c = commands_.find(key); c != commands_.end())
        return run_command(c->second, login, text);
    return Status::none;
}

} // namespace tarvex_server
