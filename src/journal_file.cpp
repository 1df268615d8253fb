/*
 * The journal file of one Box user on one host (journal_sources.h).
 *
 * Layout, native byte order, in 1024-byte blocks: the header, then the
 * slots.  Every field is a 64-bit word read and written atomically, so
 * that a reader in another process never needs the lock:
 *
 *   header: magic "tarvexJ1", slots, host id, generation, reserved
 *   slot:   generation of its entry (0 while being written), writer,
 *           path length, 125 words of path bytes
 *
 * 257 KiB per user; the ring holds the last 256 changes, far more than
 * the user's sessions make between two lookups of a busy session.
 */
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>

#include "config.h"
#include "journal_sources.h"
#include "state_file.h"

namespace {

constexpr uint64_t magic = 0x314a786576726174ULL; /* "tarvexJ1" */
constexpr size_t block = 1024;
constexpr size_t path_words = (block - 3 * sizeof(uint64_t)) / sizeof(uint64_t);

uint64_t load(const uint64_t &word, std::memory_order order = std::memory_order_relaxed)
{
    return std::atomic_ref<uint64_t>(const_cast<uint64_t &>(word)).load(order);
}

void store(uint64_t &word, uint64_t value, std::memory_order order = std::memory_order_relaxed)
{
    std::atomic_ref<uint64_t>(word).store(value, order);
}

/* fcntl locks do not exclude the threads of one process: two sessions in
 * one process (as in tests) write one at a time through this. */
std::mutex &writers()
{
    static std::mutex instance;
    return instance;
}

} // namespace

struct tarvex_box_journal_file::header {
    uint64_t magic;
    uint64_t slots;
    uint64_t host;
    uint64_t generation;
    uint64_t reserved[block / sizeof(uint64_t) - 4];
};

struct tarvex_box_journal_file::slot {
    uint64_t generation;
    uint64_t writer;
    uint64_t length;
    uint64_t text[path_words];
};

namespace {

constexpr size_t file_size = block * (1 + tarvex_box_journal_file::slots);

} // namespace

uint64_t tarvex_box_journal_random_id()
{
    uint64_t id = 0;
    while (id == 0) {
        if (getrandom(&id, sizeof id, 0) != (ssize_t)sizeof id)
            id = (uint64_t)getpid() << 32 ^ (uint64_t)tarvex_time_monotonic_usec();
    }
    return id;
}

tarvex_box_journal_file::tarvex_box_journal_file(const char *name)
{
    static_assert(sizeof(header) == block, "journal header layout");
    static_assert(sizeof(slot) == block, "journal slot layout");
    static_assert(path_room <= path_words * sizeof(uint64_t), "a path fits its slot");
    tarvex_box_fd fd = tarvex_box_state_file_open_named(tarvex_i_box_retry_path, name);
    if (!fd || !map_file(fd)) {
        fd.reset();
        map_private();
    }
}

/*
 * Under the lock: grows the file to its size (never shrinks it: another
 * process may have it mapped) and writes a fresh header when there is
 * none of this layout.  Sessions that had an older ring mapped see their
 * generation gone back and drop their caches.
 */
bool tarvex_box_journal_file::map_file(tarvex_box_fd &file)
{
    const int fd = file.get();
    if (tarvex_box_state_file_lock(fd, F_WRLCK, F_SETLKW) != 0)
        return false;
    bool ok = false;
    struct stat st;
    if (fstat(fd, &st) == 0) {
        int rc = 0;
        if (st.st_size < (off_t)file_size)
            while ((rc = ftruncate(fd, file_size)) != 0 && errno == EINTR) {
            }
        void *map = rc == 0 ? mmap(nullptr, file_size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0)
                            : MAP_FAILED;
        if (map != MAP_FAILED) {
            map_ = tarvex_box_mapping(map, file_size);
            fd_ = std::move(file);
            header *h = head();
            if (load(h->magic, std::memory_order_acquire) != magic || load(h->slots) != slots) {
                store(h->magic, 0);
                store(h->slots, slots);
                store(h->host, tarvex_box_journal_random_id());
                store(h->generation, 0);
                for (uint64_t i = 0; i < slots; i++)
                    store(slot_at(i)->generation, 0);
                store(h->magic, magic, std::memory_order_release);
            }
            ok = true;
        }
    }
    tarvex_box_state_file_lock(fd, F_UNLCK, F_SETLK);
    return ok;
}

