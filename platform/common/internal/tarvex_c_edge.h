// The edge between the project's C++ and its C callers, for the platform's
// libraries and the plug-ins alike (an internal header: not installed).
//
// No exception may unwind into C: C frames have no cleanup to run on the
// way (a libcurl handle or a server operation would be left half done) and
// where they carry no unwind tables the process ends.  Every extern "C"
// function, and every callback handed to C code, that runs code able to
// throw (allocation in std::string, a std::function) runs it through
// at_c_edge; what an exception becomes is the caller's to say.
#ifndef TARVEX_C_EDGE_H
#define TARVEX_C_EDGE_H

#include <new>
#include <utility>

namespace tarvex {

// Runs `body`; when it throws, `on_exception` runs inside the catch block
// (where out_of_memory_thrown() tells what was thrown) and gives the answer.
template <class Body, class OnException>
auto at_c_edge_with(Body &&body, OnException &&on_exception) noexcept -> decltype(body())
{
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        return std::forward<OnException>(on_exception)();
    }
}

// Runs `body`; when it throws, the answer is `fallback`.  Bodies are
// written so that nothing has happened yet by the time they can throw.
template <class T, class Body> T at_c_edge(T fallback, Body &&body) noexcept
{
    return at_c_edge_with(std::forward<Body>(body), [&fallback] { return fallback; });
}

// Whether the exception being handled is an allocation failure (call only
// inside a catch block, or in at_c_edge_with's `on_exception`).
inline bool out_of_memory_thrown() noexcept
{
    try {
        throw;
    } catch (const std::bad_alloc &) {
        return true;
    } catch (...) {
        return false;
    }
}

} // namespace tarvex

#endif
