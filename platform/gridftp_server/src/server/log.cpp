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

// The characters beyond ASCII that count as white space where log lines are
// split into fields (Python's str.split(), for one): U+00A0, U+1680,
// U+2000..U+200A, U+2028, U+2029, U+202F, U+205F and U+3000.  (U+0085 is a
// C1 control, escaped anyway.)
bool is_wide_space(std::string_view seq)
{
    auto b = [&](size_t i) { return static_cast<unsigned char>(seq[i]); };
    if (seq.size() == 2)
        return b(0) == 0xc2 && b(1) == 0xa0;
    if (seq.size() != 3)
        return false;
    if (b(0) == 0xe1)
        return b(1) == 0x9a && b(2) == 0x80;
    if (b(0) == 0xe3)
        return b(1) == 0x80 && b(2) == 0x80;
    if (b(0) != 0xe2)
        return false;
    if (b(1) == 0x80)
        return b(2) <= 0x8a || b(2) == 0xa8 || b(2) == 0xa9 || b(2) == 0xaf;
    return b(1) == 0x81 && b(2) == 0x9f;
}

std::string escaped(std::string_view text, bool spaces)
{
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c == '\\') {
            out += "\\\\";
            ++i;
        } else if (c >= 0x20 && c < 0x7f && !(c == ' ' && spaces)) {
            out += static_cast<char>(c);
            ++i;
        } else if (size_t n = c >= 0x80 ? utf8_length(text.substr(i)) : 0; n > 0) {
            std::string_view seq = text.substr(i, n);
            if (is_c1_control(seq) || (spaces && is_wide_space(seq))) {
                for (char b : seq)
                    escape_byte(out, static_cast<unsigned char>(b));
            } else {
                out.append(seq);
            }
            i += n;
        } else {
            escape_byte(out, c);
            ++i;
        }
    }
    return out;
}

void write_line(const std::string &line)
{
    fwrite(line.data(), 1, line.size(), stderr);
    fflush(stderr);
}

} // namespace

std::string log_field(std::string_view text)
{
    return escaped(text, false);
}

std::string log_word(std::string_view text)
{
    return text.empty() ? "-" : escaped(text, true);
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
