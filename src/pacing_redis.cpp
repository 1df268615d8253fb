/*
 * Pacing through a Redis server shared by every host of a site, so that a
 * Box user's requests keep their spacing however many hosts the user's
 * sessions land on.  Each pacing state of a user is one key holding the
 * stamp of its last slot, in microseconds of the server's clock (hosts
 * need not agree on the time).  A slot is taken by one script run on the
 * server: the next slot is the spacing after the last one, never now or
 * earlier, and never further ahead than the longest wait; the script
 * stamps it and answers how long to wait.  The process then sleeps that
 * long without holding anything, so hosts queue for slots instead of for
 * a lock.
 *
 * While the server cannot be reached the session paces by its host's
 * files, says so once in the log, and tries the server again at most once
 * every few seconds.  A client's command never fails because of the store.
 *
 * The same connection runs the scripts of the sessions' change journal
 * (shared_store.h, journal_store.cpp).
 */
#include <hiredis/hiredis.h>
#include <openssl/sha.h>
#include <pthread.h>
#include <signal.h>
#include <strings.h>
#include <sys/time.h>

#include <cctype>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <thread>
#include <vector>

#include "config.h"
#include "pacing.h"
#include "shared_store.h"
#include "tarvex_box_raii.h"

namespace {

using steady = std::chrono::steady_clock;

/* Redis answers on a LAN in well under a millisecond.  A server that does
 * not answer within a second is as good as away; the cost of finding that
 * out falls on one request per retry interval. */
constexpr struct timeval connect_timeout = {1, 0};
constexpr struct timeval reply_timeout = {1, 0};
constexpr std::chrono::seconds retry_interval(3);

constexpr const char *key_prefix = "tarvex:box:pacing:";

/*
 * KEYS[1]: the pacing key.  ARGV[1]: the spacing, ARGV[2]: the longest
 * wait, both in microseconds.  Answers {wait, stamp} in microseconds.
 *
 * Numbers are Lua doubles: exact for microseconds since 1970 (2^53 is far
 * off), but printed as "1.7e+15" by default, so the stamp is formatted
 * explicitly.  A stamp further ahead than the longest wait cannot have
 * come from this script with a steady clock: the server's clock went back,
 * and the stamp is ignored rather than hold everyone for that long.  Once
 * its slot is a spacing past, a stamp no longer holds anyone back; the key
 * stays a minute more, so that a user who is busy keeps one key rather
 * than making it anew, and then goes.
 */
constexpr const char *slot_script = R"lua(
if redis.replicate_commands then redis.replicate_commands() end
local time = redis.call('TIME')
local now = tonumber(time[1]) * 1000000 + tonumber(time[2])
local spacing = tonumber(ARGV[1])
local longest = tonumber(ARGV[2])
local slot = now
local last = tonumber(redis.call('GET', KEYS[1]))
if last and last <= now + longest and last + spacing > now then
  slot = math.min(last + spacing, now + longest)
end
local keep = math.floor((slot - now + spacing) / 1000) + 60000
redis.call('SET', KEYS[1], string.format('%.0f', slot), 'PX', string.format('%.0f', keep))
return {slot - now, slot}
)lua";

/* ---- the store's address ---- */

struct store_address {
    std::string host; /* as given, brackets of an IPv6 address removed */
    int port = 6379;
    long db = 0;
    std::string user; /* empty: the default user */
    std::string password; /* empty: no AUTH */

    /* For the log: never the password. */
    std::string text() const
    {
        std::string shown = host.find(':') != std::string::npos ? "[" + host + "]" : host;
        return "redis://" + shown + ":" + std::to_string(port) + "/" + std::to_string(db);
    }
    bool operator==(const store_address &) const = default;
};

bool all_digits(const std::string &text)
{
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    c = (char)(c | 0x20);
    return c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
}

/* %XX decoding of a user name or password; nothing for a bad escape or a
 * NUL, which no AUTH could carry. */
