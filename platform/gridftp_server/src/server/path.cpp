#include "path.h"

#include <vector>

#include "tarvex_split.h"

namespace tarvex_server {

namespace {

void push_components(std::vector<std::string_view> &parts, std::string_view p)
{
    tarvex::for_each_piece(p, '/', [&](std::string_view c) {
        if (c == "..") {
            if (!parts.empty())
                parts.pop_back(); // ".." at the root stays at the root
        } else if (!c.empty() && c != ".") {
            parts.push_back(c);
        }
    });
}

} // namespace

std::string resolve_path(std::string_view cwd, std::string_view home,
                         std::string_view arg)
{
    std::vector<std::string_view> parts;
    if (!arg.empty() && arg[0] == '~' && (arg.size() == 1 || arg[1] == '/')) {
        push_components(parts, home);
        arg.remove_prefix(1);
    } else if (arg.empty() || arg[0] != '/') {
        push_components(parts, cwd);
    }
    push_components(parts, arg);

    std::string out;
    for (std::string_view c : parts) {
        out += '/';
        out += c;
    }
    return out.empty() ? "/" : out;
}

std::string base_name(std::string_view path)
{
    if (path.size() <= 1)
        return "/";
    size_t slash = path.rfind('/');
    return std::string(path.substr(slash + 1));
}

} // namespace tarvex_server
