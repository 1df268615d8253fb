// The server's log: one line per event on standard error.
//
// Whatever came from outside (a login name, a path, a command, a message
// of the plug-in or of a credential helper) goes into a line through
// log_field(), so that no client can break a line, forge one, or send
// escape sequences to the terminal of whoever reads the log.
#pragma once

#include <string>
#include <string_view>

namespace tarvex_server {

// `text` with every byte that is not printable text escaped: the C0 and C1
// controls and DEL as \xNN, a backslash as \\, and bytes that do not form
// valid UTF-8 as \xNN.  Valid UTF-8 beyond ASCII is kept (names in any
// language stay readable).
std::string log_field(std::string_view text);

// log_field(), with every space escaped too (an ASCII space as \x20, and
// the bytes of the other characters that text tools split words at, such
// as U+00A0 and U+3000): the text stays one field of a line whose fields
// are separated by spaces.  Empty text is "-", so that no field vanishes.
std::string log_word(std::string_view text);

// "tarvex-gridftp-server[<pid>]: <text>" (a session) and
// "tarvex-gridftp-server: <text>" (the listening process), each written
// whole in one call.
void log_session(const std::string &text);
void log_server(const std::string &text);

} // namespace tarvex_server
