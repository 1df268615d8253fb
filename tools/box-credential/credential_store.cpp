#include "credential_store.h"

#include <ctype.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <jansson.h>

#include <chrono>
#include <thread>

#include "failure.h"
#include "tarvex_box_raii.h"

namespace box_credential {

namespace {

/* A credential file is a few hundred bytes. */
constexpr size_t max_file_size = 1 << 20;

std::string errno_text(const std::string &what)
{
    return what + ": " + strerror(errno);
}

std::string octal(mode_t mode)
{
    char text[8];
    snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode & 07777));
    return text;
}

bool valid_user(const std::string &user)
{
    if (user.empty() || user.size() > 255 || user[0] == '.' || user[0] == '-')
        return false;
    for (char c : user)
        if (!isalnum(static_cast<unsigned char>(c)) && strchr("._@+-", c) == nullptr)
            return false;
    return true;
}

/* Another account's file could have been planted to hand our sessions a
 * token of its choosing; a file others can read hands them ours. */
void check_ours(const struct stat &st, const std::string &path, mode_t forbidden,
                const char *rule)
{
    if (st.st_uid != geteuid())
        throw failure(path + " is owned by uid " + std::to_string(st.st_uid) +
                      ", not by the account running this (uid " +
                      std::to_string(geteuid()) + ")");
    if ((st.st_mode & forbidden) != 0)
        throw failure(path + " has mode " + octal(st.st_mode) + ": " + rule);
}

void check_file(int fd, const std::string &path)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
        throw failure(errno_text(path));
    if (!S_ISREG(st.st_mode))
        throw failure(path + " is not a regular file");
    check_ours(st, path, 077, "it must be readable and writable by its owner only (0600)");
}

/* Opens an existing file of ours without following a symbolic link (a
 * FIFO does not block: it is refused as not a regular file). */
unique_fd open_checked(const std::string &path, int flags)
{
    unique_fd fd(open(path.c_str(), flags | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK, 0600));
    if (fd.get() < 0 && errno == ENOENT)
        throw failure("not enrolled (no " + path + ")");
    if (fd.get() < 0 && errno == ELOOP)
        throw failure(path + " is a symbolic link");
    if (fd.get() < 0)
        throw failure(errno_text(path));
    check_file(fd.get(), path);
    return fd;
}

std::string read_all(int fd, const std::string &path)
{
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw failure(errno_text(path));
        if (n == 0)
            return text;
        text.append(buffer, static_cast<size_t>(n));
        if (text.size() > max_file_size)
            throw failure("bad state file " + path + ": larger than 1 MiB");
    }
}

void write_all(int fd, const std::string &text, const std::string &path)
{
    size_t done = 0;
    while (done < text.size()) {
        ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            throw failure(errno_text(path));
        done += static_cast<size_t>(n);
    }
}

/* Reads the fields of a stored credential, each checked for its type. */
class reader {
public:
    reader(json_t *doc, const std::string &path) : doc_(doc), path_(path) {}

    std::string text(const char *key, bool required)
    {
        json_t *value = json_object_get(doc_, key);
        if (value == nullptr && !required)
            return "";
        if (!json_is_string(value) || json_string_length(value) == 0)
            bad(std::string("\"") + key + "\" must be a non-empty string");
        return json_string_value(value);
    }

    int64_t number(const char *key, int64_t absent)
    {
        json_t *value = json_object_get(doc_, key);
        if (value == nullptr)
            return absent;
        if (!json_is_integer(value) || json_integer_value(value) < 0)
            bad(std::string("\"") + key + "\" must be a non-negative integer");
        return json_integer_value(value);
    }

    [[noreturn]] void bad(const std::string &why)
    {
        throw failure("bad state file " + path_ + ": " + why);
    }

private:
    json_t *doc_;
    const std::string &path_;
};

credential parse(const std::string &text, const std::string &path)
{
    json_error_t error;
    tarvex_box_json_ptr doc(json_loadb(text.data(), text.size(), 0, &error));
    // The parser's text quotes what it read near the fault: tokens, here.
    if (!doc)
        throw failure("bad state file " + path + ": not JSON (line " +
                      std::to_string(error.line) + ", column " + std::to_string(error.column) +
                      ")");
    reader r(doc.get(), path);
    if (!json_is_object(doc.get()))
        r.bad("not a JSON object");
    credential c;
    c.grant = r.text("grant", true);
    if (c.grant != refresh_grant && c.grant != client_credentials_grant)
        r.bad("unknown grant \"" + c.grant + "\"");
    c.client_id = r.text("client_id", true);
    c.client_secret = r.text("client_secret", true);
    c.refresh_token = r.text("refresh_token", c.grant == refresh_grant);
    c.box_user_id = r.text("box_user_id", c.grant == client_credentials_grant);
    c.access_token = r.text("access_token", false);
    c.expires_at = r.number("expires_at", 0);
    c.obtained_at = r.number("obtained_at", 0);
    c.sub = r.text("sub", false);
    c.max_upload = r.number("max_upload", -1);
    c.token_url = r.text("token_url", false);
    c.api_base = r.text("api_base", false);
    return c;
}