std::optional<std::string> percent_decoded(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != '%') {
            out += text[i];
            continue;
        }
        int high = i + 2 < text.size() ? hex_digit(text[i + 1]) : -1;
        int low = i + 2 < text.size() ? hex_digit(text[i + 2]) : -1;
        if (high < 0 || low < 0 || (high == 0 && low == 0))
            return std::nullopt;
        out += (char)(high * 16 + low);
        i += 2;
    }
    return out;
}

/* What a host may be: a name or IPv4 address, or an IPv6 address in
 * brackets.  Anything else is a typing error, not a host. */
bool plausible_host(const std::string &host, bool bracketed)
{
    const char *allowed = bracketed ? "0123456789abcdefABCDEF:." : nullptr;
    if (host.empty())
        return false;
    for (char c : host) {
        bool ok = allowed != nullptr ? strchr(allowed, c) != nullptr
                                     : (isalnum((unsigned char)c) || c == '.' || c == '-');
        if (!ok)
            return false;
    }
    return true;
}

/* "redis://[[user]:password@]host[:port][/db]"; the reason when not. */
std::optional<store_address> parse_address(const std::string &url, std::string *why)
{
    constexpr std::string_view scheme = "redis://";
    if (strncasecmp(url.c_str(), "rediss://", 9) == 0) {
        *why = "TLS (rediss://) is not available: this build's hiredis has no TLS";
        return std::nullopt;
    }
    if (strncasecmp(url.c_str(), scheme.data(), scheme.size()) != 0) {
        *why = "it must be a URL such as \"redis://127.0.0.1:6379/0\"";
        return std::nullopt;
    }
    std::string rest = url.substr(scheme.size());
    if (rest.find_first_of("?#") != std::string::npos) {
        *why = "the URL takes no options (\"?\" or \"#\")";
        return std::nullopt;
    }
    size_t slash = rest.find('/');
    std::string authority = rest.substr(0, slash);
    std::string path = slash == std::string::npos ? "" : rest.substr(slash + 1);

    store_address address;
    size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        std::string userinfo = authority.substr(0, at);
        authority = authority.substr(at + 1);
        size_t colon = userinfo.find(':');
        if (colon == std::string::npos) {
            *why = "a user name needs a password (user:password@ or :password@)";
            return std::nullopt;
        }
        std::optional<std::string> user = percent_decoded(userinfo.substr(0, colon));
        std::optional<std::string> password = percent_decoded(userinfo.substr(colon + 1));
        if (!user || !password || password->empty()) {
            *why = "the password is empty or badly escaped";
            return std::nullopt;
        }
        address.user = *user;
        address.password = *password;
    }

    /* The host ends where its port begins: after the "]" of an IPv6
     * address, else at the first ":". */
    bool bracketed = !authority.empty() && authority[0] == '[';
    size_t host_end = bracketed ? authority.find(']') : authority.find(':');
    if (bracketed && host_end == std::string::npos) {
        *why = "an IPv6 address needs its closing \"]\"";
        return std::nullopt;
    }
    address.host = bracketed ? authority.substr(1, host_end - 1) : authority.substr(0, host_end);
    std::string after =
        host_end == std::string::npos ? "" : authority.substr(host_end + (bracketed ? 1 : 0));
    if (!plausible_host(address.host, bracketed) || (!after.empty() && after[0] != ':')) {
        *why = "the host is missing or not understood";
        return std::nullopt;
    }
    if (!after.empty()) {
        std::string port = after.substr(1);
        if (!all_digits(port) || port.size() > 5 || std::stol(port) < 1 ||
            std::stol(port) > 65535) {
            *why = "the port must be a number from 1 to 65535";
            return std::nullopt;
        }
        address.port = (int)std::stol(port);
    }
    if (!path.empty()) {
        if (!all_digits(path) || path.size() > 9) {
            *why = "the database must be a number (\"/0\")";
            return std::nullopt;
        }
        address.db = std::stol(path);
    }
    return address;
}

/* ---- the connection ---- */

using reply_ptr = std::unique_ptr<redisReply, tarvex_box_releaser<freeReplyObject>>;
using context_ptr = std::unique_ptr<redisContext, tarvex_box_releaser<redisFree>>;

