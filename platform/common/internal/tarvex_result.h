// A result held by C++ code: the C tarvex_result_t, owned.
//
// An error result is a handle on an error in the bounded process table
// (tarvex_error.h); one that nobody takes out stays there until newer
// errors evict it, and then the table reads it as unknown.  A Result
// discards its error when it goes out of scope, so a path that drops a
// result drops it on purpose, and [[nodiscard]] makes a call whose Result
// is ignored a compile error.  At the C edge a Result converts back with
// release(), which hands the handle over.
#ifndef TARVEX_RESULT_H
#define TARVEX_RESULT_H

#include <utility>

#include "tarvex_error.h"

namespace tarvex {

class [[nodiscard]] Result {
public:
    Result() noexcept = default; // success
    // Takes over `handle` (a fresh result, not one held elsewhere).
    explicit Result(tarvex_result_t handle) noexcept : handle_(handle) {}
    Result(Result &&other) noexcept : handle_(other.release()) {}
    Result &operator=(Result &&other) noexcept
    {
        if (this != &other) {
            tarvex_error_discard(handle_);
            handle_ = other.release();
        }
        return *this;
    }
    Result(const Result &) = delete;
    Result &operator=(const Result &) = delete;
    ~Result() { tarvex_error_discard(handle_); }

    bool ok() const noexcept { return handle_ == TARVEX_SUCCESS; }
    // The handle, still owned here: for looking at the error.
    tarvex_result_t get() const noexcept { return handle_; }
    // The handle, owned by the caller now (a C caller, or a C function
    // that takes it over); this Result is success afterwards.
    [[nodiscard]] tarvex_result_t release() noexcept
    {
        return std::exchange(handle_, TARVEX_SUCCESS);
    }

private:
    tarvex_result_t handle_ = TARVEX_SUCCESS;
};

// Keeps the first failure of several (buffers in flight failing one after
// another) in `kept`; a later one is discarded, as nobody will ask for it.
inline void keep_first_failure(tarvex_result_t &kept, tarvex_result_t result)
{
    if (result == TARVEX_SUCCESS)
        return;
    if (kept == TARVEX_SUCCESS)
        kept = result;
    else
        tarvex_error_discard(result);
}

} // namespace tarvex

#endif
