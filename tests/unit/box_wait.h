/*
 * Waiting in tests without sleeping for a guessed time: a condition polled
 * until it holds or a deadline passes, forked processes that are waited
 * for the same way (and memory they share with the test), and what /proc
 * says a process is doing.
 *
 * The deadlines only keep a broken test from hanging; they are far beyond
 * anything the conditions need on a loaded machine.
 */
#ifndef TARVEX_TEST_BOX_WAIT_H
#define TARVEX_TEST_BOX_WAIT_H

#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>

namespace tarvex_test {

/* Polls `condition` every millisecond until it holds (true) or `timeout`
 * has passed (false). */
inline bool eventually(const std::function<bool()> &condition,
                       std::chrono::milliseconds timeout = std::chrono::seconds(60))
{
    auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

/* A forked process running `body`, whose value is its exit status; killed
 * if the test ends before it has been waited for. */
class child {
public:
    explicit child(const std::function<int()> &body) : pid_(fork())
    {
        if (pid_ == 0)
            _exit(body());
    }
    ~child()
    {
        if (pid_ > 0 && kill(pid_, SIGKILL) == 0)
            waitpid(pid_, nullptr, 0);
    }
    child(const child &) = delete;
    child &operator=(const child &) = delete;

    pid_t pid() const { return pid_; }
    /* The exit status, or -1 when it does not end in time or is killed. */
    int status()
    {
        int status = 0;
        if (!eventually([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }))
            return -1;
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid_;
};

/* `count` values of T in memory shared with forked children, zeroed. */
template <typename T> class shared_array {
public:
    explicit shared_array(size_t count)
        : count_(count),
          data_(static_cast<T *>(mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE,
                                      MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        if (data_ == MAP_FAILED)
            throw std::runtime_error("no shared memory");
    }
    ~shared_array() { munmap(data_, count_ * sizeof(T)); }
    shared_array(const shared_array &) = delete;
    shared_array &operator=(const shared_array &) = delete;

    T &operator[](size_t i) { return data_[i]; }
    const T &operator[](size_t i) const { return data_[i]; }
    size_t size() const { return count_; }

private:
    size_t count_;
    T *data_;
};

/* Whether `pid` waits for a record lock that someone else holds. */
inline bool waiting_for_lock(pid_t pid)
{
    std::ifstream in("/proc/locks");
    std::string needle = " " + std::to_string(pid) + " ";
    for (std::string line; std::getline(in, line);)
        if (line.find("->") != std::string::npos && line.find(needle) != std::string::npos)
            return true;
    return false;
}

} // namespace tarvex_test

#endif