/*
 * hiredis writes with write(2): a server that went away makes it raise
 * SIGPIPE, which would end a process that has not ignored it.  The signal
 * is blocked on this thread around a command and one it caused is taken
 * before the mask comes back; one that was pending already is left be.
 */
class sigpipe_guard {
public:
    sigpipe_guard()
    {
        sigemptyset(&pipe_);
        sigaddset(&pipe_, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        pending_before_ = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipe_, &saved_);
    }
    ~sigpipe_guard()
    {
        sigset_t pending;
        if (!pending_before_ && sigpending(&pending) == 0 &&
            sigismember(&pending, SIGPIPE) == 1) {
            const struct timespec now = {0, 0};
            sigtimedwait(&pipe_, nullptr, &now);
        }
        pthread_sigmask(SIG_SETMASK, &saved_, nullptr);
    }
    sigpipe_guard(const sigpipe_guard &) = delete;
    sigpipe_guard &operator=(const sigpipe_guard &) = delete;

private:
    sigset_t pipe_, saved_;
    bool pending_before_ = false;
};

/* The wait before a slot and its stamp, as the server answered them. */
struct store_slot {
    int64_t wait_us;
    int64_t stamp_us;
};

/*
 * One connection to the store, shared by the pacing states of a process.
 * Commands go one at a time (hiredis contexts are not for several
 * threads); the wait for a slot happens outside.
 */
class redis_link {
public:
    explicit redis_link(store_address address) : address_(std::move(address)) {}
    const store_address &address() const { return address_; }

    /* The slot for `key`, or none when the store cannot be asked now. */
    std::optional<store_slot> take(const std::string &key, unsigned spacing_us,
                                   int64_t longest_us)
    {
        std::lock_guard<std::mutex> guard(lock_);
        sigpipe_guard no_sigpipe;
        if (context_ == nullptr && !connect())
            return std::nullopt;
        const std::string spacing = std::to_string(spacing_us);
        const std::string longest = std::to_string(longest_us);
        reply_ptr reply = command({"EVALSHA", script_sha_, "1", key, spacing, longest});
        /* A flushed script cache: send the script itself, which caches it
         * again. */
        if (unknown_script(reply.get()))
            reply = command({"EVAL", slot_script, "1", key, spacing, longest});
        std::optional<store_slot> slot = read_slot(reply.get(), longest_us);
        if (!slot)
            give_up_on(reply.get(), "an answer that is not a slot");
        return slot;
    }

    /* Runs a script by its digest, then by its text when the store does
     * not know it; the answer's elements as text, or none. */
    std::optional<std::vector<std::string>> eval(const std::string &script,
                                                 const std::string &digest,
                                                 const std::vector<std::string> &keys,
                                                 const std::vector<std::string> &args)
    {
        std::lock_guard<std::mutex> guard(lock_);
        sigpipe_guard no_sigpipe;
        if (context_ == nullptr && !connect())
            return std::nullopt;
        std::vector<std::string> words = {"EVALSHA", digest, std::to_string(keys.size())};
        words.insert(words.end(), keys.begin(), keys.end());
        words.insert(words.end(), args.begin(), args.end());
        reply_ptr reply = command(words);
        if (unknown_script(reply.get())) {
            words[0] = "EVAL";
            words[1] = script;
            reply = command(words);
        }
        if (reply != nullptr && reply->type == REDIS_REPLY_ARRAY)
            return array_text(reply.get());
        give_up_on(reply.get(), "an answer that is not an array");
        return std::nullopt;
    }

private:
    static std::vector<std::string> array_text(const redisReply *reply)
    {
        std::vector<std::string> text;
        for (size_t i = 0; i < reply->elements; i++) {
            const redisReply *element = reply->element[i];
            if (element->type == REDIS_REPLY_INTEGER)
                text.push_back(std::to_string(element->integer));
            else if (element->type == REDIS_REPLY_STRING || element->type == REDIS_REPLY_STATUS)
                text.emplace_back(element->str, element->len);
            else
                text.emplace_back();
        }
        return text;
    }

