#include "config_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace tarvex_server {

namespace {

// A configuration file is a page of settings; a bigger one is a wrong
// file named by mistake (a log, a binary), not settings.
constexpr size_t max_file_size = size_t{1} << 20;

std::string_view trim(std::string_view s)
{
    size_t first = s.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    size_t last = s.find_last_not_of(" \t");
    return s.substr(first, last - first + 1);
}

bool key_chars_valid(std::string_view key)
{
    for (char c : key)
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-'))
            return false;
    return key.front() != '-';
}

// One line that is not a comment: "" when it is a setting, else why not.
std::string parse_line(std::string_view line, Setting &s)
{
    size_t eq = line.find('=');
    if (eq == std::string_view::npos)
        return "expected \"key = value\"";
    std::string_view key = trim(line.substr(0, eq));
    std::string_view value = trim(line.substr(eq + 1));
    if (key.empty())
        return "no key before '='";
    if (key.size() > 2 && key.substr(0, 2) == "--")
        return "write the key without its dashes: " + std::string(key.substr(2)) + " = ...";
    if (!key_chars_valid(key))
        return "\"" + std::string(key) + "\" is not an option name";
    if (value.empty())
        return std::string(key) + ": no value (a switch is \"" + std::string(key) +
               " = true\")";
    s.key = key;
    s.value = value;
    return "";
}

} // namespace

bool parse_config_text(const std::string &path, const std::string &text,
                       std::vector<Setting> &out, std::string &err)
{
    std::string_view rest = text;
    int number = 0;
    while (!rest.empty()) {
        ++number;
        size_t end = rest.find('\n');
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (line.find('\0') != std::string_view::npos) {
            err = path + ":" + std::to_string(number) + ": a NUL byte: not a text file";
            return false;
        }
        line = trim(line);
        if (line.empty() || line.front() == '#')
            continue;
        Setting s;
        s.line = number;
        std::string why = parse_line(line, s);
        if (!why.empty()) {
            err = path;
            err.append(":").append(std::to_string(number)).append(": ").append(why);
            return false;
        }
        out.push_back(std::move(s));
    }
    return true;
}

bool read_config_file(const std::string &path, std::vector<Setting> &out, std::string &err)
{
    // Not blocking on a FIFO named by mistake: it is refused below.
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        err = path + ": " + strerror(errno);
        return false;
    }
    struct stat st{};
    int e = fstat(fd, &st) != 0 ? errno : !S_ISREG(st.st_mode) ? EINVAL : 0;
    std::string text;
    char buf[16384];
    while (e == 0) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            e = n < 0 ? errno : 0;
            break;
        }
        text.append(buf, static_cast<size_t>(n));
        if (text.size() > max_file_size)
            e = EFBIG;
    }
    close(fd);
    if (e != 0) {
        err = path + ": " + (e == EINVAL ? "not a regular file" : strerror(e));
        return false;
    }
    return parse_config_text(path, text, out, err);
}

} // namespace tarvex_server
