// The posix storage plug-in: serves one local folder (the root) to FTP
// clients.  Paths from the server are absolute ("/a/b") and are taken
// relative to the root; every lookup is made by the kernel with
// RESOLVE_BENEATH, so neither ".." nor a symbolic link can lead out of it.
#pragma once

#include <string>
#include <utility>

#include "tarvex_c_edge.h"
#include "tarvex_gridftp_server.h"

namespace tarvex_posix {

extern tarvex_module_descriptor_t *module;

struct Session {
    std::string root;
    int root_fd = -1; // O_PATH descriptor of the root
};

// ---- confined file access (path.cpp) ----

// "/a/b" -> "a/b", "/" -> "."
std::string relative(const char *path);
// openat2 beneath the root; -1 with errno on failure.
int open_beneath(const Session &s, const std::string &rel, int flags, mode_t mode = 0);
// The parent folder of `path` (opened beneath the root) and the last name.
// Fails with EPERM for the root itself, which has no parent here.
int open_parent(const Session &s, const char *path, std::string &name);

// ---- errors (error.cpp) ----

// An FTP response error for a failed system call on `path`.
tarvex_result_t errno_result(int err, const char *path);
tarvex_result_t make_error(int code, const char *cls, const std::string &message);
// The answer of an operation the server cancelled (see the server
// library's header): `what` ("the checksum") stopped.
tarvex_result_t cancelled_result(const char *what);
// The error for the exception being handled (call only in a catch block).
tarvex_result_t exception_result() noexcept;

// The table's functions are called from C: each runs its body through
// this, and an exception (out of memory) is answered through `finish` with
// an error instead of leaving the function.
template <typename Body, typename Finish> void guarded_entry(Body &&body, Finish &&finish) noexcept
{
    tarvex::at_c_edge_with(std::forward<Body>(body), [&finish] { finish(exception_result()); });
}

// ---- the storage interface ----

void start(tarvex_gfs_operation_t op, tarvex_gfs_session_info_t *info);
void destroy(void *arg);
void stat(tarvex_gfs_operation_t op, tarvex_gfs_stat_info_t *info, void *arg);
void command(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *info, void *arg);
void send(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info, void *arg);
void recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info, void *arg);
// CKSM, in its own file
void checksum(tarvex_gfs_operation_t op, tarvex_gfs_command_info_t *info, Session &s);

} // namespace tarvex_posix
