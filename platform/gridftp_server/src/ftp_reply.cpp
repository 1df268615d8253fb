// Renders a failed result as an FTP reply (RFC 959 single or multi-line).
//
// Texts come from plug-ins and, through them, from remote services, so they
// are not trusted: they are split at every CR and LF, control characters
// are dropped, and lines that end up blank are left out.  Every reply line
// starts with the code ("C-" for all but the last, "C " for the last), so no
// line of text can end the reply early or pose as a reply of its own.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "c_edge.h"
#include "tarvex_gridftp_server.h"

namespace {

constexpr int fallback_code = 451;
constexpr char fallback_text[] = "Operation failed.";

struct malloc_deleter {
    void operator()(char *p) const { free(p); }
};

bool is_line_break(unsigned char c)
{
    return c == '\r' || c == '\n';
}

// 0xFF is dropped too: on the control connection it reads as the Telnet
// IAC byte, and it never occurs in UTF-8 text.
bool is_control(unsigned char c)
{
    return c < 0x20 || c == 0x7f || c == 0xff;
}

bool is_blank(std::string_view line)
{
    return line.find_first_not_of(' ') == std::string_view::npos;
}

// Appends the non-blank lines of `text`, control characters removed.
void add_lines(std::vector<std::string> &lines, std::string_view text)
{
    std::string line;
    auto flush = [&] {
        if (!is_blank(line))
            lines.push_back(std::move(line));
        line.clear();
    };
    for (unsigned char c : text) {
        if (is_line_break(c))
            flush();
        else if (!is_control(c))
            line.push_back(static_cast<char>(c));
    }
    flush();
}

void add_lines(std::vector<std::string> &lines, const char *text)
{
    if (text != nullptr)
        add_lines(lines, std::string_view(text));
}

// The printed cause chain of `error` (nullptr: none).
void add_chain_lines(std::vector<std::string> &lines, const tarvex_object_t *error)
{
    if (error == nullptr)
        return;
    std::unique_ptr<char, malloc_deleter> chain(tarvex_error_print_chain(error));
    add_lines(lines, chain.get());
}

bool code_valid(int code)
{
    return code >= 100 && code <= 599;
}

char *render(int code, const std::vector<std::string> &lines)
{
    const std::string c = std::to_string(code);
    std::string reply;
    if (lines.empty()) {
        reply = c + " " + fallback_text + "\r\n";
    } else {
        size_t total = 0;
        for (const auto &l : lines)
            total += c.size() + l.size() + 3;
        reply.reserve(total);
        for (size_t i = 0; i < lines.size(); i++) {
            reply += c;
            reply += i + 1 < lines.size() ? '-' : ' ';
            reply += lines[i];
            reply += "\r\n";
        }
    }
    return strdup(reply.c_str());
}

char *object_to_reply(const tarvex_object_t *error, int default_code)
{
    const int other_code = code_valid(default_code) ? default_code : fallback_code;
    std::vector<std::string> lines;
    if (error == nullptr)
        return render(other_code, lines);

    int code = tarvex_gfs_ftp_response_error_get_code(error);
    if (tarvex_object_type_match(tarvex_object_get_type(error),
                                 TARVEX_GFS_ERROR_FTP_RESPONSE_TYPE)) {
        add_lines(lines, tarvex_gfs_ftp_response_error_get_class(error));
        add_lines(lines, tarvex_gfs_ftp_response_error_get_message(error));
        add_chain_lines(lines, tarvex_error_get_cause(error));
        return render(code_valid(code) ? code : other_code, lines);
    }
    add_chain_lines(lines, error);
    return render(other_code, lines);
}

} // namespace

// Out of memory while rendering: NULL, which callers already handle as
// an allocation failure.
extern "C" char *tarvex_gfs_error_object_to_ftp_reply(const tarvex_object_t *error,
                                                      int default_code)
{
    return tarvex_gfs_internal::guarded_value<char *>(
        nullptr, [&] { return object_to_reply(error, default_code); });
}

extern "C" char *tarvex_gfs_error_to_ftp_reply(tarvex_result_t result, int default_code)
{
    // Unknown handles, TARVEX_FAILURE (and TARVEX_SUCCESS, which is no
    // failure to describe) peek as NULL and get the fixed text.
    return tarvex_gfs_error_object_to_ftp_reply(tarvex_error_peek(result), default_code);
}
