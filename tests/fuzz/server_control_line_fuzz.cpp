/*
 * The server's control connection: bytes as a client sends them, turned
 * into command lines (Telnet commands stripped, length limit, NUL bytes),
 * then split into command word and argument, made printable for replies
 * and escaped for the log.
 *
 * Input: the first byte sets the size of the reads the bytes arrive in;
 * the rest is the stream.  However the stream is cut into reads, the lines
 * must come out the same.
 */
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "fuzz_support.h"
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

/* The log escaping read back: "\\" is a backslash, "\xNN" a byte. */
std::string unescape(std::string_view field)
{
    std::string out;
    for (size_t i = 0; i < field.size(); i++) {
        if (field[i] != '\\') {
            out += field[i];
            continue;
        }
        check(i + 1 < field.size(), "a log field ending in a lone backslash");
        if (field[i + 1] == '\\') {
            out += '\\';
            i++;
            continue;
        }
        check(field[i + 1] == 'x' && i + 3 < field.size(), "a bad escape in a log field");
        out += static_cast<char>(std::stoi(std::string(field.substr(i + 2, 2)), nullptr, 16));
        i += 3;
    }
    return out;
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

    // A log line can be neither broken nor forged, and reads back whole.
    std::string field = log_field(line);
    for (size_t i = 0; i < field.size(); i++) {
        auto c = static_cast<unsigned char>(field[i]);
        check(c >= 0x20 && c != 0x7f, "a control byte in a log field", field);
        check(!(c == 0xc2 && i + 1 < field.size() &&
                static_cast<unsigned char>(field[i + 1]) < 0xa0),
              "a C1 control in a log field", field);
    }
    check(unescape(field) == line, "a log field that does not read back", field);
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
    for (const auto &[event, line] : whole)
        if (event == LineReader::Event::line)
            check_line(line);
    return 0;
}
