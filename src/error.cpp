/*
 * The box error: an error object that carries an ordered list of key/value
 * strings ("Box-Error", "Box-Details", ...).  It rides as the cause of an
 * FTP response error, so each pair becomes an extra line of the reply.
 */
#include <stdio.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "error.h"
#include "tarvex_box_common.h"

/* These checks guard the reply text the client sees; they stay on in
 * release builds, unlike assert(). */
#define TARVEX_L_BOX_CHECK(condition)                                           \
    do {                                                                        \
        if (!(condition))                                                       \
            tarvex_l_box_check_failed(#condition, __FILE__, __LINE__, __func__); \
    } while (0)

[[noreturn]] static void tarvex_l_box_check_failed(const char *condition,
                                                   const char *file, int line,
                                                   const char *function)
{
    fprintf(stderr, "%s:%d: %s: Assertion `%s' failed.\n", file, line, function,
            condition);
    abort();
}

static void tarvex_l_box_error_copy(void *src, void **dst);
static void tarvex_l_box_error_free(void *data);
static char *tarvex_l_box_error_printable(tarvex_object_t *error);

static const tarvex_error_class_t tarvex_l_box_error_class = {
    tarvex_l_box_error_printable,
};

extern "C" const tarvex_object_type_t TARVEX_BOX_ERROR_TYPE_DEFINITION = {
    &TARVEX_ERROR_TYPE_BASE_DEFINITION,
    tarvex_l_box_error_copy,
    tarvex_l_box_error_free,
    &tarvex_l_box_error_class,
};

using key_array_t = tarvex_dsi_rest_key_array_t;
using key_value_t = tarvex_dsi_rest_key_value_t;

/* The pairs are declared const for the REST client's sake; the box error
 * owns its copies (malloc'd: the error object system is C) and frees them
 * through this. */
static void tarvex_l_box_free_string(const char *text)
{
    free(const_cast<char *>(text));
}

/* Copies a pair's key and value into `to` (absent ones stay absent);
 * false, with nothing copied, when memory runs out. */
static bool tarvex_l_box_copy_pair(const key_value_t &from, key_value_t *to)
{
    char *key = from.key ? strdup(from.key) : nullptr;
    char *value = from.value ? strdup(from.value) : nullptr;
    if ((from.key && !key) || (from.value && !value)) {
        tarvex_l_box_free_string(key);
        tarvex_l_box_free_string(value);
        return false;
    }
    to->key = key;
    to->value = value;
    return true;
}

static bool tarvex_l_box_is_box_error(const tarvex_object_t *object)
{
    return object != nullptr &&
           tarvex_object_type_match(tarvex_object_get_type(object),
                                    TARVEX_BOX_ERROR_TYPE);
}

static key_array_t *tarvex_l_box_error_data(const tarvex_object_t *object)
{
    return static_cast<key_array_t *>(
        tarvex_object_get_instance_data(object, TARVEX_BOX_ERROR_TYPE));
}

static void tarvex_l_box_error_free(void *data)
{
    auto *info = static_cast<key_array_t *>(data);
    if (info == nullptr)
        return;
    for (size_t i = 0; i < info->count; i++) {
        tarvex_l_box_free_string(info->key_value[i].key);
        tarvex_l_box_free_string(info->key_value[i].value);
    }
    free(info->key_value);
    free(info);
}

static void tarvex_l_box_error_copy(void *src, void **dst)
{
    if (src == nullptr || dst == nullptr)
        return;
    const auto *from = static_cast<const key_array_t *>(src);
    auto *to = static_cast<key_array_t *>(calloc(1, sizeof(key_array_t)));
    *dst = nullptr;
    if (to == nullptr)
        return;
    if (from->count == 0) {
        *dst = to;
        return;
    }
    to->key_value = static_cast<key_value_t *>(calloc(from->count, sizeof(key_value_t)));
    if (to->key_value == nullptr) {
        free(to);
        return;
    }
    for (size_t i = 0; i < from->count; i++) {
        if (!tarvex_l_box_copy_pair(from->key_value[i], &to->key_value[i])) {
            tarvex_l_box_error_free(to);
            return;
        }
        to->count = i + 1;
    }
    *dst = to;
}

/*
 * The sizing pass and the writing pass decide differently on purpose: a
 * skipped first pair or a present but empty value makes them disagree,
 * and the length check then stops the process rather than hand out a
 * reply text whose size was not what was planned.
 */
static char *tarvex_l_box_error_printable(tarvex_object_t *error)
{
    tarvex_object_t *box_error = tarvex_l_box_is_box_error(error) ? error : nullptr;
    TARVEX_L_BOX_CHECK(box_error != NULL);
    const key_array_t *info = tarvex_l_box_error_data(box_error);
    size_t count = info ? info->count : 0;

    size_t len = 0;
    for (size_t i = 0; i < count; i++) {
        const key_value_t &pair = info->key_value[i];
        if (pair.key == nullptr || pair.key[0] == '\0' || pair.value == nullptr)
            continue;
        const char *separator = i == 0 ? "" : "\n";
        len += (size_t)snprintf(nullptr, 0, "%s%s: \"\"", separator, pair.key);
        for (const char *c = pair.value; *c; c++)
            len += strchr("\"\r\n\\", *c) ? 2 : 1;
    }

    char *msg = static_cast<char *>(malloc(len + 1));
    if (msg == nullptr)
        return nullptr;
    std::string text;
    text.reserve(len);
    const char *separator = "";
    for (size_t i = 0; i < count; i++) {
        const key_value_t &pair = info->key_value[i];
        if (pair.key == nullptr || pair.key[0] == '\0' || pair.value == nullptr ||
            pair.value[0] == '\0')
            continue;
        text += separator;
        text += pair.key;
        text += ": \"";
        for (const char *c = pair.value; *c; c++) {
            switch (*c) {
            case '"': text += "\\\""; break;
            case '\r': text += "\\r"; break;
            case '\n': text += "\\n"; break;
            case '\\': text += "\\\\"; break;
            default: text += *c; break;
            }
        }
        text += '"';
        separator = "\n";
    }
    /* Every written pair was also sized, with a separator at least as
     * long, so the text never outgrows the buffer. */
    size_t written = text.size() < len ? text.size() : len;
    memcpy(msg, text.data(), written);
    msg[written] = '\0';
    TARVEX_L_BOX_CHECK(strlen(msg) == len);
    return msg;
}

extern "C" tarvex_object_t *tarvex_box_error_initialize(tarvex_object_t *object,
                                                        tarvex_module_descriptor_t *,
                                                        tarvex_object_t *,
                                                        const key_array_t *info)
{
    if (!tarvex_l_box_is_box_error(object))
        return nullptr;
    key_array_t empty = {0, nullptr};
    void *copy = nullptr;
    tarvex_l_box_error_copy(const_cast<key_array_t *>(info ? info : &empty), &copy);
    if (copy == nullptr)
        return nullptr;
    /* Initialising twice replaces the pairs; the old ones are ours to free. */
    void *old = tarvex_object_get_instance_data(object, TARVEX_BOX_ERROR_TYPE);
    if (tarvex_object_set_instance_data(object, TARVEX_BOX_ERROR_TYPE, copy) != 0) {
        tarvex_l_box_error_free(copy);
        return nullptr;
    }
    tarvex_l_box_error_free(old);
    return object;
}

/* The module and the cause are not recorded: a box error is always the
 * innermost link of a chain. */
extern "C" tarvex_object_t *tarvex_box_error_construct(tarvex_module_descriptor_t *module,
                                                       tarvex_object_t *cause,
                                                       const key_array_t *info)
{
    tarvex_object_t *object = tarvex_object_construct(TARVEX_BOX_ERROR_TYPE);
    if (object == nullptr)
        return nullptr;
    if (tarvex_box_error_initialize(object, module, cause, info) == nullptr) {
        tarvex_object_free(object);
        return nullptr;
    }
    return object;
}

extern "C" const char *tarvex_box_error_get_info(tarvex_object_t *error,
                                                 const char *key)
{
    while (error != nullptr && !tarvex_l_box_is_box_error(error))
        error = tarvex_error_get_cause(error);
    if (error == nullptr || key == nullptr)
        return nullptr;
    const key_array_t *info = tarvex_l_box_error_data(error);
    if (info == nullptr)
        return nullptr;
    for (size_t i = 0; i < info->count; i++) {
        const key_value_t &pair = info->key_value[i];
        if (pair.key != nullptr && strcmp(pair.key, key) == 0)
            return pair.value;
    }
    return nullptr;
}

static key_value_t *tarvex_l_box_find_key(key_array_t *info, size_t count,
                                          const char *key)
{
    if (key == nullptr)
        return nullptr;
    for (size_t i = 0; i < count; i++)
        if (info->key_value[i].key != nullptr && strcmp(info->key_value[i].key, key) == 0)
            return &info->key_value[i];
    return nullptr;
}

static void tarvex_l_box_roll_back(key_array_t *info, size_t old_count)
{
    for (size_t i = old_count; i < info->count; i++) {
        tarvex_l_box_free_string(info->key_value[i].key);
        tarvex_l_box_free_string(info->key_value[i].value);
        info->key_value[i].key = nullptr;
        info->key_value[i].value = nullptr;
    }
    info->count = old_count;
}

/*
 * Existing keys keep their stored value.  After each append the slot that
 * follows must hold a value or the whole call is undone; with two or more
 * new keys that slot is one of the fresh empty ones, so such a call never
 * sticks.  One new key fills the last slot, and the append stands.
 */
extern "C" void tarvex_box_error_add_info(tarvex_object_t *error,
                                          const key_array_t *input)
{
    if (!tarvex_l_box_is_box_error(error) || input == nullptr || input->count == 0)
        return;
    key_array_t *info = tarvex_l_box_error_data(error);
    if (info == nullptr)
        return;

    const size_t old_count = info->count;
    size_t new_keys = 0;
    for (size_t i = 0; i < input->count; i++)
        if (tarvex_l_box_find_key(info, old_count, input->key_value[i].key) == nullptr)
            new_keys++;

    size_t capacity = old_count;
    if (new_keys != 0) {
        auto *grown = static_cast<key_value_t *>(
            realloc(info->key_value, (old_count + new_keys) * sizeof(key_value_t)));
        if (grown == nullptr)
            return;
        memset(grown + old_count, 0, new_keys * sizeof(key_value_t));
        info->key_value = grown;
        capacity = old_count + new_keys;
    }

    for (size_t i = 0; i < input->count; i++) {
        const key_value_t &pair = input->key_value[i];
        key_value_t *existing = tarvex_l_box_find_key(info, old_count, pair.key);
        if (existing != nullptr) {
            /* The stored value is kept (copied afresh when it can be). */
            key_value_t again = {nullptr, nullptr};
            if (existing->value != nullptr &&
                tarvex_l_box_copy_pair({nullptr, existing->value}, &again)) {
                tarvex_l_box_free_string(existing->value);
                existing->value = again.value;
            }
            continue;
        }
        if (info->count >= capacity)
            break;
        bool copied = tarvex_l_box_copy_pair(pair, &info->key_value[info->count]);
        info->count++;
        bool next_has_value =
            info->count >= capacity || info->key_value[info->count].value != nullptr;
        if (!copied || !next_has_value) {
            tarvex_l_box_roll_back(info, old_count);
            return;
        }
    }
}

extern "C" tarvex_result_t tarvex_box_error_append(tarvex_result_t result,
                                                   const key_array_t *info)
{
    tarvex_object_t *error = tarvex_error_peek(result);
    if (error == nullptr)
        return result;
    tarvex_object_t *details = tarvex_box_error_construct(nullptr, nullptr, info);
    if (details == nullptr)
        return result;
    while (tarvex_error_get_cause(error) != nullptr)
        error = tarvex_error_get_cause(error);
    tarvex_error_set_cause(error, details);
    return result;
}

/* Operations that come with a later release answer with this. */
extern "C" tarvex_result_t tarvex_box_not_implemented_yet(const char *what)
{
    tarvex_object_t *error = tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 502, "NOT_IMPLEMENTED_YET",
        "GridFTP-Error: %s is not implemented yet.", what ? what : "This operation");
    if (error == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    return tarvex_error_put(error);
}
