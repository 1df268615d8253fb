/*
 * One Box credential per user, kept in <state dir>/<user>/credential.json.
 *
 * The user's folder (mode 0700) and everything in it belong to the account
 * the helper runs as, which is the account of the user's sessions.  The
 * file is only ever replaced whole (a temporary file beside it, fsync,
 * rename, fsync of the folder), so a reader without the lock sees either
 * the old or the new credential, and a crash leaves one of them.  Renewals
 * take the folder's "lock" file first, so that two sessions renewing at
 * once make one token request between them.
 *
 * Refused, with the file left as it is: a folder or file owned by another
 * account, a file that others may read or write (e.g. mode 0644), a folder
 * others may write, symbolic links, and content that is not a credential.
 */
#ifndef TARVEX_BOX_CREDENTIAL_STORE_H
#define TARVEX_BOX_CREDENTIAL_STORE_H

#include <sys/types.h>

#include <cstdint>
#include <string>

namespace box_credential {

inline constexpr const char *refresh_grant = "refresh_token";
inline constexpr const char *client_credentials_grant = "client_credentials";

struct credential {
    std::string grant;          // refresh_grant or client_credentials_grant
    std::string client_id;
    std::string client_secret;
    std::string refresh_token;  // the refresh grant's current token
    std::string box_user_id;    // the user a client-credentials grant acts as
    std::string access_token;   // "" until a grant has been made
    int64_t expires_at = 0;     // seconds since the epoch
    int64_t obtained_at = 0;
    std::string sub;            // Box user id, from users/me
    int64_t max_upload = -1;    // bytes, from users/me; -1: not known yet
    // The endpoints the enrolment was told on the command line, "" for
    // none: a refresh token is only good where it was issued.
    std::string token_url;
    std::string api_base;
};

/* An open file descriptor, closed when it goes. */
class unique_fd {
public:
    explicit unique_fd(int fd = -1) : fd_(fd) {}
    unique_fd(unique_fd &&other) noexcept : fd_(other.release()) {}
    unique_fd &operator=(unique_fd &&other) noexcept;
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    ~unique_fd();
    int get() const { return fd_; }
    int release()
    {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }

private:
    int fd_;
};

class credential_store {
public:
    /* Throws failure for a user name that cannot be a file name (only
     * letters, digits and . _ @ + - are taken, not first . or -). */
    credential_store(const std::string &state_dir, const std::string &user);

    const std::string &user() const { return user_; }
    const std::string &file() const { return file_; }

    /* The stored credential; throws failure when the user is not enrolled
     * or the folder or file is refused. */
    credential read() const;

    /* Replaces the stored credential (see above). */
    void write(const credential &c) const;

    /* Waits (up to lock_wait_seconds) for the user's lock and holds it
     * until the returned descriptor is closed. */
    unique_fd lock() const;
    static constexpr int lock_wait_seconds = 45;

    /* For enrolment: creates the state directory (0755) and the user's
     * folder (0700) when missing.  Run as root with owner_uid/owner_gid of
     * another account, the folder is given to that account. */
    void prepare_folder(uid_t owner_uid, gid_t owner_gid) const;

private:
    void check_folder() const;

    std::string state_dir_;
    std::string user_;
    std::string folder_;
    std::string file_;
    std::string lock_file_;
};

} // namespace box_credential

#endif
