/*
 * Ownership guards shared by the plug-in's C++ sources: each releases what
 * it holds on every way out of a scope, so error paths need no cleanup
 * code of their own.
 */
#ifndef TARVEX_BOX_RAII_H
#define TARVEX_BOX_RAII_H

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <new>
#include <utility>

#include "object_info_parse.h"
#include "path_cache.h"
#include "request.h"
#include "tarvex_box_common.h"
#include "tarvex_c_edge.h"

/* A unique_ptr's deleter that hands the pointer to a C release function. */
template <auto Release>
struct tarvex_box_releaser {
    template <class T>
    void operator()(T *object) const
    {
        Release(object);
    }
};

/* A malloc'd string: what the framework and the C helpers hand over, and
 * what a record's string field holds. */
using tarvex_box_cstr_ptr = std::unique_ptr<char, tarvex_box_releaser<free>>;

/* A record's string field takes `text` (none: it is cleared); the string
 * it held is freed. */
inline void tarvex_box_field_take(char **field, tarvex_box_cstr_ptr text)
{
    free(*field);
    *field = text.release();
}

/* A record's string field takes a copy of `text`; false, with the field
 * as it was, when memory runs out. */
inline bool tarvex_box_field_set(char **field, const char *text)
{
    tarvex_box_cstr_ptr copy(strdup(text));
    if (copy == nullptr)
        return false;
    tarvex_box_field_take(field, std::move(copy));
    return true;
}

/* A buffer of the plug-in's own for bytes on their way (a part, a range),
 * uninitialised; none when memory runs out. */
using tarvex_box_bytes = std::unique_ptr<tarvex_byte_t[]>;
inline tarvex_box_bytes tarvex_box_bytes_alloc(size_t size)
{
    return tarvex_box_bytes(new (std::nothrow) tarvex_byte_t[size]);
}

/* An item record allocated by the plug-in (freeme set), until the path
 * cache or the caller takes it. */
using tarvex_box_path_info_ptr =
    std::unique_ptr<tarvex_box_path_info_t, tarvex_box_releaser<tarvex_box_path_info_free>>;

/* One reference on a jansson document. */
using tarvex_box_json_ptr = std::unique_ptr<json_t, tarvex_box_releaser<json_decref>>;

/* An upload session record made by the plug-in, until the upload table
 * takes it. */
using tarvex_box_upload_session_ptr =
    std::unique_ptr<tarvex_box_upload_session_t,
                    tarvex_box_releaser<tarvex_box_upload_session_free>>;

/* The outputs of a Box request (header values, answer document). */
struct tarvex_box_request_guard {
    tarvex_box_request_t *request;
    ~tarvex_box_request_guard() { tarvex_box_request_release(request); }
};

/* The strings of an item record that lives on the stack. */
struct tarvex_box_info_guard {
    tarvex_box_path_info_t *info;
    ~tarvex_box_info_guard() { tarvex_box_path_info_free(info); }
};

/*
 * Runs `body` (returning a tarvex_result_t) so that no exception crosses
 * into the C callers: the standard library's only one here is bad_alloc,
 * which becomes the out-of-memory error like any failed malloc.
 */
template <class Body>
tarvex_result_t tarvex_box_guarded(Body &&body) noexcept
{
    return tarvex::at_c_edge_with(std::forward<Body>(body), []() -> tarvex_result_t {
        if (tarvex::out_of_memory_thrown()) {
            errno = ENOMEM;
            return TARVEX_BOX_MALLOC_ERROR();
        }
        return tarvex_error_put(tarvex_error_construct_error(
            nullptr, nullptr, TARVEX_GFS_ERROR_GENERIC, TARVEX_BOX_SOURCE, "guarded", 0, "%s",
            "Unexpected internal failure."));
    });
}

/*
 * The body of an entry point that returns a result: traced in and out
 * under the entry point's name, and guarded.  Use as
 *     return TARVEX_BOX_TRACED(tarvex_l_box_work(a, b));
 */
template <class Body>
tarvex_result_t tarvex_box_traced(const char *function, Body &&body) noexcept
{
    TARVEX_BOX_LOG_AS(TARVEX_BOX_TRACE, function, "enter\n");
    tarvex_result_t result = tarvex_box_guarded(body);
    tarvex_box_trace_exit_result(function, result);
    return result;
}
#define TARVEX_BOX_TRACED(...) tarvex_box_traced(__func__, [&] { return __VA_ARGS__; })

#endif
