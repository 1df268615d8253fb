// Logins: the password file, and the switch to the login's local account.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tarvex_server {

struct Account {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::string home;
};

// The password file: lines "login:hash[:account]" ('#' starts a comment
// line), read whole when the server starts and at SIGHUP, so that a file
// being edited never meets a login half-written, and a bad new one leaves
// the old in force.
class PasswordFile {
public:
    // False with `err` ("PATH: why" or "PATH:LINE: why") when the file
    // cannot be read or a line does not parse.
    bool load(const std::string &path, std::string &err);

    // Looks `login` up and checks `password` against its crypt(3) hash.
    // On success `account` is the local account the entry names (default:
    // the login).  Takes the same time whether or not the login exists.
    bool check(const std::string &login, const std::string &password,
               std::string &account) const;

    size_t logins() const { return entries_.size(); }
    bool operator==(const PasswordFile &other) const;

    struct Entry {
        std::string login;
        std::string hash;
        std::string account;
        bool operator==(const Entry &) const = default;
    };

private:
    std::vector<Entry> entries_;
};

bool lookup_account(const std::string &name, Account &out);
bool lookup_own_account(Account &out);

// setgid, initgroups, setuid (all checked), then HOME, USER and LOGNAME.
bool switch_to_account(const Account &acct, std::string &err);

} // namespace tarvex_server
