// TYPE A (RFC 959): a file's lines travel with CR LF ends and are stored
// with LF ends.  Both directions take the data in pieces of any size, so
// a CR LF split between two pieces is still seen as one line end.
#pragma once

#include <cstddef>
#include <string>

namespace tarvex_server {

// A store: CR LF becomes LF; a CR not followed by LF is kept.
class CrlfToLf {
public:
    void feed(const char *p, size_t n, std::string &out);
    // The end of the data: a CR that ended it is kept.
    void finish(std::string &out);

private:
    bool cr_ = false; // the last piece ended with a CR, not yet written
};

// A retrieval: LF becomes CR LF, unless a CR already stands before it (a
// file stored with CR LF ends goes out as it is, not with CR CR LF).
class LfToCrlf {
public:
    void feed(const char *p, size_t n, std::string &out);

private:
    bool after_cr_ = false;
};

} // namespace tarvex_server
