#include "log.h"

#include <unistd.h>

#include <cstdio>

namespace tarvex_server {

namespace {

void escape_byte(std::string &out, unsigned char c)
{
    static const char hex[] = "0123456789abcdef";
    out += "\\x";
    out += hex[c >> 4];
    out += hex[c & 15];
}

// The length of the valid UTF-8 sequence at the start of `s` (a character
// beyond ASCII), or 0.  Overlong forms, surrogates and values beyond
// U+10FFFF are not valid.
size_t utf8_length(std::string_view s)
{
    auto b = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    auto cont = [&](size_t i) { return i < s.size() && (b(i) & 0xc0) == 0x80; };
    unsigned char c = b(0);
    if (c >= 0xc2 && c <= 0xdf)
        return cont(1) ? 2 : 0;
    if (c >= 0xe0 && c <= 0xef) {
        if (!cont(1) || !cont(2))
            return 0;
        if ((c == 0xe0 && b(1) < 0xa0) || (c == 0xed && b(1) >= 0xa0))
            return 0;
        return 3;
    }
    if (c >= 0xf0 && c <= 0xf4) {
        if (!cont(1) || !cont(2) || !cont(3))
            return 0;
        if ((c == 0xf0 && b(1) < 0x90) || (c == 0xf4 && b(1) >= 0x90))
            return 0;
        return 4;
    }
    return 0;
}

void write_line(const std::string &line)
{
    fwrite(line.data(), 1, line.size(), stderr);
    fflush(stderr);
}

} // namespace

std::string log_field(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c == '\\') {
            out += "\\\\";
            ++i;
        } else if (c >= 0x20 && c < 0x7f) {
            out += static_cast<char>(c);
            ++i;
        } else if (size_t n = c >= 0x80 ? utf8_length(text.substr(i)) : 0; n > 0) {
            // U+0080..U+009F (C2 80..C2 9F) are the C1 controls: CSI among
            // them starts an escape sequence on some terminals.
            if (n == 2 && c == 0xc2 && static_cast<unsigned char>(text[i + 1]) < 0xa0) {
                escape_byte(out, c);
                escape_byte(out, static_cast<unsigned char>(text[i + 1]));
            } else {
                out.append(text.substr(i, n));
            }
            i += n;
        } else {
            escape_byte(out, c);
            ++i;
        }
    }
    return out;
}

void log_session(const std::string &text)
{
    write_line("tarvex-gridftp-server[" + std::to_string(getpid()) + "]: " + text + "\n");
}

void log_server(const std::string &text)
{
    write_line("tarvex-gridftp-server: " + text + "\n");
}

} // namespace tarvex_server
