#include "c_edge.h"

#include <cerrno>

namespace tarvex_gfs_internal {

tarvex_result_t exception_result(const char *where) noexcept
{
    if (tarvex::out_of_memory_thrown())
        return TARVEX_GFS_MALLOC_ERROR(&tarvex_i_gfs_module, ENOMEM);
    return tarvex_error_put(tarvex_error_construct_error(
        &tarvex_i_gfs_module, nullptr, TARVEX_GFS_ERROR_GENERIC, __FILE__, where, __LINE__,
        "An unexpected failure in %s.", where));
}

} // namespace tarvex_gfs_internal
