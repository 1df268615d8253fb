// Listings: LIST and NLST (ls options, wildcards in the last name, -R for
// the whole tree) and MLSD.  Every listing is written to the data
// connection a plug-in batch at a time, as the storage hands it over, so a
// folder of any size, and a tree, list in constant memory.
#include <sys/stat.h>

#include <ctime>
#include <functional>
#include <string>
#include <vector>

#include "list_args.h"
#include "path.h"
#include "session.h"

namespace tarvex_server {

namespace {

// Also the values of Session::listing's `kind`.
enum ListKind { kind_list, kind_nlst, kind_mlsd };

// `name` in the folder `folder` (an absolute path, or what a client wrote).
std::string joined(const std::string &folder, const std::string &name)
{
    if (folder.empty())
        return name;
    return folder.back() == '/' ? folder + name : folder + "/" + name;
}

// The lines of one listing: gathered over a plug-in batch, then written.
class ListWriter {
public:
    ListWriter(Transfer &t, int kind, const FactSet &facts)
        : t_(t), kind_(kind), facts_(facts), now_(time(nullptr))
    {
    }

    // `self`: the listed folder's own entry (MLSD's "cdir"); `folder`:
    // the listed folder's path.
    void line(const StatEntry &e, const std::string &shown, bool self,
              const std::string &folder)
    {
        if (kind_ == kind_list)
            buf_ += list_line(e, shown, now_);
        else if (kind_ == kind_nlst)
            buf_ += shown;
        else
            buf_ += mlst_facts(e, facts_, self, shown, self ? folder : joined(folder, e.name));
        buf_ += "\r\n";
        if (!self)
            ++items_;
    }

    void text(const std::string &s) { buf_ += s; }

    void flush()
    {
        if (buf_.empty())
            return;
        t_.begin(false);
        t_.write_text(buf_);
        buf_.clear();
    }

    long long items() const { return items_; }
    Transfer &transfer() { return t_; }

private:
    Transfer &t_;
    int kind_;
    const FactSet &facts_;
    time_t now_;
    std::string buf_;
    long long items_ = 0;
};

// The folder of a normal path that is not the root.
std::string folder_of(const std::string &path)
{
    size_t slash = path.rfind('/');
    return slash == 0 ? "/" : path.substr(0, slash);
}

// The first header of ls -R: the path as written, without trailing '/'.
std::string shown_top(const std::string &written)
{
    if (written.empty())
        return ".";
    size_t end = written.find_last_not_of('/');
    return end == std::string::npos ? "/" : written.substr(0, end + 1);
}

tarvex_result_t too_many_items(int limit)
{
    return tarvex_error_put(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 451, nullptr,
        "The tree holds more than %d items, the most a recursive listing shows "
        "(--recursive-list-limit): the listing is incomplete.",
        limit));
}

} // namespace

// What the folder listings of one LIST, NLST or MLSD share: the writer, the
// item count of a walk and the folders found for it.
struct ListWalk {
    ListWalk(Transfer &t, int list_kind, const FactSet &facts, bool walks, int most)
        : w(t, list_kind, facts), kind(list_kind), recursive(walks), limit(most)
    {
    }

    // An entry of the folder `where`; false when the walk has its limit.
    bool take(const StatEntry &e)
    {
        bool self = e.name == ".";
        if (e.name == ".." || (self && kind != kind_mlsd) || !listable(e, where))
            return true;
        if (recursive && w.items() >= limit) {
            over = true;
            return false;
        }
        w.line(e, e.name, self, where);
        if (recursive && is_dir(e))
            subfolders.push_back(e.name);
        return true;
    }

    ListWriter w;
    int kind;
    bool recursive;
    int limit;
    bool over = false;
    std::string where;                   // the folder being listed
    std::vector<std::string> subfolders; // its folders, for the walk
};

void Session::cmd_list(const std::string &arg)
{
    listing(arg, kind_list);
}

void Session::cmd_nlst(const std::string &arg)
{
    listing(arg, kind_nlst);
}

void Session::cmd_mlsd(const std::string &arg)
{
    listing(arg, kind_mlsd);
}

tarvex_result_t Session::list_entries(const std::string &path, Transfer &t,
                                      const std::function<bool(const StatEntry &)> &each,
                                      const std::function<void()> &batch_done)
{
    tarvex_gfs_stat_info_t info{};
    info.file_only = false;
    info.pathname = const_cast<char *>(path.c_str());
    PluginCall c;
    c.transfer = &t;
    bool stopped = false;
    c.on_stat = [&](tarvex_result_t r, tarvex_gridftp_server_control_stat_t *a, int n, bool) {
        if (r != TARVEX_SUCCESS || a == nullptr || stopped)
            return;
        for (int i = 0; i < n && !stopped; ++i) {
            if (!each(copy_entry(a[i]))) {
                // The rest of the folder is not wanted: the plug-in
                // need not ask its storage for more.
                stopped = true;
                tarvex_gfs_operation_cancel(c.op);
            }
        }
        batch_done();
    };
    call_plugin(c, [&](tarvex_gfs_operation_t op) { iface_->stat_func(op, &info, session_arg_); });
    if (!stopped)
        return c.result;
    tarvex_error_discard(c.result);
    return TARVEX_SUCCESS;
}

