/*
 * The server's control connection: bytes as a client sends them, turned
 * into command lines (Telnet commands stripped, length limit, NUL bytes),
 * then split into command word and argument, made printable for replies
 * and escaped for the log.  However the stream is cut into reads, the lines
 * must come out the same.
 *
 * Each line's argument then goes to the parser of its command: the ones
 * that carry numbers and addresses (REST, ALLO, CKSM, PORT, EPRT, EPSV),
 * the facts of OPTS MLST, LIST's options and patterns, and the names every
 * path-taking command checks.  Any argument is taken or refused with a
 * reply code and a text, and what is taken is in range.
 *
 * Input: the first byte sets the size of the reads the bytes arrive in;
 * the rest is the stream.
 */
#include <netinet/in.h>

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "list_args.h"
#include "log.h"
#include "parse.h"

using namespace tarvex_fuzz;
using namespace tarvex_server;

namespace {

using Events = std::vector<std::pair<LineReader::Event, std::string>>;

/* Feeds `stream` in reads of `piece` bytes, taking every line after each
 * read as the session does. */
Events read_lines(std::string_view stream, size_t piece)
{
    LineReader reader;
    Events events;
    for (size_t at = 0; at < stream.size(); at += piece) {
        std::string_view read = stream.substr(at, piece);
        reader.feed(read.data(), read.size());
        std::string line;
        for (LineReader::Event event; (event = reader.next(line)) != LineReader::Event::none;)
            events.emplace_back(event, event == LineReader::Event::too_long ? "" : line);
    }
    return events;
}

void check_line(const std::string &line)
{
    check(line.size() <= max_command_line, "a line above the limit");
    check(line.find('\n') == std::string::npos, "a line holding LF");

    CommandLine command = split_command(line);
    check(command.verb.find(' ') == std::string::npos, "a command word holding a space");
    for (char c : command.verb)
        check(!(c >= 'a' && c <= 'z'), "a command word not in capitals", command.verb);

    std::string shown = printable(line);
    check(shown.size() == line.size(), "printable() changed the length");
    for (unsigned char c : shown)
        check(!is_control_byte(c) && c != 0xff, "a control byte left printable", line);

    // A log line can be neither broken nor forged (what it reads back as is
    // the unit tests' table).
    std::string field = log_field(line);
    for (size_t i = 0; i < field.size(); i++) {
        auto c = static_cast<unsigned char>(field[i]);
        check(c >= 0x20 && c != 0x7f, "a control byte in a log field", field);
        check(!(c == 0xc2 && i + 1 < field.size() &&
                static_cast<unsigned char>(field[i + 1]) < 0xa0),
              "a C1 control in a log field", field);
    }
}

/* A refusal comes with 501 or 522 and a text that fits in a reply line. */
void check_refusal(int code, const std::string &why)
{
    check(code == 501 || code == 522, "a refusal with an unexpected code",
          std::to_string(code));
    check(!why.empty() && printable(why) == why, "a refusal text unfit for a reply", why);
}

/* Runs `parse` on `arg`: false when it was refused (the refusal checked). */
template <class Out, class Parse>
bool taken(Parse parse, const std::string &arg, Out &out)
{
    std::string why;
    int code = parse(arg, out, why);
    if (code != 0)
        check_refusal(code, why);
    return code == 0;
}

void check_offset(int64_t value, const char *what)
{
    check(value >= 0 && value <= max_client_offset, what, std::to_string(value));
}

/* REST's offset and ALLO's size. */
template <auto parse>
void offset(const std::string &arg)
{
    int64_t value = -7;
    if (taken(parse, arg, value))
        check_offset(value, "a REST offset or ALLO size out of range");
}

void cksm(const std::string &arg)
{
    CksmArgs out;
    if (!taken(parse_cksm, arg, out))
        return;
    check_offset(out.offset, "a CKSM offset out of range");
    if (out.length != -1)
        check_offset(out.length, "a CKSM length out of range");
    check(!out.algorithm.empty() && out.algorithm.find(' ') == std::string::npos,
          "a CKSM algorithm that is no word", out.algorithm);
    check(!out.path.empty(), "a CKSM argument without a path");
    for (unsigned char c : out.path)
        check(!is_control_byte(c), "a CKSM path with control bytes taken", out.path);
}

// PORT and EPRT give an address of their family or a refusal; the
// addresses they read are the unit tests' tables.
void port(const std::string &arg)
{
    sockaddr_storage address;
    if (taken(parse_port, arg, address))
        check(address.ss_family == AF_INET, "PORT gave no IPv4 address");
}

void eprt(const std::string &arg)
{
    sockaddr_storage address;
    if (taken(parse_eprt, arg, address))
        check(address.ss_family == AF_INET || address.ss_family == AF_INET6,
              "EPRT gave no address family", arg);
}

void epsv(const std::string &arg)
{
    EpsvArg out;
    taken(parse_epsv, arg, out);
}

void opts(const std::string &arg)
{
    check((parse_fact_list(arg) & ~63u) == 0, "an MLST fact beyond the known six");
}

void any_name(const std::string &arg)
{
    std::string why;
    int code = check_argument(arg, why);
    if (code != 0)
        return check_refusal(code, why);
    for (unsigned char c : arg)
        check(!is_control_byte(c), "a name with control bytes taken", arg);
}

// LIST and NLST: the path is the end of the argument, and the pattern a
// client writes is matched against any name without harm.
void list(const std::string &arg)
{
    ListArgs a = parse_list_args(arg);
    check(std::string_view(arg).ends_with(a.path), "a LIST path that is not the argument's end",
          arg);
    wildcard_match(std::string(folder_prefix(a.path)) + "*", a.path);
    if (has_wildcard(a.path))
        wildcard_match(a.path, arg);
}

/* The argument goes to the parser of its command; any other command's
 * argument is a name. */
void check_arguments(const std::string &line)
{
    static const std::map<std::string, void (*)(const std::string &)> parsers = {
        {"REST", offset<parse_rest>}, {"ALLO", offset<parse_allo>}, {"CKSM", cksm},
        {"PORT", port}, {"EPRT", eprt}, {"EPSV", epsv}, {"LIST", list}, {"NLST", list},
        {"OPTS", opts},
    };
    CommandLine command = split_command(line);
    auto parser = parsers.find(command.verb);
    (parser != parsers.end() ? parser->second : any_name)(command.arg);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    size_t piece = data[0] + 1;
    std::string_view stream(reinterpret_cast<const char *>(data + 1), size - 1);

    Events whole = read_lines(stream, stream.size() + 1);
    Events pieces = read_lines(stream, piece);
    check(whole == pieces, "lines depend on how the bytes arrived");
    for (const auto &[event, line] : whole) {
        if (event != LineReader::Event::line)
            continue;
        check_line(line);
        check_arguments(line);
    }
    return 0;
}
