/*
 * Errors and results.
 *
 * An error is an object whose type descends from TARVEX_ERROR_TYPE_BASE.
 * The base level holds the source module, the cause (another error, owned),
 * a type number, the file, function and line it was made at, and a message.
 * Error types keep a tarvex_error_class_t as their class data; its
 * printable function renders one error (without its cause) as text.
 *
 * The process error table turns an error object into a tarvex_result_t and
 * back.  It is thread safe and bounded: it holds at most
 * TARVEX_ERROR_TABLE_CAPACITY errors.  A handle is a slot number plus a
 * generation count, so a handle that was taken out with tarvex_error_get()
 * (or evicted, below) never names a later error.  When the table is full,
 * tarvex_error_put() frees the oldest error still in it and reuses its slot;
 * a result that is not looked at within that many newer errors therefore
 * reads as unknown (peek and get return NULL).  Handles are never 0 and
 * never TARVEX_FAILURE.
 */
#ifndef TARVEX_ERROR_H
#define TARVEX_ERROR_H

#include <stdarg.h>

#include "tarvex_object.h"

#ifdef __cplusplus
extern "C" {
#endif

struct tarvex_module_descriptor_s;

#define TARVEX_ERROR_TABLE_CAPACITY 4096

/* Renders one error (not its cause); allocated text, or NULL. */
typedef char *(*tarvex_error_printable_func_t)(tarvex_object_t *error);

typedef struct tarvex_error_class_s {
    tarvex_error_printable_func_t printable;
} tarvex_error_class_t;

/* The base error type.  Its printable form is the message. */
TARVEX_API extern const tarvex_object_type_t TARVEX_ERROR_TYPE_BASE_DEFINITION;
#define TARVEX_ERROR_TYPE_BASE (&TARVEX_ERROR_TYPE_BASE_DEFINITION)

/* An error that also carries an errno value.  Printable form: the message,
 * ": ", and strerror of the errno. */
TARVEX_API extern const tarvex_object_type_t TARVEX_ERROR_TYPE_ERRNO_DEFINITION;
#define TARVEX_ERROR_TYPE_ERRNO (&TARVEX_ERROR_TYPE_ERRNO_DEFINITION)

/* ---- the process error table ---- */

/* Stores `error` (the table owns it now) and returns its handle.  NULL
 * gives TARVEX_FAILURE, and so does a table that could not be allocated
 * (the error is freed then). */
TARVEX_API tarvex_result_t tarvex_error_put(tarvex_object_t *error);

/* The error behind `result`, still owned by the table; NULL for
 * TARVEX_SUCCESS, TARVEX_FAILURE and unknown handles. */
TARVEX_API tarvex_object_t *tarvex_error_peek(tarvex_result_t result);

/* Takes the error out of the table: the caller owns it now. */
TARVEX_API tarvex_object_t *tarvex_error_get(tarvex_result_t result);

/* Takes the error out of the table and frees it: for a result that is
 * replaced by another or deliberately not reported.  Does nothing for
 * TARVEX_SUCCESS, TARVEX_FAILURE and unknown handles. */
TARVEX_API void tarvex_error_discard(tarvex_result_t result);

/* Number of errors the table holds now (for tests and diagnostics). */
TARVEX_API size_t tarvex_error_table_count(void);

/* ---- base errors ---- */

/* New base error.  `cause` becomes owned by the new error.  The message is
 * formatted from `format` (NULL: no message).  NULL when memory runs out
 * (the cause is freed then). */
TARVEX_API tarvex_object_t *tarvex_error_construct_error(
    struct tarvex_module_descriptor_s *module, tarvex_object_t *cause, int type,
    const char *file, const char *function, int line, const char *format, ...)
    __attribute__((format(printf, 7, 8)));
TARVEX_API tarvex_object_t *tarvex_error_v_construct_error(
    struct tarvex_module_descriptor_s *module, tarvex_object_t *cause, int type,
    const char *file, const char *function, int line, const char *format,
    va_list ap) __attribute__((format(printf, 7, 0)));

/* Fills the base level of an object of any error type (used by the
 * constructors of derived types).  Returns `error`, or NULL when it is not
 * an error or memory runs out. */
TARVEX_API tarvex_object_t *tarvex_error_initialize_error(
    tarvex_object_t *error, struct tarvex_module_descriptor_s *module,
    tarvex_object_t *cause, int type, const char *file, const char *function,
    int line, const char *format, va_list ap) __attribute__((format(printf, 8, 0)));

/* Convenience: a base error at the caller's location. */
#define TARVEX_ERROR_CONSTRUCT(module, cause, type, ...)                        \
    tarvex_error_construct_error((module), (cause), (type), __FILE__, __func__, \
                                 __LINE__, __VA_ARGS__)

TARVEX_API bool tarvex_error_is_error(const tarvex_object_t *object);

/* Accessors of the base level; NULL / 0 when the object has none. */
TARVEX_API tarvex_object_t *tarvex_error_get_cause(const tarvex_object_t *error);
/* Replaces the cause (the old one is freed; the new one becomes owned). */
TARVEX_API void tarvex_error_set_cause(tarvex_object_t *error, tarvex_object_t *cause);
TARVEX_API int tarvex_error_get_type(const tarvex_object_t *error);
TARVEX_API struct tarvex_module_descriptor_s *tarvex_error_get_source(const tarvex_object_t *error);
TARVEX_API const char *tarvex_error_get_message(const tarvex_object_t *error);
TARVEX_API const char *tarvex_error_get_file(const tarvex_object_t *error);
TARVEX_API const char *tarvex_error_get_function(const tarvex_object_t *error);
TARVEX_API int tarvex_error_get_line(const tarvex_object_t *error);

/* True when `error` or an error in its cause chain has the source module
 * `module` and the type number `type`. */
TARVEX_API bool tarvex_error_match(const tarvex_object_t *error,
                                   const struct tarvex_module_descriptor_s *module, int type);

/* ---- errno errors ---- */

TARVEX_API tarvex_object_t *tarvex_error_construct_errno_error(
    struct tarvex_module_descriptor_s *module, tarvex_object_t *cause,
    int system_errno, const char *file, const char *function, int line,
    const char *format, ...) __attribute__((format(printf, 7, 8)));
/* The errno of the nearest errno error in the chain, or 0. */
TARVEX_API int tarvex_error_errno_get_errno(const tarvex_object_t *error);

/* ---- printing ---- */

/* The printable form of one error (its type's printable function); NULL
 * when it has none. */
TARVEX_API char *tarvex_error_print_one(const tarvex_object_t *error);

/* The whole cause chain, outermost first: each error's printable form,
 * joined by line feeds (an error whose printable form is empty or NULL
 * contributes nothing).  Allocated; never NULL for a non-NULL argument
 * unless memory runs out; "" for NULL. */
TARVEX_API char *tarvex_error_print_chain(const tarvex_object_t *error);

#ifdef __cplusplus
}
#endif

#endif
