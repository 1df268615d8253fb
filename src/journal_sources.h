/*
 * Where the change journal of a Box user's sessions lives: a file mapped
 * by every session of the user on one host, and the shared store that
 * sessions on every host reach.  session_journal.cpp reads both and
 * drops what they name from its path cache.
 */
#ifndef TARVEX_BOX_JOURNAL_SOURCES_H
#define TARVEX_BOX_JOURNAL_SOURCES_H

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include "owned_file.h"

/* One change: the path a session changed on Box ("*": anything may have
 * changed), by which session (`writer`) on which host (`host`, the id of
 * the host's journal file). */
struct tarvex_box_journal_entry {
    uint64_t host = 0;
    uint64_t writer = 0;
    std::string path;
};

/* A random 64-bit id (never 0). */
uint64_t tarvex_box_journal_random_id();

/*
 * The journal file "$HOME/.tarvex/box-r/<name>": a header with the host's
 * id and the generation (the number of entries ever written), and a ring
 * of slots, entry g in slot g % slots.  Writers take the file's write
 * lock; readers take nothing: each slot carries the generation of its
 * entry, written last, so a reader that finds another generation there
 * before or after copying the slot knows the entry was overwritten
 * (seqlock).  When the file cannot be used the ring is private memory,
 * which only this session sees.
 */
class tarvex_box_journal_file {
public:
    static constexpr uint64_t slots = 256;
    static constexpr size_t path_room = 1000; /* bytes of a path in a slot */

    explicit tarvex_box_journal_file(const char *name);
    tarvex_box_journal_file(const tarvex_box_journal_file &) = delete;
    tarvex_box_journal_file &operator=(const tarvex_box_journal_file &) = delete;

    /* Whether other processes can see this ring (false: private memory). */
    bool is_shared() const { return static_cast<bool>(fd_); }
    uint64_t host() const;
    /* One atomic load. */
    uint64_t generation() const;
    /* The word generation() loads, for a reader that loads it itself (in
     * private memory when the ring has none). */
    const uint64_t *generation_word() const;
    /* Appends an entry; a path too long for a slot is written as "*". */
    void append(uint64_t writer, const std::string &path);
    /* The entries after `seen` up to `upto`; false when any of them is no
     * longer in the ring (the reader has fallen behind). */
    bool read(uint64_t seen, uint64_t upto, std::vector<tarvex_box_journal_entry> *entries) const;

private:
    struct header;
    struct slot;
    header *head() const;
    slot *slot_at(uint64_t generation) const;
    bool map_file(tarvex_box_fd &file);
    void map_private();

    tarvex_box_fd fd_;
    tarvex_box_mapping map_; /* unmapped before fd_ closes */
};

/* The shared store named by the policy (pacing.h's "pacing_store"). */
struct tarvex_box_store_s;

/*
 * The journal in the shared store: a hash with the journal's epoch (a
 * random id made with it) and generation, and a list of the last entries,
 * "<generation> <host> <writer> <path>".  A session looks at most every
 * tarvex_i_box_journal_poll_ms: one script run answers the epoch, the
 * generation and the entries since the one it saw last.  A new epoch (the
 * store was emptied or restarted), a generation gone back, or entries
 * trimmed off the list mean the session cannot know what it missed.
 * Entries from this session's own host came through the file and are
 * skipped.  A change that could not be sent is followed, once the store
 * answers again, by "*".
 */
class tarvex_box_journal_store {
public:
    static constexpr uint64_t kept = 1024; /* entries the list keeps */

    tarvex_box_journal_store(std::shared_ptr<tarvex_box_store_s> store, const std::string &user,
                             uint64_t host);
    /* Notes where the journal stands now, before the session lists anything. */
    void start();
    /* When a look is due: the entries of other hosts since the last one
     * in `entries`, and `*lost` when some cannot be known. */
    void poll(std::vector<tarvex_box_journal_entry> *entries, bool *lost);
    void publish(uint64_t writer, const std::vector<std::string> &paths);

private:
    void look(std::vector<tarvex_box_journal_entry> *entries, bool *lost, bool baseline);

    std::shared_ptr<tarvex_box_store_s> store_;
    std::string meta_key_, list_key_;
    uint64_t host_;
    std::string epoch_; /* "": no journal in the store when last seen */
    uint64_t seen_ = 0;
    bool known_ = false;  /* seen_ and epoch_ are the store's */
    bool unsent_ = false; /* a change could not be published */
    int64_t next_look_us_ = 0;
};

#endif
