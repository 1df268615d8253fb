// The edge between this runtime and its C callers.
#ifndef TARVEX_COMMON_C_EDGE_H
#define TARVEX_COMMON_C_EDGE_H

#include <utility>

namespace tarvex_common_internal {

// Runs `body` for an entry point called from C, which must not let an
// exception out: when it throws (no memory for a first allocation, a lock
// that could not be taken) the entry point answers `fallback`.  Bodies are
// written so that nothing has happened yet by the time they can throw.
template <typename T, typename Body> T at_c_edge(T fallback, Body &&body) noexcept
{
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        return fallback;
    }
}

} // namespace tarvex_common_internal

#endif
