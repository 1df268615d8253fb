/*
 * The debug variable's grammar (LEVELS[,FILE[,TIMESTAMP_LEVELS[,THREAD_IDS]]])
 * as an operator may write it into the environment, and one line printed
 * through the handle it gives.
 *
 * Input: the level names on the first line (blank-separated, as a module
 * passes them), the variable's value after it.  Without a line break the
 * Box plug-in's names are used.  Every FILE the value names is moved into
 * a folder of this run's own, so that no input opens or truncates a file
 * elsewhere.
 */
#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "tarvex_debug.h"

using namespace tarvex_fuzz;

namespace {

const char *const variable = "TARVEX_FUZZ_DEBUG";
std::string sandbox;
FILE *dev_null = nullptr;

std::string trim(const std::string &text)
{
    size_t start = 0, end = text.size();
    while (start < end && isspace(static_cast<unsigned char>(text[start])))
        start++;
    while (end > start && isspace(static_cast<unsigned char>(text[end - 1])))
        end--;
    return text.substr(start, end - start);
}

/* The value with its FILE field (the second, comma-separated) moved into
 * the sandbox; its leading '#' and any "%p" are kept. */
std::string confined(const std::string &value)
{
    size_t first = value.find(',');
    if (first == std::string::npos)
        return value;
    size_t second = value.find(',', first + 1);
    std::string field = trim(value.substr(first + 1, second == std::string::npos
                                                         ? std::string::npos
                                                         : second - first - 1));
    if (field.empty() || field == "-" || field == "#")
        return value;
    std::string prefix = field[0] == '#' ? "#" : "";
    std::string name = field.substr(prefix.size());
    for (char &c : name)
        if (c == '/')
            c = '_';
    std::string rest = second == std::string::npos ? "" : value.substr(second);
    return value.substr(0, first + 1) + prefix + sandbox + "/" + name + rest;
}

void empty_sandbox()
{
    std::error_code ignored;
    for (const auto &entry : std::filesystem::directory_iterator(sandbox, ignored))
        std::filesystem::remove(entry.path(), ignored);
}

void remove_sandbox()
{
    std::error_code ignored;
    std::filesystem::remove_all(sandbox, ignored);
}

/* The bits that `names` gives names to. */
unsigned named_bits(const std::string &names)
{
    unsigned count = 0;
    bool in_word = false;
    for (unsigned char c : names) {
        bool word = !isspace(c);
        if (word && !in_word)
            count++;
        in_word = word;
    }
    return count >= 32 ? ~0u : (1u << count) - 1;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    activate_runtime();
    std::string pattern = std::filesystem::temp_directory_path() / "tarvex-fuzz-debug-XXXXXX";
    check(mkdtemp(pattern.data()) != nullptr, "no sandbox folder", pattern);
    sandbox = pattern;
    atexit(remove_sandbox);
    dev_null = fopen("/dev/null", "w");
    check(dev_null != nullptr, "cannot open /dev/null");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<std::string> lines = split(c_text(data, size), '\n', 2);
    std::string names = lines.size() == 1 ? "TRACE DEBUG INFO WARN ERROR" : lines[0];
    std::string value = confined(lines.back());
    setenv(variable, value.c_str(), 1);

    tarvex_debug_handle_t handle;
    check(tarvex_debug_init(variable, names.c_str(), &handle) == 0, "init refused a value");
    if (handle.levels == 0) {
        check(handle.file == nullptr && !handle.using_file && handle.timestamp_levels == 0,
              "debugging off with a stream or stamps", value);
    } else {
        check(handle.file != nullptr, "debugging on without a stream", value);
        check(!handle.using_file || handle.file != stderr, "standard error taken as opened");
    }
    // Level names select named levels only; a number may set any bit.
    std::string levels_field = trim(value.substr(0, value.find(',')));
    if (levels_field.empty() || !isdigit(static_cast<unsigned char>(levels_field[0])))
        check((handle.levels & ~named_bits(names)) == 0, "a level without a name set", value);

    // One line with every prefix the handle asks for; standard error is
    // kept quiet.
    if (handle.file == stderr)
        handle.file = dev_null;
    tarvex_debug_printf(&handle, handle.levels & (0u - handle.levels), "fuzz", "LEVEL",
                        "%s\n", value.c_str());
    tarvex_debug_close(&handle);
    empty_sandbox();
    unsetenv(variable);
    check_error_table_empty();
    return 0;
}
