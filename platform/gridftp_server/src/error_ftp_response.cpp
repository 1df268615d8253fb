// The FTP response error: a reply code, an error class word and a message,
// derived from the base error (which keeps the same message, the cause and
// the type number TARVEX_GFS_ERROR_FTP_RESPONSE).  Its printable form is the
// message alone; the reply formatter adds code and class word.
//
// Also the system error of this library: an errno error with a formatted
// message, put into the error table.
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "tarvex_gridftp_server.h"

namespace {

struct ftp_response_data {
    int code;
    char *error_class; // NULL: none
    char *message;     // NULL: none
};

char *dup_or_null(const char *s)
{
    return s != nullptr ? strdup(s) : nullptr;
}

void ftp_response_free(void *data)
{
    auto *d = static_cast<ftp_response_data *>(data);
    if (d == nullptr)
        return;
    free(d->error_class);
    free(d->message);
    free(d);
}

void ftp_response_copy(void *src, void **dst)
{
    if (dst == nullptr)
        return;
    *dst = nullptr;
    auto *s = static_cast<ftp_response_data *>(src);
    if (s == nullptr)
        return;
    auto *d = static_cast<ftp_response_data *>(calloc(1, sizeof(ftp_response_data)));
    if (d == nullptr)
        return;
    d->code = s->code;
    d->error_class = dup_or_null(s->error_class);
    d->message = dup_or_null(s->message);
    if ((s->error_class != nullptr && d->error_class == nullptr) ||
        (s->message != nullptr && d->message == nullptr)) {
        ftp_response_free(d);
        return;
    }
    *dst = d;
}

const ftp_response_data *data_of(const tarvex_object_t *error)
{
    if (error == nullptr ||
        !tarvex_object_type_match(tarvex_object_get_type(error),
                                  TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE))
        return nullptr;
    return static_cast<const ftp_response_data *>(
        tarvex_object_get_instance_data(error, TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE));
}

char *ftp_response_printable(tarvex_object_t *error)
{
    const ftp_response_data *d = data_of(error);
    return strdup(d != nullptr && d->message != nullptr ? d->message : "");
}

const tarvex_error_class_t ftp_response_class = {ftp_response_printable};

// tarvex_error_initialize_error() takes a va_list; this gives it one.
__attribute__((format(printf, 4, 5)))
tarvex_object_t *initialize_base(tarvex_object_t *error,
                                 tarvex_module_descriptor_t *module, int type,
                                 const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    tarvex_object_t *r = tarvex_error_initialize_error(error, module, nullptr, type,
                                                       __FILE__, __func__, __LINE__,
                                                       format, ap);
    va_end(ap);
    return r;
}

} // namespace

extern "C" const tarvex_object_type_t TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE_DEFINITION = {
    &TARVEX_ERROR_TYPE_BASE_DEFINITION,
    ftp_response_copy,
    ftp_response_free,
    &ftp_response_class,
};

extern "C" {

tarvex_object_t *tarvex_gfs_ftp_response_error_v_construct(
    tarvex_module_descriptor_t *module, tarvex_object_t *cause, int response_code,
    const char *response_error_code, const char *format, va_list ap)
{
    char *message = nullptr;
    if (format != nullptr) {
        message = tarvex_common_v_create_string(format, ap);
        if (message == nullptr) {
            tarvex_object_free(cause);
            return nullptr;
        }
    }

    auto *d = static_cast<ftp_response_data *>(calloc(1, sizeof(ftp_response_data)));
    tarvex_object_t *error = tarvex_object_construct(TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE);
    if (d == nullptr || error == nullptr) {
        free(d);
        free(message);
        tarvex_object_free(error);
        tarvex_object_free(cause);
        return nullptr;
    }
    d->code = response_code;
    d->message = message;
    d->error_class = dup_or_null(response_error_code);
    tarvex_object_set_local_instance_data(error, d);
    if (response_error_code != nullptr && d->error_class == nullptr) {
        tarvex_object_free(error);
        tarvex_object_free(cause);
        return nullptr;
    }

    // The base level gets the same message so that generic error code
    // (tarvex_error_get_message, matching by type) sees it too.  The cause
    // is attached afterwards so that its ownership is plain on every path.
    tarvex_object_t *ok =
        message != nullptr
            ? initialize_base(error, module, TARVEX_GFS_ERROR_FTP_RESPONSE, "%s", message)
            : initialize_base(error, module, TARVEX_GFS_ERROR_FTP_RESPONSE, nullptr);
    if (ok == nullptr) {
        tarvex_object_free(error);
        tarvex_object_free(cause);
        return nullptr;
    }
    if (cause != nullptr)
        tarvex_error_set_cause(error, cause);
    return error;
}

tarvex_object_t *tarvex_gfs_ftp_response_error_construct(
    tarvex_module_descriptor_t *module, tarvex_object_t *cause, int response_code,
    const char *response_error_code, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    tarvex_object_t *error = tarvex_gfs_ftp_response_error_v_construct(
        module, cause, response_code, response_error_code, format, ap);
    va_end(ap);
    return error;
}

int tarvex_gfs_ftp_response_error_get_code(const tarvex_object_t *error)
{
    const ftp_response_data *d = data_of(error);
    return d != nullptr ? d->code : 0;
}

const char *tarvex_gfs_ftp_response_error_get_class(const tarvex_object_t *error)
{
    const ftp_response_data *d = data_of(error);
    return d != nullptr ? d->error_class : nullptr;
}

const char *tarvex_gfs_ftp_response_error_get_message(const tarvex_object_t *error)
{
    const ftp_response_data *d = data_of(error);
    return d != nullptr ? d->message : nullptr;
}

tarvex_object_t *tarvex_gfs_ftp_response_error_find(tarvex_object_t *error)
{
    for (tarvex_object_t *e = error; e != nullptr; e = tarvex_error_get_cause(e)) {
        if (data_of(e) != nullptr)
            return e;
    }
    return nullptr;
}

tarvex_result_t tarvex_i_gfs_error_system(tarvex_module_descriptor_t *module,
                                          int system_errno, const char *format, ...)
{
    char *message = nullptr;
    if (format != nullptr) {
        va_list ap;
        va_start(ap, format);
        message = tarvex_common_v_create_string(format, ap);
        va_end(ap);
    }
    // Out of memory while reporting an error (most often "malloc" itself):
    // still return a system error, with a fixed text.
    const char *text = message != nullptr ? message : "System error";
    tarvex_object_t *error = tarvex_error_construct_errno_error(
        module, nullptr, system_errno, __FILE__, __func__, __LINE__, "%s", text);
    // The errno constructor numbers the error by its errno; this library's
    // system errors carry their own type number instead.
    if (error != nullptr &&
        initialize_base(error, module, TARVEX_GFS_ERROR_SYSTEM_ERROR, "%s", text) == nullptr) {
        tarvex_object_free(error);
        error = nullptr;
    }
    free(message);
    return tarvex_error_put(error);
}

} // extern "C"
