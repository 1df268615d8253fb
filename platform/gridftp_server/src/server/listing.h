// How stat entries become text: LIST (ls -l style), NLST (names), MLSD and
// MLST facts (RFC 3659), and the MDTM time form.
#pragma once

#include <ctime>
#include <string>

#include "tarvex_gridftp_server.h"

namespace tarvex_server {

// An owned copy of a plug-in's stat entry (the plug-in frees its own once
// the call that handed it over returns).
struct StatEntry {
    int mode = 0;
    int nlink = 0;
    std::string name;
    std::string symlink_target;
    uid_t uid = 0;
    gid_t gid = 0;
    tarvex_off_t size = 0;
    time_t mtime = 0;
    int dev = 0;
    int ino = 0;
};

StatEntry copy_entry(const tarvex_gridftp_server_control_stat_t &s);

// Which MLST facts are shown; OPTS MLST changes it.
struct FactSet {
    bool type = true, size = true, modify = true, perm = true, unique = true, unix_mode = true;
    // "type;size;..." for the OPTS reply (enabled facts) and FEAT (all, with
    // '*' on the enabled ones).
    std::string enabled_list() const;
    std::string feat_list() const;
    // Applies "type;size;" (unknown facts ignored, as RFC 3659 says).
    void select(const std::string &list);
};

// Whether the entry can be written as one line of a listing: a name (and
// the target of a link shown) without control characters.  Those that
// cannot are left out, with a log line naming the folder `where`; a CR LF
// in a name would otherwise end the line and start a forged one.
bool listable(const StatEntry &e, const std::string &where);

std::string list_line(const StatEntry &e, const std::string &name, time_t now);
// The facts and a space, then `name`; `cdir` marks the listed folder itself.
// `path` is the item's full path: its unique fact is made of the storage's
// device number and that path, so that MLST and MLSD give one item one
// value (a storage may number an item differently in a listing and alone).
std::string mlst_facts(const StatEntry &e, const FactSet &facts, bool cdir,
                       const std::string &name, const std::string &path);
std::string mdtm_time(time_t t);
bool is_dir(const StatEntry &e);

} // namespace tarvex_server
