#include "mark_registry.h"

#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "conn.h"
#include "shared_mutex.h"

namespace tarvex_server::mark_registry {

namespace {

// A data connection waits this long at most for the login of the
// connection whose session it resumed: a login takes a few Box requests.
constexpr int pending_wait_ms = 5000;
constexpr int pending_poll_ms = 50;
constexpr size_t mark_room = 48; // marks are 33 bytes (tls.h)

enum State : int { free_record, starting, logged_in_user, ended };

struct Record {
    int state;
    unsigned char session_length;
    unsigned char user_length;
    char session_mark[mark_room];
    char user_mark[mark_room];
};

// The mapping: this header, then `count` records.
struct Shared {
    pthread_mutex_t mu;
    int count;
    Record *records() { return reinterpret_cast<Record *>(this + 1); }
};
static_assert(sizeof(Shared) % alignof(Record) == 0);

Shared *shared = nullptr;
int own_record = -1;
int next_record = 0; // the listening process's round

void put(char *to, unsigned char &length, const std::string &mark)
{
    length = static_cast<unsigned char>(std::min(mark.size(), mark_room));
    memcpy(to, mark.data(), length);
}

bool same(const char *stored, unsigned char length, const std::string &mark)
{
    return length == mark.size() && length > 0 && memcmp(stored, mark.data(), length) == 0;
}

enum class Owner { unknown, pending, user };

// Who logged in on the control connection whose session mark is `mark`.
Owner owner_of(const std::string &mark, std::string &user)
{
    SharedLock lock(shared->mu);
    for (int i = 0; i < shared->count; ++i) {
        const Record &r = shared->records()[i];
        if (r.state == free_record || !same(r.session_mark, r.session_length, mark))
            continue;
        if (r.state == starting)
            return Owner::pending;
        if (r.state != logged_in_user)
            return Owner::unknown;
        user.assign(r.user_mark, r.user_length);
        return Owner::user;
    }
    return Owner::unknown;
}

Record *own()
{
    return shared != nullptr && own_record >= 0 ? &shared->records()[own_record] : nullptr;
}

// Stores `mark` in one of the marks of this process's record (when it has
// one) and moves the record to `state`, under the lock.
void mark_own(char (Record::*to)[mark_room], unsigned char Record::*length,
              const std::string &mark, State state)
{
    Record *r = own();
    if (r == nullptr)
        return;
    SharedLock lock(shared->mu);
    put(r->*to, r->*length, mark);
    r->state = state;
}

} // namespace

bool open(int records, std::string &err)
{
    size_t size = sizeof(Shared) + sizeof(Record) * static_cast<size_t>(records);
    void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) {
        err = std::string("cannot map the TLS session registry: ") + strerror(errno);
        return false;
    }
    auto *s = static_cast<Shared *>(p); // zeroed: every record free
    int rc = init_shared_mutex(&s->mu);
    if (rc != 0) {
        munmap(p, size);
        err = std::string("cannot set up the TLS session registry: ") + strerror(rc);
        return false;
    }
    s->count = records;
    shared = s;
    return true;
}

int assign(const std::function<bool(int)> &held)
{
    if (shared == nullptr)
        return -1;
    for (int tried = 0; tried < shared->count; ++tried) {
        int i = next_record;
        next_record = (next_record + 1) % shared->count;
        if (held(i))
            continue;
        SharedLock lock(shared->mu);
        shared->records()[i] = Record{};
        return i;
    }
    return -1;
}

void release(int record)
{
    if (shared == nullptr || record < 0)
        return;
    SharedLock lock(shared->mu);
    Record &r = shared->records()[record];
    if (r.state != logged_in_user)
        r.state = ended;
}

void enter(int record)
{
    own_record = record;
}

void started(const std::string &session_mark)
{
    mark_own(&Record::session_mark, &Record::session_length, session_mark, starting);
}

void logged_in(const std::string &user_mark)
{
    mark_own(&Record::user_mark, &Record::user_length, user_mark, logged_in_user);
}

bool admits(const std::string &presented, const std::string &own_mark, const std::string &user,
            int timeout_ms, int cancel_fd)
{
    if (presented.empty())
        return false;
    if (presented == own_mark)
        return true;
    if (user.empty() || shared == nullptr)
        return false;
    long long until = now_ms() + std::min(timeout_ms, pending_wait_ms);
    for (;;) {
        std::string owner;
        Owner o = owner_of(presented, owner);
        if (o == Owner::user)
            return owner == user;
        long long left = until - now_ms();
        if (o != Owner::pending || left <= 0)
            return false;
        pollfd p{cancel_fd, POLLIN, 0};
        int step = static_cast<int>(std::min<long long>(left, pending_poll_ms));
        if (poll(&p, cancel_fd >= 0 ? 1 : 0, step) > 0)
            return false; // cancelled
    }
}

} // namespace tarvex_server::mark_registry
