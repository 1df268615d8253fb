// What a client sends on the control connection, parsed: the bytes into
// command lines (with their limits), and the arguments whose numbers and
// addresses must be checked before anything is done with them.
//
// Plain functions of their input: no session, no socket, no plug-in, so
// that each can be tried alone with any bytes at all.  Every function
// accepts any input without crashing and without arithmetic overflow.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace tarvex_server {

// ---- command lines ----

// The longest command line taken (without its CR LF).  Paths of 4 KiB and
// their command word fit; anything longer is not FTP.
constexpr size_t max_command_line = 4096;

// Turns the bytes of the control connection into command lines.  Telnet
// commands (IAC sequences, as sent with an urgent ABOR) are stripped; IAC
// IAC is a literal 0xFF.  A line ends at LF, a CR before it is dropped.  A
// line longer than max_command_line is reported once as too_long and
// dropped up to its LF.  Fed a read at a time and drained with next()
// after each, it holds no more than the limit and one read.
class LineReader {
public:
    enum class Event { none, line, too_long, nul };

    void feed(const char *p, size_t n);
    // The next complete line (without CR LF), or none when more bytes are
    // needed.  `nul`: the line held a NUL byte (it is not handed over).
    Event next(std::string &line);
    // Forgets everything buffered (AUTH TLS: bytes sent in the clear before
    // the handshake must not be taken as commands after it).
    void clear();

private:
    std::string buf_;
    bool discarding_ = false;
    int telnet_state_ = 0; // 0 plain, 1 after IAC, 2 after IAC WILL/WONT/DO/DONT
};

// The command word in capitals and its argument (everything after the
// first space).
struct CommandLine {
    std::string verb;
    std::string arg;
};
CommandLine split_command(std::string_view line);

// ---- arguments ----
//
// Each parser returns 0 when the argument is good, else the reply code to
// refuse it with (501 for syntax and range, 522 for an address family not
// served), with the reply text in `why`.

// The largest offset, size or length a client may name (REST, ALLO, CKSM):
// 2^60 bytes (1 EiB).  Beyond any file a storage holds, and small enough
// that an offset plus a length, or plus every byte a session can move,
// never overflows a signed 64-bit number.
constexpr int64_t max_client_offset = int64_t(1) << 60;

// A decimal number of digits only (no sign, no spaces), at most `max`.
enum class Number { ok, syntax, range };
Number parse_decimal(std::string_view text, int64_t max, int64_t &out);

// REST <offset>
int parse_rest(std::string_view arg, int64_t &offset, std::string &why);
// ALLO <size> [R <record size>]
int parse_allo(std::string_view arg, int64_t &size, std::string &why);

// CKSM <algorithm> <offset> <length> <path>; length -1 is to the end.
struct CksmArgs {
    std::string algorithm;
    int64_t offset = 0;
    int64_t length = -1;
    std::string path;
};
int parse_cksm(std::string_view arg, CksmArgs &out, std::string &why);

// PORT h1,h2,h3,h4,p1,p2: an IPv4 address and port.
int parse_port(std::string_view arg, sockaddr_storage &out, std::string &why);
// EPRT |af|address|port| with any printable delimiter; af 1 (IPv4) or 2
// (IPv6).
int parse_eprt(std::string_view arg, sockaddr_storage &out, std::string &why);

// EPSV [1 | 2 | ALL]
enum class EpsvArg { any, ipv4, ipv6, all };
int parse_epsv(std::string_view arg, EpsvArg &out, std::string &why);

// Any argument but a password (a path of MLST, RETR, STOR, CWD, ..., a
// login name): refused when it holds a control character.  Such a name
// could not be written on one line of a listing, a reply or the log; LF
// cannot reach here at all, CR and the rest are turned away so that no such
// name is made, or asked for, through this server.
int check_argument(std::string_view arg, std::string &why);

// The MLST facts a client selects with OPTS MLST "type;size;...": a mask
// of these bits (unknown facts are ignored, as RFC 3659 says).
enum Fact : unsigned {
    fact_type = 1,
    fact_size = 2,
    fact_modify = 4,
    fact_perm = 8,
    fact_unique = 16,
    fact_unix_mode = 32
};
unsigned parse_fact_list(std::string_view list);

// ---- text ----

// True for the bytes that cannot stand inside one line of a listing or a
// reply: the C0 controls and DEL.
bool is_control_byte(unsigned char c);
// The length of the valid UTF-8 sequence of a character beyond ASCII at
// the start of `s`, or 0 (overlong forms, surrogates and values beyond
// U+10FFFF are not valid).
size_t utf8_length(std::string_view s);
// A UTF-8 sequence of U+0080..U+009F, the C1 controls (CSI among them
// starts an escape sequence on some terminals).
bool is_c1_control(std::string_view sequence);
// `text` as valid UTF-8 without control characters: each byte of a control
// (C0, DEL, C1) and every byte that is not valid UTF-8 becomes '?' (the
// length stays).  For reply lines that repeat what a client or a storage
// named.
std::string printable(std::string_view text);

} // namespace tarvex_server
