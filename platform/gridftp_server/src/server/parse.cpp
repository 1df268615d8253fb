#include "parse.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <cctype>
#include <cstring>

namespace tarvex_server {

namespace {

constexpr unsigned char IAC = 255;

bool is_digit(char c)
{
    return c >= '0' && c <= '9';
}

bool equals_nocase(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (toupper(static_cast<unsigned char>(a[i])) != toupper(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

// Splits off the text up to the first space; `rest` is what follows the
// spaces after it.
std::string_view take_word(std::string_view &rest)
{
    size_t sp = rest.find(' ');
    std::string_view word = rest.substr(0, sp);
    if (sp == std::string_view::npos) {
        rest = {};
        return word;
    }
    rest.remove_prefix(sp);
    size_t next = rest.find_first_not_of(' ');
    rest.remove_prefix(next == std::string_view::npos ? rest.size() : next);
    return word;
}

int refuse(std::string &why, std::string text, int code = 501)
{
    why = std::move(text);
    return code;
}

std::string range_text(const char *what)
{
    return std::string(what) + " out of range (at most " + std::to_string(max_client_offset) +
           " bytes).";
}

} // namespace

// ---------------------------------------------------------------- lines

void LineReader::feed(const char *p, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        auto c = static_cast<unsigned char>(p[i]);
        if (telnet_state_ == 1) {
            telnet_state_ = (c >= 251 && c <= 254) ? 2 : 0;
            if (c == IAC && !discarding_)
                buf_ += static_cast<char>(c); // IAC IAC is a literal 255
            continue;
        }
        if (telnet_state_ == 2) {
            telnet_state_ = 0; // the option byte of WILL/WONT/DO/DONT
            continue;
        }
        if (c == IAC) {
            telnet_state_ = 1;
            continue;
        }
        if (discarding_) {
            if (c == '\n')
                discarding_ = false;
            continue;
        }
        buf_ += static_cast<char>(c);
    }
}

LineReader::Event LineReader::next(std::string &line)
{
    size_t nl = buf_.find('\n');
    if (nl == std::string::npos) {
        if (buf_.size() <= max_command_line + 1) // room for the CR
            return Event::none;
        // Too long: answered once; the rest up to the line's end is dropped
        // as it comes.
        buf_.clear();
        discarding_ = true;
        return Event::too_long;
    }
    size_t length = nl > 0 && buf_[nl - 1] == '\r' ? nl - 1 : nl;
    if (length > max_command_line) {
        buf_.erase(0, nl + 1);
        return Event::too_long;
    }
    line.assign(buf_, 0, length);
    buf_.erase(0, nl + 1);
    return line.find('\0') != std::string::npos ? Event::nul : Event::line;
}

void LineReader::clear()
{
    buf_.clear();
    discarding_ = false;
    telnet_state_ = 0;
}

CommandLine split_command(std::string_view line)
{
    CommandLine out;
    size_t sp = line.find(' ');
    std::string_view verb = line.substr(0, sp);
    out.verb.reserve(verb.size());
    for (char c : verb)
        out.verb += static_cast<char>(toupper(static_cast<unsigned char>(c)));
    if (sp != std::string_view::npos)
        out.arg = line.substr(sp + 1);
    return out;
}

// ---------------------------------------------------------------- numbers

Number parse_decimal(std::string_view text, int64_t max, int64_t &out)
{
    if (text.empty())
        return Number::syntax;
    int64_t value = 0;
    bool over = false;
    for (char c : text) {
        if (!is_digit(c))
            return Number::syntax;
        int digit = c - '0';
        // Checked before the step, so that no digit string overflows.
        if (value > (max - digit) / 10)
            over = true;
        else
            value = value * 10 + digit;
    }
    if (over)
        return Number::range;
    out = value;
    return Number::ok;
}

int parse_rest(std::string_view arg, int64_t &offset, std::string &why)
{
    switch (parse_decimal(arg, max_client_offset, offset)) {
    case Number::ok:
        return 0;
    case Number::range:
        return refuse(why, range_text("REST offset"));
    case Number::syntax:
        break;
    }
    return refuse(why, "REST needs a byte offset.");
}

int parse_allo(std::string_view arg, int64_t &size, std::string &why)
{
    std::string_view rest = arg;
    std::string_view first = take_word(rest);
    Number n = parse_decimal(first, max_client_offset, size);
    if (n == Number::range)
        return refuse(why, range_text("ALLO size"));
    bool ok = n == Number::ok;
    if (ok && !rest.empty()) {
        // "R <record size>": records do not apply to stream files; only
        // its form is checked.
        std::string_view r = take_word(rest);
        int64_t record = 0;
        ok = (r == "R" || r == "r") &&
             parse_decimal(take_word(rest), max_client_offset, record) == Number::ok &&
             rest.empty();
    }
    if (!ok)
        return refuse(why, "ALLO needs a size in bytes.");
    return 0;
}

int parse_cksm(std::string_view arg, CksmArgs &out, std::string &why)
{
    static const char syntax[] = "Syntax: CKSM <algorithm> <offset> <length> <path>";
    std::string_view rest = arg;
    std::string_view alg = take_word(rest);
    std::string_view offset = take_word(rest);
    std::string_view length = take_word(rest);
    if (alg.empty() || rest.empty())
        return refuse(why, syntax);
    Number n = parse_decimal(offset, max_client_offset, out.offset);
    if (n == Number::ok) {
        if (length == "-1")
            out.length = -1;
        else
            n = parse_decimal(length, max_client_offset, out.length);
    }
    if (n == Number::range)
        return refuse(why, range_text("CKSM offset or length"));
    if (n != Number::ok)
        return refuse(why, syntax);
    out.algorithm = alg;
    out.path = rest;
    return check_argument(out.path, why);
}

// ---------------------------------------------------------------- addresses

int parse_port(std::string_view arg, sockaddr_storage &out, std::string &why)
{
    static const char syntax[] = "Syntax: PORT h1,h2,h3,h4,p1,p2";
    int64_t v[6];
    std::string_view rest = arg;
    for (int i = 0; i < 6; ++i) {
        size_t comma = rest.find(',');
        if ((i < 5) == (comma == std::string_view::npos))
            return refuse(why, syntax);
        if (parse_decimal(rest.substr(0, comma), 255, v[i]) != Number::ok)
            return refuse(why, syntax);
        rest.remove_prefix(comma == std::string_view::npos ? rest.size() : comma + 1);
    }
    out = {};
    auto *s4 = reinterpret_cast<sockaddr_in *>(&out);
    s4->sin_family = AF_INET;
    uint32_t host = static_cast<uint32_t>(v[0] << 24 | v[1] << 16 | v[2] << 8 | v[3]);
    s4->sin_addr.s_addr = htonl(host);
    s4->sin_port = htons(static_cast<uint16_t>(v[4] * 256 + v[5]));
    return 0;
}

int parse_eprt(std::string_view arg, sockaddr_storage &out, std::string &why)
{
    static const char syntax[] = "Syntax: EPRT |af|address|port|";
    // RFC 2428: the delimiter is a printable character other than space.
    if (arg.size() < 7 || arg[0] < 33 || arg[0] > 126)
        return refuse(why, syntax);
    char d = arg[0];
    std::string_view fields[3];
    std::string_view rest = arg.substr(1);
    for (auto &field : fields) {
        size_t end = rest.find(d);
        if (end == std::string_view::npos)
            return refuse(why, syntax);
        field = rest.substr(0, end);
        rest.remove_prefix(end + 1);
    }
    if (!rest.empty())
        return refuse(why, syntax);
    int64_t port = 0;
    if (parse_decimal(fields[2], 65535, port) != Number::ok)
        return refuse(why, "Bad port in EPRT");
    // inet_pton wants a terminated string; an address is short.
    if (fields[1].size() >= INET6_ADDRSTRLEN)
        return refuse(why, "Bad address in EPRT");
    std::string host(fields[1]);
    out = {};
    if (fields[0] != "1" && fields[0] != "2")
        return refuse(why, "Network protocol not supported, use (1,2)", 522);
    const uint16_t net_port = htons(static_cast<uint16_t>(port));
    int family = AF_INET;
    void *address = nullptr;
    if (fields[0] == "1") {
        auto *s4 = reinterpret_cast<sockaddr_in *>(&out);
        s4->sin_family = AF_INET;
        s4->sin_port = net_port;
        address = &s4->sin_addr;
    } else {
        auto *s6 = reinterpret_cast<sockaddr_in6 *>(&out);
        family = AF_INET6;
        s6->sin6_family = AF_INET6;
        s6->sin6_port = net_port;
        address = &s6->sin6_addr;
    }
    if (inet_pton(family, host.c_str(), address) != 1)
        return refuse(why, "Bad address in EPRT");
    return 0;
}

int parse_epsv(std::string_view arg, EpsvArg &out, std::string &why)
{
    if (arg.empty())
        out = EpsvArg::any;
    else if (arg == "1")
        out = EpsvArg::ipv4;
    else if (arg == "2")
        out = EpsvArg::ipv6;
    else if (equals_nocase(arg, "ALL"))
        out = EpsvArg::all;
    else if (int64_t n = 0; parse_decimal(arg, 255, n) != Number::syntax)
        return refuse(why, "Network protocol not supported, use (1,2)", 522);
    else
        return refuse(why, "Syntax: EPSV [1|2|ALL]");
    return 0;
}

// ---------------------------------------------------------------- names

bool is_control_byte(unsigned char c)
{
    return c < 0x20 || c == 0x7f;
}

int check_argument(std::string_view arg, std::string &why)
{
    for (char c : arg)
        if (is_control_byte(static_cast<unsigned char>(c)))
            return refuse(why, "Path names with control characters are not accepted.");
    return 0;
}

unsigned parse_fact_list(std::string_view list)
{
    static const struct {
        const char *name;
        Fact bit;
    } facts[] = {{"type", fact_type},   {"size", fact_size},     {"modify", fact_modify},
                 {"perm", fact_perm},   {"unique", fact_unique}, {"UNIX.mode", fact_unix_mode}};
    unsigned mask = 0;
    while (!list.empty()) {
        size_t semi = list.find(';');
        std::string_view name = list.substr(0, semi);
        list.remove_prefix(semi == std::string_view::npos ? list.size() : semi + 1);
        for (const auto &f : facts)
            if (equals_nocase(name, f.name))
                mask |= f.bit;
    }
    return mask;
}

size_t utf8_length(std::string_view s)
{
    if (s.empty())
        return 0;
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

bool is_c1_control(std::string_view sequence)
{
    return sequence.size() == 2 && static_cast<unsigned char>(sequence[0]) == 0xc2 &&
           static_cast<unsigned char>(sequence[1]) < 0xa0;
}

std::string printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    size_t i = 0;
    while (i < text.size()) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x80) {
            out += is_control_byte(c) ? '?' : static_cast<char>(c);
            ++i;
            continue;
        }
        // 0xFF among the rest: it would read as the Telnet IAC byte.  One
        // '?' per byte, so that the text keeps its length.
        size_t n = utf8_length(text.substr(i));
        if (n == 0)
            n = 1;
        else if (!is_c1_control(text.substr(i, n)))
            out.append(text.substr(i, n));
        if (out.size() < i + n)
            out.append(i + n - out.size(), '?');
        i += n;
    }
    return out;
}

} // namespace tarvex_server
