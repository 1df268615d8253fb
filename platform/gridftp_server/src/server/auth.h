// Logins: the password file, and the switch to the login's local account.
#pragma once

#include <string>
#include <sys/types.h>

namespace tarvex_server {

struct Account {
    std::string name;
    uid_t uid = 0;
    gid_t gid = 0;
    std::string home;
};

// Looks `login` up in the password file at `path` ("login:hash[:account]")
// and checks `password` against its crypt(3) hash.  On success `account`
// is the local account named by the entry (default: the login).  Takes the
// same time whether or not the login exists.  `err` says why a file could
// not be used (never why a login failed).
bool check_password(const std::string &path, const std::string &login,
                    const std::string &password, std::string &account, std::string &err);

// True when the file can be read and every line parses; `err` names the
// first bad line.
bool validate_password_file(const std::string &path, std::string &err);

bool lookup_account(const std::string &name, Account &out);
bool lookup_own_account(Account &out);

// setgid, initgroups, setuid (all checked), then HOME, USER and LOGNAME.
bool switch_to_account(const Account &acct, std::string &err);

} // namespace tarvex_server
