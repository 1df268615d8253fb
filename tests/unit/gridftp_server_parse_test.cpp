// The server's parsers of client input (command lines, REST, ALLO, CKSM,
// PORT, EPRT, EPSV, MLST facts, LIST arguments and wildcards, paths), its
// TYPE A line ends and its escaping of log fields.
#include <netdb.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "line_ends.h"
#include "list_args.h"
#include "log.h"
#include "parse.h"
#include "path.h"

using namespace tarvex_server;

namespace {

using Event = LineReader::Event;

// Every event and line the reader gives for `input` fed in pieces of
// `step` bytes, draining after each piece as the control channel does.
std::vector<std::string> read_lines(const std::string &input, size_t step)
{
    LineReader r;
    std::vector<std::string> out;
    for (size_t i = 0; i < input.size(); i += step) {
        r.feed(input.data() + i, std::min(step, input.size() - i));
        std::string line;
        for (Event ev; (ev = r.next(line)) != Event::none;)
            out.push_back(ev == Event::line ? line : ev == Event::too_long ? "<long>" : "<nul>");
    }
    return out;
}

const std::string max_line(max_command_line, 'a');

TEST(ServerParse, LineReaderSplitsCleansAndLimitsLines)
{
    struct Case {
        std::string input;
        std::vector<std::string> lines;
    } cases[] = {
        {"NOOP\r\nPWD\n", {"NOOP", "PWD"}},
        {"NOOP\r", {}},                                          // no line end yet
        {"\xff\xf4\xff\xf2" "ABOR\r\n", {"ABOR"}},               // Telnet IP, Synch
        {"\xff\xfb\x01NOOP\r\n", {"NOOP"}},                     // IAC WILL <option>
        {"STOR a\xff\xff" "b\r\n", {"STOR a\xff" "b"}},          // IAC IAC is 0xFF
        {std::string("NO\0OP\r\nPWD\r\n", 12), {"<nul>", "PWD"}},
        {max_line + "\r\nPWD\r\n", {max_line, "PWD"}},           // exactly the limit
        {max_line + "b\r\nPWD\r\n", {"<long>", "PWD"}},
        {std::string(20000, 'x') + "\r\nPWD\r\n", {"<long>", "PWD"}},
        {"a\rb\r\n", {"a\rb"}},                                  // only the last CR goes
    };
    for (const auto &c : cases)
        for (size_t step : {size_t(1), size_t(7), size_t(4096), c.input.size()})
            EXPECT_EQ(read_lines(c.input, step), c.lines)
                << "step " << step << ": " << c.input.substr(0, 40);
}

TEST(ServerParse, LineReaderForgetsBytesSentBeforeTls)
{
    LineReader r;
    r.feed("USER a\r\nPASS", 12);
    r.clear();
    r.feed("NOOP\r\n", 6);
    std::string line;
    EXPECT_EQ(r.next(line), Event::line);
    EXPECT_EQ(line, "NOOP");
    EXPECT_EQ(r.next(line), Event::none);
}

TEST(ServerParse, OffsetsAndSizesAreRangeChecked)
{
    const std::string max = std::to_string(max_client_offset);
    const std::string over = std::to_string(max_client_offset + 1);
    struct Case {
        std::string arg;
        int code;
        int64_t value;
    } rest[] = {
        {"0", 0, 0},
        {max, 0, max_client_offset},
        {over, 501, 0},
        {"9223372036854775808", 501, 0},
        {"-1", 501, 0},
        {"+5", 501, 0},
        {"", 501, 0},
        {" 5", 501, 0},
        {"0x10", 501, 0},
    };
    for (const auto &c : rest) {
        int64_t v = -7;
        std::string why;
        EXPECT_EQ(parse_rest(c.arg, v, why), c.code) << c.arg;
        if (c.code == 0) {
            EXPECT_EQ(v, c.value) << c.arg;
        } else {
            EXPECT_FALSE(why.empty()) << c.arg;
        }
    }
    std::string why;
    int64_t v = 0;
    struct AlloCase {
        std::string arg;
        int code;
    } allo[] = {{"100", 0}, {"100 R 10", 0}, {"100 r 10", 0}, {"100 R", 501},
                {"100 X 5", 501}, {"100 R 5 6", 501}, {over, 501}, {"-5", 501}};
    for (const auto &c : allo)
        EXPECT_EQ(parse_allo(c.arg, v, why), c.code) << c.arg;
}

TEST(ServerParse, ChecksumArguments)
{
    const std::string max = std::to_string(max_client_offset);
    CksmArgs a;
    std::string why;
    ASSERT_EQ(parse_cksm("MD5 0 -1 /a  b", a, why), 0) << why;
    EXPECT_EQ(a.algorithm, "MD5");
    EXPECT_EQ(a.offset, 0);
    EXPECT_EQ(a.length, -1);
    EXPECT_EQ(a.path, "/a  b");
    // The largest offset and length a client may give, both at once.
    EXPECT_EQ(parse_cksm("SHA1 " + max + " " + max + " x", a, why), 0) << why;
    for (const char *bad : {"MD5 0 -2 /x", "MD5 -1 10 /x", "MD5 0 10", "MD5 0 10 ", "MD5",
                            "MD5 0 99999999999999999999 /x", "MD5 a 1 /x", "MD5 0 10 /a\rb"})
        EXPECT_EQ(parse_cksm(bad, a, why), 501) << bad;
}

// "host port" of an address, both in numbers.
std::string address_of(const sockaddr_storage &sa)
{
    char host[NI_MAXHOST] = "", port[NI_MAXSERV] = "";
    getnameinfo(reinterpret_cast<const sockaddr *>(&sa), sizeof sa, host, sizeof host, port,
                sizeof port, NI_NUMERICHOST | NI_NUMERICSERV);
    return std::string(host) + " " + port;
}

TEST(ServerParse, DataAddresses)
{
    struct Case {
        bool extended;
        std::string arg;
        int code;
        std::string address;
    } cases[] = {
        {false, "127,0,0,1,4,1", 0, "127.0.0.1 1025"},
        {false, "255,255,255,255,255,255", 0, "255.255.255.255 65535"},
        {false, "127,0,0,1,256,1", 501, ""},
        {false, "127,0,0,1,4", 501, ""},
        {false, "127,0,0,1,4,1,5", 501, ""},
        {false, "4294967297,0,0,1,4,1", 501, ""},
        {false, "127,0,0,1,4,1 ", 501, ""},
        {true, "|1|127.0.0.1|5000|", 0, "127.0.0.1 5000"},
        {true, "|2|::1|5000|", 0, "::1 5000"},
        {true, "!1!10.0.0.1!65535!", 0, "10.0.0.1 65535"},
        {true, "|3|x|1|", 522, ""},
        {true, "|1|127.0.0.1|65536|", 501, ""},
        {true, "|1|127.0.0.1|99999999999999999999|", 501, ""},
        {true, "|1|300.0.0.1|5000|", 501, ""},
        {true, "|1|127.0.0.1|5000", 501, ""},
        {true, "|2|" + std::string(100, ':') + "|5000|", 501, ""},
    };
    for (const auto &c : cases) {
        sockaddr_storage sa{};
        std::string why;
        int code = c.extended ? parse_eprt(c.arg, sa, why) : parse_port(c.arg, sa, why);
        EXPECT_EQ(code, c.code) << c.arg;
        if (code == 0) {
            EXPECT_EQ(address_of(sa), c.address) << c.arg;
        }
    }

    struct EpsvCase {
        std::string arg;
        int code;
        EpsvArg which;
    } epsv[] = {{"", 0, EpsvArg::any},    {"1", 0, EpsvArg::ipv4},
                {"2", 0, EpsvArg::ipv6},  {"all", 0, EpsvArg::all},
                {"3", 522, EpsvArg::any}, {"99999999999999999999", 522, EpsvArg::any},
                {"foo", 501, EpsvArg::any}};
    for (const auto &c : epsv) {
        EpsvArg which = EpsvArg::any;
        std::string why;
        EXPECT_EQ(parse_epsv(c.arg, which, why), c.code) << c.arg;
        if (c.code == 0) {
            EXPECT_EQ(which, c.which) << c.arg;
        }
    }
}

TEST(ServerParse, NamesFactsAndReplyText)
{
    std::string why;
    EXPECT_EQ(check_argument("/dir/\xc3\xa4 b.txt", why), 0);
    for (const std::string &bad :
         std::vector<std::string>{"/a\rb", "/a\x1b[2J", "/a\x7f", std::string("/a\0b", 4)})
        EXPECT_EQ(check_argument(bad, why), 501);

    EXPECT_EQ(parse_fact_list("type;size;"), unsigned(fact_type | fact_size));
    EXPECT_EQ(parse_fact_list("TYPE;unix.MODE;bogus;;perm"),
              unsigned(fact_type | fact_unix_mode | fact_perm));
    EXPECT_EQ(parse_fact_list(""), 0u);

    EXPECT_EQ(printable("a\rb\n\x1b\xff" "c\xc3\xa4"), "a?b???c\xc3\xa4");
    EXPECT_EQ(printable("\xc2\x9b" "1m \xc0\xaf \xe2\x82\xac"), "??1m ?? \xe2\x82\xac");
}

// Against the working folder "/w/d" and the home "/h".
TEST(ServerParse, PathsResolvedLexically)
{
    const struct {
        const char *arg, *path;
    } cases[] = {
        {"", "/w/d"},
        {"x", "/w/d/x"},
        {"~", "/h"},
        {"~/x", "/h/x"},
        {"~x", "/w/d/~x"},
        {"../../../x", "/x"},
        {"/a//b/./c/..", "/a/b"},
        {"/..", "/"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(resolve_path("/w/d", "/h", c.arg), c.path) << c.arg;
}

TEST(ServerParse, ListArgumentsOptionsAndPaths)
{
    struct Case {
        const char *arg;
        bool recursive;
        const char *path;
    } cases[] = {
        {"", false, ""},
        {"-la", false, ""},
        {"-lR /S/t", true, "/S/t"},
        {"-l  -a  dir name", false, "dir name"},
        {"-dash.txt", false, "-dash.txt"}, // '.' is no option letter
        {"-a -x.txt", false, "-x.txt"},
        {"x -R", false, "x -R"},           // options come first only
    };
    for (const auto &c : cases) {
        ListArgs a = parse_list_args(c.arg);
        EXPECT_EQ(a.recursive, c.recursive) << c.arg;
        EXPECT_EQ(a.path, c.path) << c.arg;
    }
}

TEST(ServerParse, Wildcards)
{
    for (const char *name : {"*.txt", "a?", "x[12]", "[!a]*"})
        EXPECT_TRUE(has_wildcard(name)) << name;
    for (const char *name : {"a.txt", "x[", "x[]", "]x[", ""})
        EXPECT_FALSE(has_wildcard(name)) << name;
    struct Case {
        const char *pattern, *name;
        bool match;
    } cases[] = {
        {"*.txt", "a.txt", true},  {"*.txt", "a.txt.bak", false}, {"*.txt", ".h.txt", false},
        {".*", ".h.txt", true},    {"?.bin", "a.bin", true},      {"x[12].d", "x3.d", false},
        {"x[!1]", "x2", true},     {"\\*", "*", true},            {"*", "-dash.txt", true},
    };
    for (const auto &c : cases)
        EXPECT_EQ(wildcard_match(c.pattern, c.name), c.match) << c.pattern << " " << c.name;
    EXPECT_EQ(folder_prefix("/S/t/*.txt"), "/S/t/");
    EXPECT_EQ(folder_prefix("*.txt"), "");
}

// Converted whole and in every split into two pieces, so that a CR LF
// across pieces is seen as one line end.
TEST(ServerParse, AsciiLineEnds)
{
    struct Case {
        std::string wire, stored;
    } to_lf[] = {
        {"a\r\nb\r\n", "a\nb\n"}, {"a\rb\r", "a\rb\r"}, {"\r\r\n", "\r\n"},
        {"a\nb", "a\nb"},           {"", ""},
    };
    for (const auto &c : to_lf)
        for (size_t cut = 0; cut <= c.wire.size(); ++cut) {
            CrlfToLf d;
            std::string out;
            d.feed(c.wire.data(), cut, out);
            d.feed(c.wire.data() + cut, c.wire.size() - cut, out);
            d.finish(out);
            EXPECT_EQ(out, c.stored) << c.wire << " cut at " << cut;
        }
    Case to_crlf[] = {
        {"a\r\nb\r\n", "a\nb\n"}, {"\r\n\r\n", "\n\n"}, {"x\r\n", "x\r\n"},
        {"\r\r\n", "\r\r\n"},
    };
    for (const auto &c : to_crlf)
        for (size_t cut = 0; cut <= c.stored.size(); ++cut) {
            LfToCrlf e;
            std::string out;
            e.feed(c.stored.data(), cut, out);
            e.feed(c.stored.data() + cut, c.stored.size() - cut, out);
            EXPECT_EQ(out, c.wire) << c.stored << " cut at " << cut;
        }
}

TEST(ServerLog, FieldsAreEscaped)
{
    struct Case {
        std::string in;
        std::string out;
    } cases[] = {
        {"alice", "alice"},
        {"x\r\n226 ok", "x\\x0d\\x0a226 ok"},
        {"\x1b[31mred", "\\x1b[31mred"},
        {"back\\slash", "back\\\\slash"},
        {"caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"},
        {"\xc2\x9b" "1m", "\\xc2\\x9b1m"},  // C1 CSI in UTF-8
        {"\xc0\xaf", "\\xc0\\xaf"},         // overlong '/'
        {"\xed\xa0\x80", "\\xed\\xa0\\x80"}, // a surrogate
        {"\xe2\x82", "\\xe2\\x82"},         // cut short
        {std::string("n\0l", 3), "n\\x00l"},
        {"\x7f", "\\x7f"},
        // The edges of printable text stay as they are (a range off by one
        // would escape them byte by byte).
        {"~alice/notes", "~alice/notes"},     // 0x7e, right below DEL
        {"\xe0\xb8\x81.txt", "\xe0\xb8\x81.txt"}, // U+0E01, Thai: led by 0xe0
        {"\xdf\xbf", "\xdf\xbf"},             // U+07FF, the last two-byte character
        {"\xf3\xb0\x80\x80", "\xf3\xb0\x80\x80"}, // U+F0000, private use, led by 0xf3
        {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"}, // U+10FFFF, the last character
        {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"}, // beyond it
    };
    for (const auto &c : cases)
        EXPECT_EQ(log_field(c.in), c.out) << c.in;
}

} // namespace
