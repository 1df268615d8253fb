// Debug handles: the environment variable grammar is documented in
// tarvex_debug.h.
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string>
#include <strings.h>
#include <unistd.h>
#include <vector>

#include "tarvex_c_edge.h"
#include "tarvex_debug.h"
#include "tarvex_string.h"
#include "tarvex_thread.h"
#include "tarvex_time.h"

using tarvex::at_c_edge;

namespace {

std::string trim(const std::string &text)
{
    size_t start = 0;
    size_t end = text.size();
    while (start < end && isspace(static_cast<unsigned char>(text[start])))
        start++;
    while (end > start && isspace(static_cast<unsigned char>(text[end - 1])))
        end--;
    return text.substr(start, end - start);
}

std::vector<std::string> split(const std::string &text, char separator)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t end = text.find(separator, start);
        if (end == std::string::npos) {
            parts.push_back(text.substr(start));
            return parts;
        }
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

std::vector<std::string> level_name_list(const char *level_names)
{
    std::vector<std::string> names;
    if (level_names == nullptr)
        return names;
    std::string current;
    for (const char *p = level_names;; p++) {
        if (*p == '\0' || isspace(static_cast<unsigned char>(*p))) {
            if (!current.empty())
                names.push_back(current);
            current.clear();
            if (*p == '\0')
                return names;
        } else {
            current += *p;
        }
    }
}

// A whole-field number: decimal, or hexadecimal with a 0x prefix.
bool parse_number(const std::string &text, unsigned *value)
{
    if (text.empty() || !isdigit(static_cast<unsigned char>(text[0])))
        return false;
    bool hex = text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
    errno = 0;
    char *end = nullptr;
    unsigned long number = strtoul(text.c_str(), &end, hex ? 16 : 10);
    if (errno != 0 || end == nullptr || *end != '\0')
        return false;
    // More bits than a handle holds: every level.
    *value = number > UINT_MAX ? UINT_MAX : static_cast<unsigned>(number);
    return true;
}

bool is_switch_on(const std::string &text)
{
    return text == "1" || strcasecmp(text.c_str(), "yes") == 0 ||
           strcasecmp(text.c_str(), "on") == 0;
}

// Opens the FILE field's stream; stderr for "", "-" and unopenable paths.
FILE *open_stream(const std::string &field, bool *opened)
{
    *opened = false;
    if (field.empty() || field == "-")
        return stderr;
    std::string path = field;
    const char *mode = "a";
    if (path[0] == '#') {
        mode = "w";
        path.erase(0, 1);
    }
    std::string pid = std::to_string(static_cast<long>(getpid()));
    for (size_t at = path.find("%p"); at != std::string::npos; at = path.find("%p", at)) {
        path.replace(at, 2, pid);
        at += pid.size();
    }
    if (path.empty())
        return stderr;
    FILE *file = fopen(path.c_str(), mode);
    if (file == nullptr)
        return stderr;
    // Whole lines reach the file at once, so a crash loses at most the
    // line being written and several processes can share one file.
    setvbuf(file, nullptr, _IOLBF, 0);
    *opened = true;
    return file;
}

void handle_off(tarvex_debug_handle_t *handle)
{
    handle->levels = 0;
    handle->timestamp_levels = 0;
    handle->file = nullptr;
    handle->thread_ids = false;
    handle->using_file = false;
}

unsigned parse_levels(const char *text, const char *level_names)
{
    std::string field = trim(text);
    unsigned number = 0;
    if (parse_number(field, &number))
        return number;
    std::vector<std::string> names = level_name_list(level_names);
    unsigned levels = 0;
    for (const std::string &raw : split(field, '|')) {
        std::string word = trim(raw);
        if (strcasecmp(word.c_str(), "ALL") == 0) {
            levels |= names.size() >= 32 ? ~0u : (1u << names.size()) - 1;
            continue;
        }
        for (size_t i = 0; i < names.size() && i < 32; i++) {
            if (strcasecmp(word.c_str(), names[i].c_str()) == 0)
                levels |= 1u << i;
        }
    }
    return levels;
}

// Everything that allocates comes before the stream is opened, so that an
// exception leaves the handle off and no file open.
void init(const char *value, const char *level_names, tarvex_debug_handle_t *handle)
{
    std::vector<std::string> fields = split(value, ',');
    unsigned levels = parse_levels(fields[0].c_str(), level_names);
    if (levels == 0)
        return;
    unsigned timestamp_levels =
        fields.size() > 2 ? parse_levels(fields[2].c_str(), level_names) : 0;
    bool thread_ids = fields.size() > 3 && is_switch_on(trim(fields[3]));
    bool opened = false;
    FILE *file = open_stream(fields.size() > 1 ? trim(fields[1]) : "", &opened);
    handle->levels = levels;
    handle->file = file;
    handle->using_file = opened;
    handle->timestamp_levels = timestamp_levels;
    handle->thread_ids = thread_ids;
}

} // namespace

extern "C" {

// Both are called from C: out of memory, nothing is turned on.
unsigned tarvex_debug_parse_levels(const char *text, const char *level_names)
{
    if (text == nullptr)
        return 0;
    return at_c_edge(0u, [&] { return parse_levels(text, level_names); });
}

int tarvex_debug_init(const char *env_name, const char *level_names,
                      tarvex_debug_handle_t *handle)
{
    if (handle == nullptr)
        return -1;
    handle_off(handle);
    if (env_name == nullptr)
        return -1;
    const char *value = getenv(env_name);
    if (value == nullptr)
        return 0;
    // The handle is off already, and init leaves it so when it throws.
    return at_c_edge(-1, [&] {
        init(value, level_names, handle);
        return 0;
    });
}

void tarvex_debug_close(tarvex_debug_handle_t *handle)
{
    if (handle == nullptr)
        return;
    if (handle->using_file && handle->file != nullptr)
        fclose(handle->file);
    handle_off(handle);
}

void tarvex_debug_printf(tarvex_debug_handle_t *handle, unsigned level, const char *prefix,
                         const char *level_name, const char *format, ...)
{
    if (handle == nullptr || handle->file == nullptr || (handle->levels & level) == 0 ||
        format == nullptr)
        return;
    va_list ap;
    va_start(ap, format);
    char *text = tarvex_common_v_create_string(format, ap);
    va_end(ap);
    if (text == nullptr)
        return;
    FILE *out = handle->file;
    flockfile(out);
    // Same stamp forms as the plug-ins' own printers: "<tid>::",
    // "<sec>.<nsec>::" or "<tid>:<sec>.<nsec>::".
    if ((handle->timestamp_levels & level) != 0) {
        struct timespec now;
        tarvex_time_wall(&now);
        if (handle->thread_ids)
            fprintf(out, "%lu:", static_cast<unsigned long>(tarvex_thread_self()));
        fprintf(out, "%lu.%.9lu::", static_cast<unsigned long>(now.tv_sec),
                static_cast<unsigned long>(now.tv_nsec));
    } else if (handle->thread_ids) {
        fprintf(out, "%lu::", static_cast<unsigned long>(tarvex_thread_self()));
    }
    size_t length = strlen(text);
    bool newline = length > 0 && text[length - 1] == '\n';
    fprintf(out, "%s: %s: %ld: %s%s", prefix == nullptr ? "" : prefix,
            level_name == nullptr ? "" : level_name, static_cast<long>(getpid()), text,
            newline ? "" : "\n");
    funlockfile(out);
    free(text);
}

} // extern "C"
