// The server's configuration file (--config FILE): one setting a line,
// "key = value", whose key is a long option's name without its dashes.
//
//   # passive data connections
//   pasv-range = 50000-50999
//   require-tls = true
//   config-file = config=/etc/tarvex/box-policy.json
//
// A line whose first character other than blanks is '#' is a comment, as
// is a blank line; a '#' anywhere else belongs to the value (commands and
// paths may hold one).  Blanks around the key and the value are dropped.
// What the keys mean is the option table's business (options.h): this
// file only splits lines.
#pragma once

#include <string>
#include <vector>

namespace tarvex_server {

struct Setting {
    std::string key;   // "pasv-range"
    std::string value; // "50000-50999"
    int line = 0;      // in the file, from 1
};

// The settings of the file at `path`, in the file's order; false with
// `err` ("PATH:LINE: why", or "PATH: why" when the file cannot be read).
bool read_config_file(const std::string &path, std::vector<Setting> &out, std::string &err);

// The same, from the file's text (`path` names it in messages).
bool parse_config_text(const std::string &path, const std::string &text,
                       std::vector<Setting> &out, std::string &err);

} // namespace tarvex_server