void Session::listing(const std::string &raw_arg, int kind)
{
    ListArgs a = kind == kind_mlsd ? ListArgs{false, raw_arg} : parse_list_args(raw_arg);
    if (!data_allowed())
        return;
    std::string path = path_arg(a.path);
    if (kind != kind_mlsd && has_wildcard(base_name(path))) {
        // A name that exists as written is taken as it is.
        std::optional<bool> literal = exists_unless_aborted(path, "Listing aborted.");
        if (!literal)
            return;
        if (!*literal) {
            list_matches(a.path, path, kind);
            return;
        }
    }
    Transfer t(data_, transfer_params(path));
    ListWalk walk(t, kind, facts_, a.recursive && kind != kind_mlsd, opts_.recursive_list_limit);
    tarvex_result_t result = list_folder(walk, path);
    if (result != TARVEX_SUCCESS && !t.began() && !t.aborted() && kind != kind_mlsd &&
        list_file(walk, path, a.path)) {
        tarvex_error_discard(result);
        result = TARVEX_SUCCESS;
    }
    if (result != TARVEX_SUCCESS && !t.began() && !t.aborted()) {
        retire_data();
        reply_error(result, 550);
        return;
    }
    if (result == TARVEX_SUCCESS)
        result = list_below(walk, path, shown_top(a.path), t);
    finish_transfer(result, t, 451);
}

tarvex_result_t Session::list_folder(ListWalk &walk, const std::string &path)
{
    walk.where = path;
    return list_entries(
        path, walk.w.transfer(), [&](const StatEntry &e) { return walk.take(e); },
        [&] { walk.w.flush(); });
}

// LIST and NLST of a file show that file; false when `path` is none.
bool Session::list_file(ListWalk &walk, const std::string &path, const std::string &written)
{
    StatEntry e;
    tarvex_result_t r;
    if (!stat_one(path, e, r) || is_dir(e)) {
        tarvex_error_discard(r);
        return false;
    }
    walk.w.line(e, written.empty() ? base_name(path) : written, false, folder_of(path));
    walk.w.flush();
    return true;
}

// ls -R: the folders found below `path`, depth first in listing order,
// each after a blank line and a header that names it as the client would.
tarvex_result_t Session::list_below(ListWalk &walk, const std::string &path,
                                    const std::string &shown, Transfer &t)
{
    struct Folder {
        std::string path, shown;
    };
    std::vector<Folder> todo; // a stack: the last one is listed next
    auto push_subfolders = [&](const Folder &parent) {
        for (auto it = walk.subfolders.rbegin(); it != walk.subfolders.rend(); ++it)
            todo.push_back({joined(parent.path, *it), joined(parent.shown, *it)});
        walk.subfolders.clear();
    };
    push_subfolders({path, shown});
    tarvex_result_t result = TARVEX_SUCCESS;
    while (result == TARVEX_SUCCESS && !walk.over && !todo.empty() && !t.aborted() &&
           t.failure().empty()) {
        Folder f = std::move(todo.back());
        todo.pop_back();
        walk.w.text("\r\n" + f.shown + ":\r\n");
        result = list_folder(walk, f.path);
        push_subfolders(f);
    }
    if (!walk.over || result != TARVEX_SUCCESS)
        return result;
    walk.w.flush();
    return too_many_items(walk.limit);
}

// LIST and NLST of a wildcard: the entries of the folder whose names match
// the last name of `path`, each shown after what the client wrote before
// that name ("/S/t/*.txt" shows "/S/t/a.txt", as ls does).
void Session::list_matches(const std::string &written, const std::string &path, int kind)
{
    std::string folder = folder_of(path);
    std::string pattern = base_name(path);
    std::string prefix(folder_prefix(written));
    Transfer t(data_, transfer_params(path));
    ListWriter w(t, kind, facts_);
    auto each = [&](const StatEntry &e) {
        if (e.name != "." && e.name != ".." && wildcard_match(pattern, e.name) &&
            listable(e, folder))
            w.line(e, prefix + e.name, false, folder);
        return true;
    };
    tarvex_result_t result = list_entries(folder, t, each, [&] { w.flush(); });
    if (!t.began() && !t.aborted()) {
        // Nothing matched: the reply of a name that is not there, before
        // any data connection.
        retire_data();
        if (result != TARVEX_SUCCESS)
            reply_error(result, 550);
        else
            reply(550, written + ": No such file or directory.");
        return;
    }
    finish_transfer(result, t, 451);
}

} // namespace tarvex_server
