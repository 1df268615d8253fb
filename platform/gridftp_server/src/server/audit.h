// The audit log (--audit-log FILE): one line per change a client asked of
// the storage, whatever came of it:
//
//   2025-03-04T09:15:02+0100 192.0.2.7 alice RNTO /drafts/q1.pdf /reports/q1.pdf 250 Renamed ...
//
// local time with its offset from UTC, client address, login name,
// command (MKD, RMD, DELE, RNTO, SITE_RDEL, SITE_CHMOD; XMKD and XRMD are
// written as MKD and RMD), path, a second path or value ("-" when there is
// none: RNTO's new name, SITE_CHMOD's octal mode), then the reply code and
// the reply's text to the end of the line (the lines of a reply of several
// joined by " | ").  A rename is one line, at RNTO: RNFR changes nothing.
// The first seven fields are single words (log_word()); the text is escaped
// as every log field is (log_field()).  Uploads and downloads are the
// transfer log's (xferlog.h), not repeated here.
//
// The lines travel as the transfer log's do: sessions send them to the
// listening process, which alone writes the file (a TransferLog named
// "audit log"), and SIGHUP opens the file by its name again.
#pragma once

#include <ctime>
#include <string>

namespace tarvex_server {

struct AuditRecord {
    time_t when = 0;
    std::string host;    // the client's address
    std::string user;    // the login name
    std::string command;
    std::string path;
    std::string second;  // "" : none
    std::string reply;   // the whole reply, CR LF lines, as sent
};

// The line for `r`, newline included.
std::string audit_line(const AuditRecord &r);

} // namespace tarvex_server