std::string serialise(const credential &c)
{
    tarvex_box_json_ptr doc(json_object());
    auto put_text = [&](const char *key, const std::string &value) {
        if (!value.empty())
            json_object_set_new(doc.get(), key, json_string(value.c_str()));
    };
    auto put_number = [&](const char *key, int64_t value) {
        if (value >= 0)
            json_object_set_new(doc.get(), key, json_integer(value));
    };
    put_text("grant", c.grant);
    put_text("client_id", c.client_id);
    put_text("client_secret", c.client_secret);
    put_text("refresh_token", c.refresh_token);
    put_text("box_user_id", c.box_user_id);
    put_text("access_token", c.access_token);
    if (!c.access_token.empty()) {
        put_number("expires_at", c.expires_at);
        put_number("obtained_at", c.obtained_at);
    }
    put_text("sub", c.sub);
    put_number("max_upload", c.max_upload);
    put_text("token_url", c.token_url);
    put_text("api_base", c.api_base);
    tarvex_box_cstr_ptr text(json_dumps(doc.get(), JSON_INDENT(2)));
    if (!text)
        throw std::bad_alloc();
    return std::string(text.get()) + "\n";
}

void make_directory(const std::string &path, mode_t mode)
{
    if (mkdir(path.c_str(), mode) == 0 || errno == EEXIST)
        return;
    if (errno != ENOENT)
        throw failure(errno_text("cannot create " + path));
    size_t slash = path.find_last_of('/');
    if (slash == 0 || slash == std::string::npos)
        throw failure(errno_text("cannot create " + path));
    make_directory(path.substr(0, slash), 0755);
    if (mkdir(path.c_str(), mode) != 0 && errno != EEXIST)
        throw failure(errno_text("cannot create " + path));
}

} // namespace

unique_fd &unique_fd::operator=(unique_fd &&other) noexcept
{
    if (this != &other) {
        if (fd_ >= 0)
            close(fd_);
        fd_ = other.release();
    }
    return *this;
}

unique_fd::~unique_fd()
{
    if (fd_ >= 0)
        close(fd_);
}

credential_store::credential_store(const std::string &state_dir, const std::string &user)
    : state_dir_(state_dir), user_(user)
{
    if (!valid_user(user))
        throw failure("\"" + user + "\" is not a user name the helper keeps a credential for "
                      "(letters, digits and . _ @ + - only, not first . or -)");
    folder_ = state_dir_ + "/" + user_;
    file_ = folder_ + "/credential.json";
    lock_file_ = folder_ + "/lock";
}

void credential_store::check_folder() const
{
    struct stat st;
    if (lstat(folder_.c_str(), &st) != 0) {
        if (errno == ENOENT)
            throw failure("not enrolled (no " + folder_ + ")");
        throw failure(errno_text(folder_));
    }
    if (!S_ISDIR(st.st_mode))
        throw failure(folder_ + " is not a directory");
    check_ours(st, folder_, 022, "others must not write in it");
}

credential credential_store::read() const
{
    check_folder();
    unique_fd fd = open_checked(file_, O_RDONLY);
    return parse(read_all(fd.get(), file_), file_);
}

void credential_store::write(const credential &c) const
{
    check_folder();
    std::string text = serialise(c);
    std::string temp = folder_ + "/.credential.json.XXXXXX";
    unique_fd fd(mkostemp(temp.data(), O_CLOEXEC));
    if (fd.get() < 0)
        throw failure(errno_text("cannot create a file in " + folder_));
    try {
        write_all(fd.get(), text, temp);
        if (fchmod(fd.get(), 0600) != 0 || fsync(fd.get()) != 0 || close(fd.release()) != 0)
            throw failure(errno_text(temp));
        if (rename(temp.c_str(), file_.c_str()) != 0)
            throw failure(errno_text("cannot replace " + file_));
    } catch (...) {
        unlink(temp.c_str());
        throw;
    }
    // The rename itself must reach the disk before the old refresh token,
    // now spent, is the only one a crash would leave.
    unique_fd folder(open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.get() < 0 || fsync(folder.get()) != 0)
        throw failure(errno_text("cannot sync " + folder_));
}

unique_fd credential_store::lock() const
{
    check_folder();
    unique_fd fd(open(lock_file_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0)
        throw failure(errno_text(lock_file_));
    check_file(fd.get(), lock_file_);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(lock_wait_seconds);
    while (flock(fd.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR)
            throw failure(errno_text("cannot lock " + lock_file_));
        if (std::chrono::steady_clock::now() > deadline)
            throw failure("another process has held " + lock_file_ + " for " +
                          std::to_string(lock_wait_seconds) + " s");
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return fd;
}

void credential_store::prepare_folder(uid_t owner_uid, gid_t owner_gid) const
{
    make_directory(state_dir_, 0755);
    if (mkdir(folder_.c_str(), 0700) != 0 && errno != EEXIST)
        throw failure(errno_text("cannot create " + folder_));
    if (owner_uid == geteuid())
        return;
    struct stat st;
    if (lstat(folder_.c_str(), &st) != 0)
        throw failure(errno_text(folder_));
    if (!S_ISDIR(st.st_mode))
        throw failure(folder_ + " is not a directory");
    if (st.st_uid == owner_uid)
        return;
    if (st.st_uid != geteuid())
        throw failure(folder_ + " is owned by uid " + std::to_string(st.st_uid) +
                      ", neither by the account enrolled nor by the one running this");
    if (lchown(folder_.c_str(), owner_uid, owner_gid) != 0)
        throw failure(errno_text("cannot give " + folder_ + " to uid " +
                                 std::to_string(owner_uid)));
}

} // namespace box_credential
