// The argument of LIST and NLST: ls options, a path, and a wildcard
// pattern in the path's last name.  Plain functions of their input.
#pragma once

#include <string>
#include <string_view>

namespace tarvex_server {

struct ListArgs {
    bool recursive = false; // -R
    std::string path;       // as the client wrote it; empty: the current folder
};

// "-la dir", "-R", "-l -a dir": leading words made only of the ls option
// letters clients send are options (R asks for the tree, the rest change
// nothing here).  The first word that is not, "-dash.txt" among them, and
// everything after it is the path, spaces included.
ListArgs parse_list_args(std::string_view arg);

// Whether a name holds a wildcard: '*', '?' or a '[' that a ']' closes.
bool has_wildcard(std::string_view name);

// Whether `name` matches the shell pattern `pattern` (*, ?, [...] and
// backslash escapes).  A leading '.' must be matched by a '.' written out,
// as the shell has it: "*" does not pick hidden files, so "mdelete *"
// leaves them alone.
bool wildcard_match(const std::string &pattern, const std::string &name);

// What the client wrote before the last name of `path` ("/S/t/" of
// "/S/t/*.txt", "" of "*.txt"): the names a wildcard listing shows start
// with it, as ls shows them.
std::string_view folder_prefix(std::string_view path);

} // namespace tarvex_server
