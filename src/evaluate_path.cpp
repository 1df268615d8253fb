/*
 * Expands "$HOME" and "$LOGNAME" in the names of the plug-in's local
 * files.  The values come from the password entry of the real user, never
 * from the environment, which a client-facing server must not trust.
 */
#include <errno.h>
#include <pwd.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "evaluate_path.h"
#include "tarvex_box_common.h"

extern "C" {
/* The password lookup; tests replace it to see the buffer grow. */
int (*tarvex_i_box_getpwuid_r)(uid_t, struct passwd *, char *, size_t,
                               struct passwd **) = getpwuid_r;
}

namespace {

constexpr size_t tarvex_l_box_pw_buffer_start = 64;

size_t count_of(const char *text, const char *word)
{
    size_t count = 0;
    size_t len = strlen(word);
    for (const char *at = strstr(text, word); at != nullptr; at = strstr(at + len, word))
        count++;
    return count;
}

/* The failed-exit line names the public function, not this helper. */
tarvex_result_t fail(const char *function, tarvex_result_t result, char **out)
{
    *out = nullptr;
    tarvex_box_trace_exit_result(function, result);
    return result;
}

} // namespace

extern "C" tarvex_result_t tarvex_box_evaluate_path(const char *template_path,
                                                    char **result_out)
{
    if (template_path == nullptr)
        return fail(__func__,
                    tarvex_i_gfs_error_system(nullptr, EINVAL, "System error%s%s", " in ",
                                              "tarvex_box_evaluate_path"),
                    result_out);
    struct passwd entry;
    struct passwd *found = nullptr;
    std::unique_ptr<char[]> buffer;
    size_t buffer_size = tarvex_l_box_pw_buffer_start;

    /* The needed size is unknown up front: grow while the entry does not
     * fit.  The reason is read from errno alone, never from the returned
     * value: a lookup that fails without saying ERANGE there is a failure. */
    for (;;) {
        buffer.reset(new (std::nothrow) char[buffer_size]);
        if (buffer == nullptr)
            return fail(__func__, TARVEX_BOX_MALLOC_ERROR(), result_out);
        errno = 0;
        int rc = tarvex_i_box_getpwuid_r(getuid(), &entry, buffer.get(), buffer_size, &found);
        if (rc == 0)
            break;
        if (errno != ERANGE)
            return fail(__func__, TARVEX_BOX_MALLOC_ERROR(), result_out);
        buffer_size *= 2;
    }

    /* A user without an entry expands both variables to nothing. */
    const char *name = found && found->pw_name ? found->pw_name : "";
    const char *home = found && found->pw_dir ? found->pw_dir : "";
    size_t name_len = strlen(name);
    size_t home_len = strlen(home);

    size_t homes = count_of(template_path, "$HOME");
    size_t lognames = count_of(template_path, "$LOGNAME");
    size_t size = strlen(template_path) + homes * home_len - homes * 5 +
                  lognames * name_len - lognames * 8 + 1;
    char *expanded = static_cast<char *>(malloc(size));
    if (expanded == nullptr)
        return fail(__func__, TARVEX_BOX_MALLOC_ERROR(), result_out);

    char *out = expanded;
    const char *in = template_path;
    for (;;) {
        const char *logname_at = strstr(in, "$LOGNAME");
        const char *home_at = strstr(in, "$HOME");
        const char *next = logname_at;
        if (next == nullptr || (home_at != nullptr && home_at < next))
            next = home_at;
        if (next == nullptr)
            break;
        memcpy(out, in, (size_t)(next - in));
        out += next - in;
        if (next == logname_at) {
            memcpy(out, name, name_len);
            out += name_len;
            in = next + 8;
        } else {
            memcpy(out, home, home_len);
            out += home_len;
            in = next + 5;
        }
    }
    size_t rest = strlen(in);
    memcpy(out, in, rest + 1);

    *result_out = expanded;
    TARVEX_BOX_TRACE_RESULT(TARVEX_SUCCESS);
    return TARVEX_SUCCESS;
}
