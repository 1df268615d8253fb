// The C edge of this library: its functions are called from C (plug-ins,
// the REST client) and call C++ (the providers of operations), so no
// exception may leave them.  Each extern "C" function that runs code able
// to throw (allocation in std::string, a provider's std::function) runs it
// through one of these, which say what an exception becomes here.
#pragma once

#include "tarvex_c_edge.h"
#include "tarvex_gridftp_server.h"

namespace tarvex_gfs_internal {

// The error result for the exception being handled: the system error of
// an allocation failure, or a generic error naming `where`.  Call it only
// inside a catch block.
tarvex_result_t exception_result(const char *where) noexcept;

// Runs `f`; an exception is dropped (the call has no way to report it):
// the caller sees no effect.
template <typename F> void guarded(F &&f) noexcept
{
    tarvex::at_c_edge_with(std::forward<F>(f), [] {});
}

// Runs `f`, which returns a result; an exception becomes an error result.
template <typename F> tarvex_result_t guarded_result(const char *where, F &&f) noexcept
{
    return tarvex::at_c_edge_with(std::forward<F>(f), [where] { return exception_result(where); });
}

// Runs `f`, which returns a value; an exception gives `fallback`.
template <typename T, typename F> T guarded_value(T fallback, F &&f) noexcept
{
    return tarvex::at_c_edge(fallback, std::forward<F>(f));
}

} // namespace tarvex_gfs_internal
