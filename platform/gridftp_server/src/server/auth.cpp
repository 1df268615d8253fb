#include "auth.h"

#include <crypt.h>
#include <grp.h>
#include <openssl/crypto.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <vector>

namespace tarvex_server {

namespace {

using Entry = PasswordFile::Entry;

// "login:hash[:account]"; blank lines and '#' comments are skipped (`skip`).
// "" when the line is taken, else why not; never a word of the hash.
std::string parse_line(const std::string &line, Entry &e, bool &skip)
{
    skip = line.empty() || line[0] == '#';
    if (skip)
        return "";
    size_t a = line.find(':');
    if (a == std::string::npos || a == 0)
        return "expected login:hash[:account]";
    size_t b = line.find(':', a + 1);
    e.login = line.substr(0, a);
    e.hash = line.substr(a + 1, b == std::string::npos ? std::string::npos : b - a - 1);
    e.account = b == std::string::npos ? e.login : line.substr(b + 1);
    // A bare "alice:" is what a hash command that failed, or waited for a
    // password nobody typed, leaves behind.
    if (e.hash.empty())
        return e.login + ": no password hash (expected login:hash[:account])";
    if (e.account.empty())
        return e.login + ": an empty account after the second ':'";
    return "";
}

bool read_entries(const std::string &path, std::vector<Entry> &out, std::string &err)
{
    std::ifstream in(path);
    if (!in) {
        err = path + ": " + strerror(errno);
        return false;
    }
    std::string line;
    int n = 0;
    while (std::getline(in, line)) {
        ++n;
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        Entry e;
        bool skip = false;
        std::string why = parse_line(line, e, skip);
        if (!why.empty()) {
            err = path;
            err.append(":").append(std::to_string(n)).append(": ").append(why);
            return false;
        }
        if (!skip)
            out.push_back(std::move(e));
    }
    if (in.bad()) {
        err = path + ": " + strerror(errno);
        return false;
    }
    return true;
}

// A valid hash of nothing anybody types, so that unknown logins cost as much
// as known ones.
const char dummy_hash[] = "$6$tarvexdummysalt$ZpHc2Yx1jNqJQmT1mCw2sKAPd8Ot1u1B1zv9G8L8Sx4"
                          "nLw7jXqO/1N7bqVyUu0fS1eJZ9Y9jWbHq3Qp0e0e0e.";

bool hash_matches(const std::string &password, const std::string &hash)
{
    // Locked or disabled entries ("*", "!...") never match.
    if (hash.empty() || hash[0] == '*' || hash[0] == '!')
        return false;
    auto data = std::make_unique<crypt_data>();
    memset(data.get(), 0, sizeof(crypt_data));
    const char *got = crypt_r(password.c_str(), hash.c_str(), data.get());
    if (got == nullptr || got[0] == '*')
        return false;
    size_t n = strlen(got);
    return n == hash.size() && CRYPTO_memcmp(got, hash.data(), n) == 0;
}

} // namespace

bool PasswordFile::load(const std::string &path, std::string &err)
{
    std::vector<Entry> entries;
    if (!read_entries(path, entries, err))
        return false;
    entries_ = std::move(entries);
    return true;
}

bool PasswordFile::operator==(const PasswordFile &other) const
{
    return entries_ == other.entries_;
}

bool PasswordFile::check(const std::string &login, const std::string &password,
                         std::string &account) const
{
    const Entry *found = nullptr;
    for (const Entry &e : entries_)
        if (e.login == login)
            found = &e;
    if (found == nullptr) {
        hash_matches(password, dummy_hash);
        return false;
    }
    if (!hash_matches(password, found->hash))
        return false;
    account = found->account;
    return true;
}

namespace {

bool fill_account(const passwd *pw, Account &out)
{
    if (pw == nullptr)
        return false;
    out.name = pw->pw_name;
    out.uid = pw->pw_uid;
    out.gid = pw->pw_gid;
    out.home = pw->pw_dir != nullptr ? pw->pw_dir : "/";
    return true;
}

} // namespace

bool lookup_account(const std::string &name, Account &out)
{
    std::vector<char> buf(16384);
    passwd pw{};
    passwd *res = nullptr;
    if (getpwnam_r(name.c_str(), &pw, buf.data(), buf.size(), &res) != 0)
        return false;
    return fill_account(res, out);
}

bool lookup_own_account(Account &out)
{
    std::vector<char> buf(16384);
    passwd pw{};
    passwd *res = nullptr;
    if (getpwuid_r(geteuid(), &pw, buf.data(), buf.size(), &res) != 0 || res == nullptr) {
        out.name = std::to_string(geteuid());
        out.uid = geteuid();
        out.gid = getegid();
        out.home = "/";
        return true;
    }
    return fill_account(res, out);
}

bool switch_to_account(const Account &acct, std::string &err)
{
    // Groups first: once the user id is dropped they can no longer change.
    if (setgid(acct.gid) != 0 || initgroups(acct.name.c_str(), acct.gid) != 0) {
        err = std::string("cannot take the groups of ") + acct.name + ": " + strerror(errno);
        return false;
    }
    if (setuid(acct.uid) != 0) {
        err = std::string("cannot become ") + acct.name + ": " + strerror(errno);
        return false;
    }
    // A switch that could be undone is no switch at all.
    if (acct.uid != 0 && (setuid(0) == 0 || geteuid() != acct.uid)) {
        err = "privileges could not be dropped";
        return false;
    }
    setenv("HOME", acct.home.c_str(), 1);
    setenv("USER", acct.name.c_str(), 1);
    setenv("LOGNAME", acct.name.c_str(), 1);
    return true;
}

} // namespace tarvex_server
