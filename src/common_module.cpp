/*
 * The plug-in's common module: brings up the runtime, the debug stream and
 * the REST client, and owns the debug printers every other file uses.
 */
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdlib>

#include "common_module.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"

extern "C" {

tarvex_debug_handle_t tarvex_i_TARVEX_BOX_debug_handle;

/* Indexed by the level's bit value; the gaps have no name. */
const char *tarvex_i_box_debug_level_names[17] = {
    nullptr, "TRACE",  "DEBUG", nullptr, "INFO",  nullptr,
    nullptr, nullptr,  "WARN",  nullptr, nullptr, nullptr,
    nullptr, nullptr,  nullptr, nullptr, "ERROR",
};

static int tarvex_l_box_common_activate(void);
static int tarvex_l_box_common_deactivate(void);

static const tarvex_version_t tarvex_l_box_common_version = {0, 26, 0, 0};

TARVEX_API tarvex_module_descriptor_t tarvex_i_box_common_module = {
    "tarvex_box_common",
    tarvex_l_box_common_activate,
    tarvex_l_box_common_deactivate,
    nullptr,
    nullptr,
    &tarvex_l_box_common_version,
    nullptr,
};

} // extern "C"

/* The REST client is activated even when the runtime is not: the plug-in
 * must still be able to register its table, and the result tells the
 * caller that debugging is off. */
static int tarvex_l_box_common_activate(void)
{
    int rc = tarvex_module_activate(&tarvex_i_common_module);
    if (rc == 0)
        tarvex_debug_init("TARVEX_BOX_DEBUG", "TRACE DEBUG INFO WARN ERROR",
                          &tarvex_i_TARVEX_BOX_debug_handle);
    (void)tarvex_module_activate(&tarvex_i_dsi_rest_module);
    return rc;
}

static int tarvex_l_box_common_deactivate(void)
{
    (void)tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
    (void)tarvex_module_deactivate(&tarvex_i_common_module);
    tarvex_debug_handle_t *handle = &tarvex_i_TARVEX_BOX_debug_handle;
    if (handle->using_file && handle->file != nullptr) {
        fclose(handle->file);
        handle->using_file = false;
    }
    /* Every print checks the stream first, so this turns them all off. */
    handle->file = nullptr;
    return 0;
}

/* ---- the three printers ---- */

enum { TARVEX_L_BOX_LINE_MAX = 4096 };

/* With a prefix, the caller's format is copied behind it into one buffer
 * (and cut there), so the stream is handed a format built at run time.  The
 * caller's own format is still checked by the printers' attributes. */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

__attribute__((format(printf, 2, 0)))
static void tarvex_l_box_vprintf(FILE *file, const char *format, va_list ap)
{
    if (!tarvex_i_TARVEX_BOX_debug_handle.thread_ids) {
        vfprintf(file, format, ap);
        return;
    }
    char buffer[TARVEX_L_BOX_LINE_MAX] = {0};
    snprintf(buffer, sizeof buffer, "%lu::%s",
             (unsigned long)tarvex_thread_self(), format);
    vfprintf(file, buffer, ap);
}

__attribute__((format(printf, 2, 0)))
static void tarvex_l_box_time_vprintf(FILE *file, const char *format, va_list ap)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    unsigned long sec = (unsigned long)now.tv_sec;
    unsigned long nsec = (unsigned long)now.tv_usec * 1000UL;

    char buffer[TARVEX_L_BOX_LINE_MAX] = {0};
    if (tarvex_i_TARVEX_BOX_debug_handle.thread_ids)
        snprintf(buffer, sizeof buffer, "%lu:%lu.%.9lu::%s",
                 (unsigned long)tarvex_thread_self(), sec, nsec, format);
    else
        snprintf(buffer, sizeof buffer, "%lu.%.9lu::%s", sec, nsec, format);
    vfprintf(file, buffer, ap);
}

#pragma GCC diagnostic pop

/* One print to the debug stream, when there is one: stamped with the time
 * or not. */
__attribute__((format(printf, 2, 0)))
static void tarvex_l_box_print(bool stamped, const char *format, va_list ap)
{
    FILE *file = tarvex_i_TARVEX_BOX_debug_handle.file;
    if (file == nullptr)
        return;
    if (stamped)
        tarvex_l_box_time_vprintf(file, format, ap);
    else
        tarvex_l_box_vprintf(file, format, ap);
}

extern "C" void tarvex_i_TARVEX_BOX_debug_printf(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    tarvex_l_box_print(false, format, ap);
    va_end(ap);
}

extern "C" void tarvex_i_TARVEX_BOX_debug_time_printf(const char *format, ...)
{
    va_list ap;
    va_start(ap, format);
    tarvex_l_box_print(true, format, ap);
    va_end(ap);
}

extern "C" void tarvex_i_TARVEX_BOX_debug_fwrite(const void *buffer, size_t size,
                                                 size_t count)
{
    FILE *file = tarvex_i_TARVEX_BOX_debug_handle.file;
    if (file != nullptr)
        fwrite(buffer, size, count, file);
}

/* ---- traced lines ---- */

static const char *tarvex_l_box_level_name(unsigned level)
{
    if (level >= 17 || tarvex_i_box_debug_level_names[level] == nullptr)
        return "";
    return tarvex_i_box_debug_level_names[level];
}

extern "C" void tarvex_box_debug_line(unsigned level, const char *function,
                                      const char *format, ...)
{
    tarvex_debug_handle_t *handle = &tarvex_i_TARVEX_BOX_debug_handle;
    if (!(handle->levels & level))
        return;
    FILE *file = handle->file;
    if (file == nullptr)
        return;

    /* One lock over prefix and text so that lines of threads don't mix. */
    flockfile(file);
    if (handle->levels & level) {
        if (handle->timestamp_levels & level)
            tarvex_i_TARVEX_BOX_debug_time_printf(
                "box: %5s: %li: %s: ", tarvex_l_box_level_name(level),
                (long)getpid(), function);
        else
            tarvex_i_TARVEX_BOX_debug_printf(
                "box: %5s: %li: %s: ", tarvex_l_box_level_name(level),
                (long)getpid(), function);
    }
    va_list ap;
    va_start(ap, format);
    tarvex_l_box_vprintf(file, format, ap);
    va_end(ap);
    funlockfile(file);
}

extern "C" void tarvex_box_trace_exit_result(const char *function,
                                             tarvex_result_t result)
{
    if (result == TARVEX_SUCCESS) {
        if (tarvex_i_TARVEX_BOX_debug_handle.levels & TARVEX_BOX_TRACE)
            tarvex_box_debug_line(TARVEX_BOX_TRACE, function,
                                  "exit: result=TARVEX_SUCCESS\n");
        return;
    }
    const tarvex_box_cstr_ptr message(tarvex_error_print_chain(tarvex_error_peek(result)));
    unsigned level = tarvex_i_box_debug_level_names[TARVEX_BOX_ERROR] != nullptr
                         ? TARVEX_BOX_ERROR
                         : TARVEX_BOX_TRACE;
    if (tarvex_i_TARVEX_BOX_debug_handle.levels & level)
        tarvex_box_debug_line(level, function, "exit: result=%#x message=%s\n",
                              (unsigned)result, message ? message.get() : "");
}
