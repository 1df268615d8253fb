/*
 * The change journal of a Box user's sessions in the shared store, so
 * that sessions on other hosts see a change (journal_sources.h).
 *
 * Lookups do not wait for the store: a session looks at most every
 * tarvex_i_box_journal_poll_ms (250 ms), so a busy session pays one round
 * trip (well under a millisecond on a LAN) four times a second at most,
 * an idle one nothing, and a change reaches every host within the
 * interval and a round trip.  A subscriber thread would see changes
 * sooner but would add a thread and a second connection to every session
 * process for a gain no FTP client can tell.
 */
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "journal_sources.h"
#include "session_journal.h"
#include "shared_store.h"

int tarvex_i_box_journal_poll_ms = 250;

namespace {

constexpr const char *key_prefix = "tarvex:box:journal:";
/* A journal nobody wrote to for a day goes; sessions then find no epoch
 * and drop their caches once. */
constexpr const char *keep_ms = "86400000";

/*
 * KEYS[1]: the hash (epoch, gen), KEYS[2]: the list.  ARGV[1]: the epoch
 * of a journal made now, ARGV[2]: the entries kept, ARGV[3]: the expiry,
 * ARGV[4...]: "<host> <writer> <path>" each.  Answers {epoch, gen}.
 */
constexpr const char *publish_script = R"lua(
local epoch = redis.call('HGET', KEYS[1], 'epoch')
if not epoch then
  epoch = ARGV[1]
  redis.call('DEL', KEYS[2])
  redis.call('HSET', KEYS[1], 'epoch', epoch)
  redis.call('HSET', KEYS[1], 'gen', 0)
end
local gen = 0
for i = 4, #ARGV do
  gen = redis.call('HINCRBY', KEYS[1], 'gen', 1)
  redis.call('RPUSH', KEYS[2], gen .. ' ' .. ARGV[i])
end
redis.call('LTRIM', KEYS[2], -tonumber(ARGV[2]), -1)
redis.call('PEXPIRE', KEYS[1], ARGV[3])
redis.call('PEXPIRE', KEYS[2], ARGV[3])
return {epoch, gen}
)lua";

/*
 * KEYS as above.  ARGV[1]: the generation seen, ARGV[2]: the entries
 * kept.  Answers {epoch, gen, entries after the one seen...}, {"", 0}
 * when there is no journal, and no entries when they are more than the
 * list keeps (the caller then knows it has fallen behind).
 */
constexpr const char *look_script = R"lua(
local epoch = redis.call('HGET', KEYS[1], 'epoch')
if not epoch then return {'', 0} end
local gen = tonumber(redis.call('HGET', KEYS[1], 'gen') or '0')
local out = {epoch, gen}
local want = gen - tonumber(ARGV[1])
if want > 0 and want <= tonumber(ARGV[2]) then
  for _, entry in ipairs(redis.call('LRANGE', KEYS[2], -want, -1)) do
    out[#out + 1] = entry
  end
end
return out
)lua";

std::string hex(uint64_t value)
{
    char text[17];
    snprintf(text, sizeof text, "%016" PRIx64, value);
    return text;
}

/* "<gen> <host> <writer> <path>"; false when it is not that. */
bool parse_entry(const std::string &text, uint64_t *generation, tarvex_box_journal_entry *entry)
{
    size_t first = text.find(' ');
    size_t second = first == std::string::npos ? first : text.find(' ', first + 1);
    size_t third = second == std::string::npos ? second : text.find(' ', second + 1);
    if (third == std::string::npos)
        return false;
    char *end = nullptr;
    *generation = strtoull(text.c_str(), &end, 10);
    if (end != text.c_str() + first)
        return false;
    entry->host = strtoull(text.c_str() + first + 1, &end, 16);
    if (end != text.c_str() + second)
        return false;
    entry->writer = strtoull(text.c_str() + second + 1, &end, 16);
    if (end != text.c_str() + third)
        return false;
    entry->path = text.substr(third + 1);
    return !entry->path.empty();
}

uint64_t number(const std::string &text)
{
    return strtoull(text.c_str(), nullptr, 10);
}

} // namespace

tarvex_box_journal_store::tarvex_box_journal_store(std::shared_ptr<tarvex_box_store_s> store,
                                                   const std::string &user, uint64_t host)
    : store_(std::move(store)), meta_key_(key_prefix + user), list_key_(key_prefix + user + ":log"),
      host_(host)
{}

void tarvex_box_journal_store::start()
{
    std::vector<tarvex_box_journal_entry> ignored;
    bool lost = false;
    look(&ignored, &lost, true);
}

void tarvex_box_journal_store::poll(std::vector<tarvex_box_journal_entry> *entries, bool *lost)
{
    const int64_t now = tarvex_time_monotonic_usec();
    if (now < next_look_us_)
        return;
    look(entries, lost, false);
}

void tarvex_box_journal_store::look(std::vector<tarvex_box_journal_entry> *entries, bool *lost,
                                    bool baseline)
{
    next_look_us_ = tarvex_time_monotonic_usec() + (int64_t)tarvex_i_box_journal_poll_ms * 1000;
    if (unsent_)
        publish(0, {});
    std::optional<std::vector<std::string>> answer =
        tarvex_box_store_eval(*store_, look_script, {meta_key_, list_key_},
                              {std::to_string(seen_), std::to_string(kept)});
    /* Away: what happens meanwhile stays in the list for the next look. */
    if (!answer || answer->size() < 2)
        return;
    const std::string &epoch = (*answer)[0];
    const uint64_t generation = number((*answer)[1]);
    const bool same_journal = epoch == epoch_ || (epoch_.empty() && seen_ == 0);
    if (!known_ || !same_journal || generation < seen_ ||
        answer->size() - 2 != generation - seen_) {
        /* At the start only where the journal stands matters; a session
         * that could not see that then, or finds another journal, or one
         * that has gone back or past what the list keeps, cannot tell
         * what it missed. */
        *lost = *lost || !baseline;
        known_ = true;
        epoch_ = epoch;
        seen_ = generation;
        return;
    }
    epoch_ = epoch;
    for (size_t i = 2; i < answer->size(); i++) {
        tarvex_box_journal_entry entry;
        uint64_t entry_generation = 0;
        if (!parse_entry((*answer)[i], &entry_generation, &entry) ||
            entry_generation != seen_ + (i - 1)) {
            *lost = true;
            break;
        }
        if (entry.host != host_)
            entries->push_back(std::move(entry));
    }
    seen_ = generation;
}

void tarvex_box_journal_store::publish(uint64_t writer, const std::vector<std::string> &paths)
{
    std::vector<std::string> args = {hex(tarvex_box_journal_random_id()), std::to_string(kept),
                                     keep_ms};
    /* What could not be sent is not known any more: everything may have
     * changed. */
    if (unsent_)
        args.push_back(hex(host_) + " " + hex(writer) + " *");
    for (const std::string &path : paths)
        args.push_back(hex(host_) + " " + hex(writer) + " " + path);
    if (args.size() == 3)
        return;
    unsent_ = !tarvex_box_store_eval(*store_, publish_script, {meta_key_, list_key_}, args);
}
