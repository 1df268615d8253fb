#include <cerrno>
#include <cstring>

#include "posix.h"

namespace tarvex_posix {

tarvex_result_t make_error(int code, const char *cls, const std::string &message)
{
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(module, nullptr, code, cls,
                                                                    "%s", message.c_str()));
}

tarvex_result_t errno_result(int err, const char *path)
{
    int code = 550;
    const char *cls = "PATH_ERROR";
    switch (err) {
    case ENOENT:
    case ENOTDIR:
        cls = "PATH_NOT_FOUND";
        break;
    case EEXIST:
        cls = "PATH_EXISTS";
        break;
    case EACCES:
    case EPERM:
    case EXDEV: // a lookup that would have left the root
    case ELOOP:
        cls = "PERMISSION_DENIED";
        break;
    case ENOTEMPTY:
        cls = "DIRECTORY_NOT_EMPTY";
        break;
    case EISDIR:
        cls = "IS_A_DIRECTORY";
        break;
    case ENOSPC:
    case EDQUOT:
        code = 452;
        cls = "NO_SPACE_LEFT";
        break;
    default:
        code = 451;
        cls = "INTERNAL_ERROR";
        break;
    }
    const char *what = err == EXDEV ? "Permission denied" : strerror(err);
    return make_error(code, cls, std::string("GridFTP-Path: ") + (path ? path : "") + ": " + what);
}

tarvex_result_t cancelled_result(const char *what)
{
    return make_error(426, "CANCELLED", std::string("GridFTP-Error: ") + what + " was cancelled.");
}

tarvex_result_t exception_result() noexcept
{
    if (tarvex::out_of_memory_thrown())
        return TARVEX_GFS_MALLOC_ERROR(module, ENOMEM);
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        module, nullptr, 451, "INTERNAL_ERROR", "GridFTP-Error: an unexpected failure."));
}

} // namespace tarvex_posix
