#include "list_args.h"

#include <fnmatch.h>

namespace tarvex_server {

namespace {

// The letters of the ls options that FTP clients put before a path.
constexpr std::string_view option_letters = "1aAdFlLnRrtC";

bool is_option_word(std::string_view word)
{
    return word.size() >= 2 && word[0] == '-' &&
           word.find_first_not_of(option_letters, 1) == std::string_view::npos;
}

} // namespace

ListArgs parse_list_args(std::string_view arg)
{
    ListArgs out;
    for (;;) {
        size_t start = arg.find_first_not_of(' ');
        if (start == std::string_view::npos)
            return out;
        arg.remove_prefix(start);
        std::string_view word = arg.substr(0, arg.find(' '));
        if (!is_option_word(word))
            break;
        if (word.find('R') != std::string_view::npos)
            out.recursive = true;
        arg.remove_prefix(word.size());
    }
    out.path = std::string(arg);
    return out;
}

bool has_wildcard(std::string_view name)
{
    if (name.find_first_of("*?") != std::string_view::npos)
        return true;
    size_t open = name.find('[');
    return open != std::string_view::npos && name.find(']', open + 2) != std::string_view::npos;
}

bool wildcard_match(const std::string &pattern, const std::string &name)
{
    return fnmatch(pattern.c_str(), name.c_str(), FNM_PERIOD) == 0;
}

std::string_view folder_prefix(std::string_view path)
{
    size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash + 1);
}

} // namespace tarvex_server
