// The base error type and the errno error type, their constructors,
// accessors and printing.
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>

#include "tarvex_error.h"
#include "tarvex_module.h"
#include "tarvex_string.h"

namespace {

// Instance data of the base level.
struct base_data {
    tarvex_module_descriptor_t *module = nullptr;
    tarvex_object_t *cause = nullptr; // owned
    int type = 0;
    std::optional<std::string> file;
    std::optional<std::string> function;
    int line = 0;
    std::optional<std::string> message;

    ~base_data() { tarvex_object_free(cause); }
};

// Instance data of the errno level.
struct errno_data {
    int system_errno = 0;
};

void base_copy(void *src, void **dst)
{
    *dst = nullptr;
    auto *from = static_cast<base_data *>(src);
    auto *to = new (std::nothrow) base_data;
    if (to == nullptr)
        return;
    try {
        to->module = from->module;
        to->type = from->type;
        to->file = from->file;
        to->function = from->function;
        to->line = from->line;
        to->message = from->message;
    } catch (const std::bad_alloc &) {
        delete to;
        return;
    }
    if (from->cause != nullptr) {
        to->cause = tarvex_object_copy(from->cause);
        if (to->cause == nullptr) {
            delete to;
            return;
        }
    }
    *dst = to;
}

void base_destroy(void *data)
{
    delete static_cast<base_data *>(data);
}

void errno_copy(void *src, void **dst)
{
    *dst = new (std::nothrow) errno_data(*static_cast<errno_data *>(src));
}

void errno_destroy(void *data)
{
    delete static_cast<errno_data *>(data);
}

char *dup_or_null(const std::string &text)
{
    return strdup(text.c_str());
}

base_data *base_of(const tarvex_object_t *error)
{
    if (!tarvex_error_is_error(error))
        return nullptr;
    return static_cast<base_data *>(
        tarvex_object_get_instance_data(error, TARVEX_ERROR_TYPE_BASE));
}

char *base_printable(tarvex_object_t *error)
{
    const char *message = tarvex_error_get_message(error);
    return strdup(message == nullptr ? "" : message);
}

std::string errno_text(int number)
{
    char buffer[256];
    // GNU strerror_r: returns the text, which may or may not be `buffer`.
    return strerror_r(number, buffer, sizeof buffer);
}

char *errno_printable(tarvex_object_t *error)
{
    auto *data = static_cast<errno_data *>(
        tarvex_object_get_instance_data(error, TARVEX_ERROR_TYPE_ERRNO));
    int number = data == nullptr ? 0 : data->system_errno;
    const char *message = tarvex_error_get_message(error);
    try {
        std::string text;
        if (message != nullptr && *message != '\0') {
            text = message;
            text += ": ";
        }
        text += errno_text(number);
        return dup_or_null(text);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

const tarvex_error_class_t base_class = {base_printable};
const tarvex_error_class_t errno_class = {errno_printable};

} // namespace

extern "C" {

const tarvex_object_type_t TARVEX_ERROR_TYPE_BASE_DEFINITION = {
    nullptr, base_copy, base_destroy, &base_class};

const tarvex_object_type_t TARVEX_ERROR_TYPE_ERRNO_DEFINITION = {
    TARVEX_ERROR_TYPE_BASE, errno_copy, errno_destroy, &errno_class};

bool tarvex_error_is_error(const tarvex_object_t *object)
{
    return object != nullptr &&
           tarvex_object_type_match(tarvex_object_get_type(object), TARVEX_ERROR_TYPE_BASE);
}

// The cause is owned by this call whatever happens: on failure it is freed,
// so that constructors of derived types need not track it.
tarvex_object_t *tarvex_error_initialize_error(
    tarvex_object_t *error, tarvex_module_descriptor_t *module, tarvex_object_t *cause,
    int type, const char *file, const char *function, int line, const char *format,
    va_list ap)
{
    if (!tarvex_error_is_error(error)) {
        tarvex_object_free(cause);
        return nullptr;
    }
    auto *data = new (std::nothrow) base_data;
    if (data == nullptr) {
        tarvex_object_free(cause);
        return nullptr;
    }
    data->cause = cause;
    data->module = module;
    data->type = type;
    data->line = line;
    try {
        if (file != nullptr)
            data->file = file;
        if (function != nullptr)
            data->function = function;
        if (format != nullptr) {
            char *message = tarvex_common_v_create_string(format, ap);
            if (message == nullptr) {
                delete data;
                return nullptr;
            }
            data->message = message;
            std::free(message);
        }
    } catch (const std::bad_alloc &) {
        delete data;
        return nullptr;
    }
    base_destroy(tarvex_object_get_instance_data(error, TARVEX_ERROR_TYPE_BASE));
    tarvex_object_set_instance_data(error, TARVEX_ERROR_TYPE_BASE, data);
    return error;
}

tarvex_object_t *tarvex_error_v_construct_error(
    tarvex_module_descriptor_t *module, tarvex_object_t *cause, int type, const char *file,
    const char *function, int line, const char *format, va_list ap)
{
    tarvex_object_t *error = tarvex_object_construct(TARVEX_ERROR_TYPE_BASE);
    if (error == nullptr) {
        tarvex_object_free(cause);
        return nullptr;
    }
    if (tarvex_error_initialize_error(error, module, cause, type, file, function, line,
                                      format, ap) == nullptr) {
        tarvex_object_free(error);
        return nullptr;
    }
    return error;
}

tarvex_object_t *tarvex_error_construct_error(
    tarvex_module_descriptor_t *module, tarvex_object_t *cause, int type, const char *file,
    const char *function, int line, const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    tarvex_object_t *error = tarvex_error_v_construct_error(module, cause, type, file,
                                                            function, line, format, ap);
    va_end(ap);
    return error;
}

tarvex_object_t *tarvex_error_get_cause(const tarvex_object_t *error)
{
    base_data *data = base_of(error);
    return data == nullptr ? nullptr : data->cause;
}

void tarvex_error_set_cause(tarvex_object_t *error, tarvex_object_t *cause)
{
    if (!tarvex_error_is_error(error)) {
        // Ownership of `cause` passes to this call either way.
        if (cause != error)
            tarvex_object_free(cause);
        return;
    }
    base_data *data = base_of(error);
    if (data == nullptr) {
        // A derived error whose constructor never filled the base level
        // can still carry a cause.
        data = new (std::nothrow) base_data;
        if (data == nullptr) {
            tarvex_object_free(cause);
            return;
        }
        tarvex_object_set_instance_data(error, TARVEX_ERROR_TYPE_BASE, data);
    }
    if (data->cause == cause)
        return;
    // Keep the chain acyclic: an error cannot become a cause of itself.
    // Refused without freeing, since `cause` then owns `error`.
    for (const tarvex_object_t *e = cause; e != nullptr; e = tarvex_error_get_cause(e)) {
        if (e == error)
            return;
    }
    tarvex_object_free(data->cause);
    data->cause = cause;
}

int tarvex_error_get_type(const tarvex_object_t *error)
{
    base_data *data = base_of(error);
    return data == nullptr ? 0 : data->type;
}

tarvex_module_descriptor_t *tarvex_error_get_source(const tarvex_object_t *error)
{
    base_data *data = base_of(error);
    return data == nullptr ? nullptr : data->module;
}

const char *tarvex_error_get_message(const tarvex_object_t *error)
{
    base_data *data = base_of(error);
    return data == nullptr || !data->message ? nullptr : data->message->c_str();
}

const char *tarvex_error_get_file(const tarvex_object_t *error)
{
    base_data *data = base_of(error);
    return data == nullptr || !data->file ? nullptr : data->file->c_str();
}

const char *tarvex_error_get_function(const tarvex_object_t *error)
{
    base_data *data = base_of(error);
    return data == nullptr || !data->function ? nullptr : data->function->c_str();
}

int tarvex_error_get_line(const tarvex_object_t *error)
{
    base_data *data = base_of(error);
    return data == nullptr ? 0 : data->line;
}

bool tarvex_error_match(const tarvex_object_t *error,
                        const tarvex_module_descriptor_t *module, int type)
{
    for (const tarvex_object_t *e = error; e != nullptr; e = tarvex_error_get_cause(e)) {
        base_data *data = base_of(e);
        if (data != nullptr && data->module == module && data->type == type)
            return true;
    }
    return false;
}

tarvex_object_t *tarvex_error_construct_errno_error(
    tarvex_module_descriptor_t *module, tarvex_object_t *cause, int system_errno,
    const char *file, const char *function, int line, const char *format, ...)
{
    tarvex_object_t *error = tarvex_object_construct(TARVEX_ERROR_TYPE_ERRNO);
    if (error == nullptr) {
        tarvex_object_free(cause);
        return nullptr;
    }
    auto *data = new (std::nothrow) errno_data{system_errno};
    if (data == nullptr) {
        tarvex_object_free(error);
        tarvex_object_free(cause);
        return nullptr;
    }
    tarvex_object_set_local_instance_data(error, data);

    va_list ap;
    va_start(ap, format);
    tarvex_object_t *done = tarvex_error_initialize_error(error, module, cause, system_errno,
                                                          file, function, line, format, ap);
    va_end(ap);
    if (done == nullptr) {
        tarvex_object_free(error);
        return nullptr;
    }
    return error;
}

int tarvex_error_errno_get_errno(const tarvex_object_t *error)
{
    for (const tarvex_object_t *e = error; e != nullptr; e = tarvex_error_get_cause(e)) {
        auto *data = static_cast<errno_data *>(
            tarvex_object_get_instance_data(e, TARVEX_ERROR_TYPE_ERRNO));
        if (data != nullptr)
            return data->system_errno;
    }
    return 0;
}

char *tarvex_error_print_one(const tarvex_object_t *error)
{
    return tarvex_object_printable_to_string(error);
}

char *tarvex_error_print_chain(const tarvex_object_t *error)
{
    try {
        std::string text;
        for (const tarvex_object_t *e = error; e != nullptr; e = tarvex_error_get_cause(e)) {
            char *one = tarvex_error_print_one(e);
            if (one == nullptr)
                continue;
            if (*one != '\0') {
                if (!text.empty())
                    text += '\n';
                text += one;
            }
            std::free(one);
        }
        return dup_or_null(text);
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

} // extern "C"