    reply_ptr command(const std::vector<std::string> &words)
    {
        std::vector<const char *> argv;
        std::vector<size_t> lengths;
        for (const std::string &word : words) {
            argv.push_back(word.data());
            lengths.push_back(word.size());
        }
        return reply_ptr(static_cast<redisReply *>(
            redisCommandArgv(context_.get(), (int)argv.size(), argv.data(), lengths.data())));
    }

    /* A command of the set-up, whose answer must not be an error; none,
     * and the reason in `why`, when it is. */
    reply_ptr setup_command(const std::vector<std::string> &words, std::string *why)
    {
        reply_ptr reply = command(words);
        if (reply == nullptr)
            *why = context_->errstr;
        else if (reply->type == REDIS_REPLY_ERROR)
            *why = words[0] + ": " + std::string(reply->str, reply->len);
        else
            return reply;
        return nullptr;
    }

    static std::optional<store_slot> read_slot(const redisReply *reply, int64_t longest_us)
    {
        if (reply == nullptr || reply->type != REDIS_REPLY_ARRAY || reply->elements != 2 ||
            reply->element[0]->type != REDIS_REPLY_INTEGER ||
            reply->element[1]->type != REDIS_REPLY_INTEGER)
            return std::nullopt;
        store_slot slot = {reply->element[0]->integer, reply->element[1]->integer};
        if (slot.wait_us < 0 || slot.wait_us > longest_us || slot.stamp_us <= 0)
            return std::nullopt;
        return slot;
    }

    /* Connects, logs in, picks the database and loads the script; at most
     * once per retry interval after a failure. */
    bool connect()
    {
        if (steady::now() < next_attempt_)
            return false;
        context_.reset(
            redisConnectWithTimeout(address_.host.c_str(), address_.port, connect_timeout));
        if (context_ == nullptr) {
            give_up("out of memory");
            return false;
        }
        if (context_->err != 0) {
            give_up(context_->errstr);
            return false;
        }
        std::string why;
        if (!set_up(&why)) {
            give_up(why);
            return false;
        }
        if (away_)
            TARVEX_BOX_LOG(TARVEX_BOX_INFO, "pacing store %s answers again\n",
                           address_.text().c_str());
        away_ = false;
        return true;
    }

    bool set_up(std::string *why)
    {
        if (redisSetTimeout(context_.get(), reply_timeout) != REDIS_OK) {
            *why = context_->errstr;
            return false;
        }
        if (!address_.password.empty()) {
            std::vector<std::string> auth = {"AUTH", address_.password};
            if (!address_.user.empty())
                auth.insert(auth.begin() + 1, address_.user);
            if (setup_command(auth, why) == nullptr)
                return false;
        }
        if (address_.db != 0 &&
            setup_command({"SELECT", std::to_string(address_.db)}, why) == nullptr)
            return false;
        reply_ptr sha = setup_command({"SCRIPT", "LOAD", slot_script}, why);
        if (sha == nullptr)
            return false;
        if (sha->type != REDIS_REPLY_STRING) {
            *why = "SCRIPT LOAD: an answer that is not a digest";
            return false;
        }
        script_sha_.assign(sha->str, sha->len);
        return true;
    }

    /* Drops the connection; the first failure of an outage is logged. */
    /* A store that does not know a script by its digest (yet). */
    static bool unknown_script(const redisReply *reply)
    {
        return reply != nullptr && reply->type == REDIS_REPLY_ERROR &&
               strncmp(reply->str, "NOSCRIPT", 8) == 0;
    }

    /* Gives up after an unusable answer: no answer (the connection's
     * error), an error answer (its text), or `otherwise`. */
    void give_up_on(const redisReply *reply, const char *otherwise)
    {
        if (reply == nullptr)
            give_up(context_->errstr);
        else if (reply->type == REDIS_REPLY_ERROR)
            give_up(std::string(reply->str, reply->len));
        else
            give_up(otherwise);
    }

