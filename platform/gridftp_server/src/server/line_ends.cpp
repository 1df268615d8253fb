#include "line_ends.h"

namespace tarvex_server {

void CrlfToLf::feed(const char *p, size_t n, std::string &out)
{
    out.reserve(out.size() + n + 1);
    for (size_t i = 0; i < n; ++i) {
        char c = p[i];
        if (cr_ && c != '\n')
            out += '\r';
        cr_ = c == '\r';
        if (!cr_)
            out += c;
    }
}

void CrlfToLf::finish(std::string &out)
{
    if (cr_)
        out += '\r';
    cr_ = false;
}

void LfToCrlf::feed(const char *p, size_t n, std::string &out)
{
    out.reserve(out.size() + n + n / 16);
    for (size_t i = 0; i < n; ++i) {
        char c = p[i];
        if (c == '\n' && !after_cr_)
            out += '\r';
        out += c;
        after_cr_ = c == '\r';
    }
}

} // namespace tarvex_server
