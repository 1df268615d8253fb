#include "log.h"

#include "parse.h"

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
            if (is_c1_control(text.substr(i, n))) {
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
