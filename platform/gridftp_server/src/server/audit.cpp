#include "audit.h"

#include <cctype>
#include <string_view>

#include "log.h"

namespace tarvex_server {

namespace {

// Longest reply text kept: a storage error may carry a page of detail.
constexpr size_t max_text = 1024;

// 2025-03-04T09:15:02+0100: every field a number, whatever the locale.
std::string audit_time(time_t t)
{
    struct tm tm{};
    localtime_r(&t, &tm);
    char buf[64];
    if (strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S%z", &tm) == 0)
        return "-";
    return buf;
}

bool numbered(std::string_view line)
{
    auto digit = [&](size_t i) { return isdigit(static_cast<unsigned char>(line[i])) != 0; };
    return line.size() >= 4 && digit(0) && digit(1) && digit(2) && (line[3] == ' ' || line[3] == '-');
}

// "550-PATH_NOT_FOUND\r\n550 No such file.\r\n" -> code "550", text
// "PATH_NOT_FOUND | No such file.".
void split_reply(std::string_view reply, std::string &code, std::string &text)
{
    code = reply.substr(0, 3);
    for (size_t end; !reply.empty(); reply.remove_prefix(end)) {
        size_t eol = reply.find('\n');
        end = eol == std::string_view::npos ? reply.size() : eol + 1;
        std::string_view line = reply.substr(0, end);
        while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
            line.remove_suffix(1);
        // "NNN-" and "NNN " begin a reply's first and last lines; the
        // lines between may be indented.
        if (numbered(line))
            line.remove_prefix(4);
        while (!line.empty() && line.front() == ' ')
            line.remove_prefix(1);
        if (line.empty())
            continue;
        if (!text.empty())
            text += " | ";
        text += line;
    }
    if (text.size() > max_text)
        text = text.substr(0, max_text) + "...";
}

} // namespace

std::string audit_line(const AuditRecord &r)
{
    std::string code;
    std::string text;
    split_reply(r.reply, code, text);
    return audit_time(r.when) + " " + log_word(r.host) + " " + log_word(r.user) + " " +
           log_word(r.command) + " " + log_word(r.path) + " " + log_word(r.second) + " " +
           log_word(code) + " " + log_field(text) + "\n";
}

} // namespace tarvex_server