    void give_up(const std::string &why)
    {
        if (!away_)
            TARVEX_BOX_LOG(TARVEX_BOX_WARN,
                           "pacing store %s cannot be used (%s): pacing by this host's "
                           "files until it answers again\n",
                           address_.text().c_str(), why.c_str());
        away_ = true;
        context_.reset();
        next_attempt_ = steady::now() + retry_interval;
    }

    const store_address address_;
    std::mutex lock_;
    context_ptr context_;
    std::string script_sha_;
    steady::time_point next_attempt_{};
    bool away_ = false;
};

/* ---- the pacer ---- */

class redis_pacing final : public tarvex_box_pacing_s {
public:
    redis_pacing(std::shared_ptr<redis_link> link, std::string key)
        : link_(std::move(link)), key_(std::move(key))
    {
    }

    tarvex_box_pacing_slot_t take_slot(tarvex_box_retry_t *retry) override
    {
        std::optional<store_slot> slot;
        try {
            int64_t longest_us = tarvex_i_box_max_delay > 0
                                     ? (int64_t)tarvex_i_box_max_delay * 1000000
                                     : 0;
            slot = link_->take(key_, retry->delay, longest_us);
        } catch (...) {
            /* Out of memory: the file does without. */
        }
        if (!slot)
            return tarvex_box_file_pacing().take_slot(retry);
        if (slot->wait_us > 0) {
            std::this_thread::sleep_for(std::chrono::microseconds(slot->wait_us));
            TARVEX_BOX_LOG(tarvex_box_pacing_debug_level(), "sleep=%lld store\n",
                           (long long)slot->wait_us);
        }
        return {tarvex_box_pacing_slot_t::store, slot->stamp_us, slot->wait_us};
    }

private:
    std::shared_ptr<redis_link> link_;
    std::string key_;
};

/* The store the policy names, and the link of the states open on it: the
 * two states of a session share one connection. */
struct store_setting {
    std::mutex lock;
    std::optional<store_address> address;
    std::weak_ptr<redis_link> link;
};

store_setting &the_store()
{
    static store_setting instance;
    return instance;
}

} // namespace

bool tarvex_box_pacing_store_configure(const char *url, std::string *why)
{
    std::optional<store_address> address;
    if (url != nullptr)
        address = parse_address(url, why);
    store_setting &store = the_store();
    std::lock_guard<std::mutex> guard(store.lock);
    store.address = std::move(address);
    return url == nullptr || store.address.has_value();
}

namespace {

/* The link to the configured store, shared by whatever is open on it;
 * null when no store is configured. */
std::shared_ptr<redis_link> store_link()
{
    store_setting &store = the_store();
    std::lock_guard<std::mutex> guard(store.lock);
    if (!store.address)
        return nullptr;
    std::shared_ptr<redis_link> link = store.link.lock();
    if (link == nullptr || !(link->address() == *store.address)) {
        link = std::make_shared<redis_link>(*store.address);
        store.link = link;
    }
    return link;
}

std::string hex_sha1(const std::string &text)
{
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest);
    static const char digits[] = "0123456789abcdef";
    std::string hex;
    for (unsigned char byte : digest) {
        hex += digits[byte >> 4];
        hex += digits[byte & 15];
    }
    return hex;
}

} // namespace

tarvex_box_pacing_s *tarvex_box_pacing_store_open(const char *name)
{
    std::shared_ptr<redis_link> link = store_link();
    if (link == nullptr)
        return nullptr;
    return new redis_pacing(link, key_prefix + std::string(name));
}

struct tarvex_box_store_s {
    std::shared_ptr<redis_link> link;
};

std::shared_ptr<tarvex_box_store_s> tarvex_box_store_open()
{
    std::shared_ptr<redis_link> link = store_link();
    if (link == nullptr)
        return nullptr;
    return std::make_shared<tarvex_box_store_s>(tarvex_box_store_s{std::move(link)});
}

std::optional<std::vector<std::string>> tarvex_box_store_eval(
    tarvex_box_store_s &store, const std::string &script, const std::vector<std::string> &keys,
    const std::vector<std::string> &args)
{
    return store.link->eval(script, hex_sha1(script), keys, args);
}