void tarvex_box_journal_file::map_private()
{
    fd_.reset();
    map_ = tarvex_box_mapping(tarvex_box_state_file_anonymous(file_size), file_size);
    if (!map_)
        return;
    store(head()->magic, magic);
    store(head()->slots, slots);
    store(head()->host, tarvex_box_journal_random_id());
}

tarvex_box_journal_file::header *tarvex_box_journal_file::head() const
{
    return static_cast<header *>(map_.get());
}

tarvex_box_journal_file::slot *tarvex_box_journal_file::slot_at(uint64_t generation) const
{
    return reinterpret_cast<slot *>(static_cast<char *>(map_.get()) +
                                    block * (1 + generation % slots));
}

uint64_t tarvex_box_journal_file::host() const
{
    return map_ ? load(head()->host) : 0;
}

uint64_t tarvex_box_journal_file::generation() const
{
    return load(*generation_word(), std::memory_order_acquire);
}

const uint64_t *tarvex_box_journal_file::generation_word() const
{
    static const uint64_t none = 0;
    return map_ ? &head()->generation : &none;
}

void tarvex_box_journal_file::append(uint64_t writer, const std::string &path)
{
    if (!map_)
        return;
    std::lock_guard<std::mutex> guard(writers());
    header *h = head();
    if (fd_ && tarvex_box_state_file_lock(fd_.get(), F_WRLCK, F_SETLKW) != 0) {
        /* Without the lock a slot could be written twice at once: rather
         * than that, every reader is sent past the whole ring, so that it
         * drops its cache. */
        std::atomic_ref<uint64_t>(h->generation).fetch_add(slots + 1, std::memory_order_acq_rel);
        return;
    }
    const std::string text = path.size() <= path_room ? path : std::string("*");
    const uint64_t generation = load(h->generation) + 1;
    slot *s = slot_at(generation);
    /* The slot's words are stored with release and loaded with acquire
     * (plain moves on x86): a reader that sees any word of a later entry
     * then also sees this 0, and knows its copy is torn. */
    store(s->generation, 0);
    store(s->writer, writer, std::memory_order_release);
    store(s->length, text.size(), std::memory_order_release);
    for (size_t w = 0; w * sizeof(uint64_t) < text.size(); w++) {
        uint64_t word = 0;
        memcpy(&word, text.data() + w * sizeof(uint64_t),
               std::min(sizeof(uint64_t), text.size() - w * sizeof(uint64_t)));
        store(s->text[w], word, std::memory_order_release);
    }
    store(s->generation, generation, std::memory_order_release);
    store(h->generation, generation, std::memory_order_release);
    if (fd_)
        tarvex_box_state_file_lock(fd_.get(), F_UNLCK, F_SETLK);
}

bool tarvex_box_journal_file::read(uint64_t seen, uint64_t upto,
                                   std::vector<tarvex_box_journal_entry> *entries) const
{
    if (upto < seen || upto - seen > slots)
        return false;
    const uint64_t host_id = host();
    for (uint64_t generation = seen + 1; generation <= upto; generation++) {
        const slot *s = slot_at(generation);
        if (load(s->generation, std::memory_order_acquire) != generation)
            return false;
        tarvex_box_journal_entry entry;
        entry.host = host_id;
        entry.writer = load(s->writer, std::memory_order_acquire);
        const uint64_t length = load(s->length, std::memory_order_acquire);
        if (length > path_room)
            return false;
        uint64_t words[path_words];
        for (size_t w = 0; w * sizeof(uint64_t) < length; w++)
            words[w] = load(s->text[w], std::memory_order_acquire);
        if (load(s->generation) != generation)
            return false;
        entry.path.assign(reinterpret_cast<const char *>(words), length);
        entries->push_back(std::move(entry));
    }
    return true;
}
