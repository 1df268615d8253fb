#include "listing.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>

#include "log.h"
#include "parse.h"

namespace tarvex_server {

StatEntry copy_entry(const tarvex_gridftp_server_control_stat_t &s)
{
    StatEntry e;
    e.mode = s.mode;
    e.nlink = s.nlink;
    if (s.name != nullptr)
        e.name = s.name;
    if (s.symlink_target != nullptr)
        e.symlink_target = s.symlink_target;
    e.uid = s.uid;
    e.gid = s.gid;
    e.size = s.size;
    e.mtime = s.mtime;
    e.dev = s.dev;
    e.ino = s.ino;
    return e;
}

bool is_dir(const StatEntry &e)
{
    return S_ISDIR(e.mode);
}

bool listable(const StatEntry &e, const std::string &where)
{
    if (e.name.empty())
        return false;
    std::string why;
    bool ok = check_argument(e.name, why) == 0 &&
              (!S_ISLNK(e.mode) || check_argument(e.symlink_target, why) == 0);
    if (!ok)
        log_session("left out of the listing of " + log_field(where) +
                    ": a name with control characters, " + log_field(e.name));
    return ok;
}

std::string FactSet::enabled_list() const
{
    std::string out;
    if (type)
        out += "type;";
    if (size)
        out += "size;";
    if (modify)
        out += "modify;";
    if (perm)
        out += "perm;";
    if (unique)
        out += "unique;";
    if (unix_mode)
        out += "UNIX.mode;";
    return out;
}

std::string FactSet::feat_list() const
{
    std::string out;
    auto add = [&](const char *n, bool on) {
        out += n;
        if (on)
            out += '*';
        out += ';';
    };
    add("type", type);
    add("size", size);
    add("modify", modify);
    add("perm", perm);
    add("unique", unique);
    add("UNIX.mode", unix_mode);
    return out;
}

void FactSet::select(const std::string &list)
{
    unsigned mask = parse_fact_list(list);
    type = mask & fact_type;
    size = mask & fact_size;
    modify = mask & fact_modify;
    perm = mask & fact_perm;
    unique = mask & fact_unique;
    unix_mode = mask & fact_unix_mode;
}

namespace {

char type_char(int mode)
{
    if (S_ISDIR(mode))
        return 'd';
    if (S_ISLNK(mode))
        return 'l';
    return '-';
}

std::string mode_string(int mode)
{
    std::string s(10, '-');
    s[0] = type_char(mode);
    const char rwx[] = "rwxrwxrwx";
    for (int i = 0; i < 9; ++i)
        if (mode & (0400 >> i))
            s[static_cast<size_t>(i) + 1] = rwx[i];
    return s;
}

} // namespace

std::string list_line(const StatEntry &e, const std::string &name, time_t now)
{
    static const char *months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    tm t{};
    gmtime_r(&e.mtime, &t);
    char when[32];
    // ls shows the time for the last six months and the year otherwise.
    bool recent = e.mtime <= now + 3600 && now - e.mtime < 180L * 24 * 3600;
    if (recent)
        snprintf(when, sizeof when, "%s %2d %02d:%02d", months[t.tm_mon % 12], t.tm_mday,
                 t.tm_hour, t.tm_min);
    else
        snprintf(when, sizeof when, "%s %2d %5d", months[t.tm_mon % 12], t.tm_mday,
                 t.tm_year + 1900);
    char head[160];
    snprintf(head, sizeof head, "%s %3d %-8u %-8u %12lld %s ", mode_string(e.mode).c_str(),
             e.nlink > 0 ? e.nlink : 1, static_cast<unsigned>(e.uid),
             static_cast<unsigned>(e.gid), static_cast<long long>(e.size), when);
    std::string line = head + name;
    if (S_ISLNK(e.mode) && !e.symlink_target.empty())
        line += " -> " + e.symlink_target;
    return line;
}

std::string mdtm_time(time_t t)
{
    tm g{};
    gmtime_r(&t, &g);
    char buf[32];
    snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02d", g.tm_year + 1900, g.tm_mon + 1,
             g.tm_mday, g.tm_hour, g.tm_min, g.tm_sec);
    return buf;
}

namespace {

// FNV-1a, 64 bits.
uint64_t path_hash(const std::string &path)
{
    uint64_t h = 14695981039346656037ull;
    for (unsigned char c : path) {
        h ^= c;
        h *= 1099511628211ull;
    }
    return h;
}

} // namespace

std::string mlst_facts(const StatEntry &e, const FactSet &f, bool cdir, const std::string &name,
                       const std::string &path)
{
    std::string out;
    bool dir = S_ISDIR(e.mode);
    if (f.type)
        out += cdir ? "type=cdir;" : dir ? "type=dir;" : S_ISREG(e.mode) ? "type=file;"
                                                                       : "type=OS.unix=other;";
    if (f.size && !dir)
        out += "size=" + std::to_string(e.size) + ";";
    if (f.modify)
        out += "modify=" + mdtm_time(e.mtime) + ";";
    if (f.perm) {
        // The owner's bits: a session acts as the files' owner in the
        // storage it is given.
        std::string p;
        bool r = e.mode & 0400;
        bool w = e.mode & 0200;
        bool x = e.mode & 0100;
        if (dir) {
            if (x)
                p += 'e';
            if (r)
                p += 'l';
            if (w)
                p += "cmpdf";
        } else {
            if (r)
                p += 'r';
            if (w)
                p += "adfw";
        }
        out += "perm=" + p + ";";
    }
    if (f.unique) {
        char buf[48];
        snprintf(buf, sizeof buf, "unique=%xg%llx;", static_cast<unsigned>(e.dev),
                 static_cast<unsigned long long>(path_hash(path)));
        out += buf;
    }
    if (f.unix_mode) {
        char buf[32];
        snprintf(buf, sizeof buf, "UNIX.mode=0%o;", static_cast<unsigned>(e.mode & 07777));
        out += buf;
    }
    return out + " " + name;
}

} // namespace tarvex_server
