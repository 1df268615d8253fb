#include "metrics.h"

#include <pthread.h>
#include <sys/mman.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "shared_mutex.h"
#include "tarvex_gridftp_server.h"

namespace tarvex_server::metrics {

namespace {

enum class Kind { counter, gauge, histogram };

struct Description {
    const char *name;         // as reported; the page adds "tarvex_" (and "_total")
    Kind kind;
    bool plugin;              // reported by the plug-in, not by the server
    double scale;             // stored units per unit: seconds are kept in microseconds
    const char *labels[2];    // label names, nullptr past the last
    const char *help;
};

constexpr double micro = 1e6;

// In the order of Family.
constexpr std::array<Description, static_cast<size_t>(Family::count_)> families = {{
    {"sessions_open", Kind::gauge, false, 1, {}, "Session processes running now."},
    {"sessions", Kind::counter, false, 1, {}, "Connections that were given a session."},
    {"sessions_refused", Kind::counter, false, 1, {},
     "Connections refused with 421 because every session place was taken."},
    {"logins", Kind::counter, false, 1, {"result"},
     "Login attempts by result: ok, failed (name, password or account), storage_failed "
     "(the storage session did not start)."},
    {"transfers", Kind::counter, false, 1, {"direction", "result"},
     "File transfers (RETR, STOR, APPE) by direction and result (complete: answered 226)."},
    {"transfer_bytes", Kind::counter, false, 1, {"direction"},
     "Bytes moved on data connections of file transfers, by direction."},
    {"storage_requests", Kind::counter, true, 1, {"method", "code"},
     "Requests the storage plug-in sent to its service, by method and answer status (0: no "
     "answer)."},
    {"storage_retries", Kind::counter, true, 1, {},
     "Storage requests that were a further attempt of a failed one."},
    {"storage_throttled", Kind::counter, true, 1, {},
     "Storage answers that asked to slow down (HTTP 429)."},
    {"storage_retry_after_seconds", Kind::counter, true, micro, {},
     "Seconds slept because a storage answer said when to try again (Retry-After)."},
    {"storage_pacing_wait_seconds", Kind::histogram, true, micro, {},
     "Seconds each storage request waited for its turn under the request pacing."},
    {"storage_token_renewals", Kind::counter, true, 1, {},
     "Renewals of the storage access token asked for."},
    {"storage_token_renewal_failures", Kind::counter, true, 1, {},
     "Renewals of the storage access token that brought no usable token."},
}};

// Histogram bucket bounds in seconds.  A Box user's pacing spaces requests
// 1/16 s apart by default, and a Retry-After holds a session for seconds:
// the bounds reach from well below the one to well above the other.
constexpr std::array<double, 12> bounds = {0.001, 0.005, 0.01, 0.025, 0.05, 0.1,
                                           0.25,  0.5,   1,    2.5,   5,    10};
constexpr size_t label_room = 64;
constexpr size_t max_label_value = 24;
constexpr int max_series = 256;

static_assert(std::atomic<uint64_t>::is_always_lock_free &&
                  std::atomic<uint32_t>::is_always_lock_free,
              "counters are shared between processes: they must be lock-free");

struct Series {
    std::atomic<uint32_t> ready; // 1 once family and labels are set
    uint32_t family;
    char labels[label_room];     // the label values, space-separated
    std::atomic<uint64_t> value; // scaled: a counter's or gauge's value, a histogram's sum
    std::atomic<uint64_t> buckets[bounds.size() + 1]; // histograms, not cumulative; +Inf last
};

struct Shared {
    pthread_mutex_t mu; // claiming a slot
    Series series[max_series];
};

Shared *shared = nullptr;

const Description &describe(Family f)
{
    return families[static_cast<size_t>(f)];
}

size_t label_count(const Description &d)
{
    return d.labels[1] != nullptr ? 2 : d.labels[0] != nullptr ? 1 : 0;
}

bool matches(const Series &s, Family f, std::string_view labels)
{
    return s.family == static_cast<uint32_t>(f) && labels == s.labels;
}

// The series of `f` with `labels`, claimed when new; nullptr when the
// table is full.  Slots are claimed in order and never given back, so the
// first slot not ready ends the search.
Series *series_of(Family f, std::string_view labels)
{
    int i = 0;
    for (; i < max_series && shared->series[i].ready.load(std::memory_order_acquire); ++i)
        if (matches(shared->series[i], f, labels))
            return &shared->series[i];
    SharedLock lock(shared->mu);
    for (; i < max_series; ++i) {
        Series &s = shared->series[i];
        if (s.ready.load(std::memory_order_acquire)) {
            if (matches(s, f, labels))
                return &s;
            continue;
        }
        s.family = static_cast<uint32_t>(f);
        memcpy(s.labels, labels.data(), labels.size());
        s.labels[labels.size()] = '\0';
        s.ready.store(1, std::memory_order_release);
        return &s;
    }
    return nullptr;
}

uint64_t scaled(const Description &d, double amount)
{
    return static_cast<uint64_t>(std::llround(amount * d.scale));
}

void count(Family f, std::string_view labels, double amount)
{
    if (shared == nullptr || !(amount >= 0) || labels.size() >= label_room)
        return;
    if (Series *s = series_of(f, labels))
        s->value.fetch_add(scaled(describe(f), amount), std::memory_order_relaxed);
}

void observe(Family f, std::string_view labels, double value)
{
    if (shared == nullptr || !(value >= 0) || labels.size() >= label_room)
        return;
    Series *s = series_of(f, labels);
    if (s == nullptr)
        return;
    size_t b = 0;
    while (b < bounds.size() && value > bounds[b])
        ++b;
    s->buckets[b].fetch_add(1, std::memory_order_relaxed);
    s->value.fetch_add(scaled(describe(f), value), std::memory_order_relaxed);
}

// A plug-in's label values: as many as the family has, each short and of
// plain characters, so that they need no escaping and a family cannot grow
// without bound.
bool fit_labels(const Description &d, std::string_view labels)
{
    size_t values = 0;
    size_t length = 0;
    for (char c : labels) {
        if (c == ' ') {
            if (length == 0)
                return false;
            ++values;
            length = 0;
            continue;
        }
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                     strchr("_.:/-", c) != nullptr;
        if (!plain || ++length > max_label_value)
            return false;
    }
    if (length > 0)
        ++values;
    else if (!labels.empty())
        return false;
    return values == label_count(d);
}

// ---- the page ----

std::string number(double v)
{
    char buf[64];
    snprintf(buf, sizeof buf, "%.15g", v);
    return buf;
}

// Whole counts exactly, however large; scaled ones as decimals.
std::string value_text(const Description &d, uint64_t stored)
{
    return d.scale == 1 ? std::to_string(stored) : number(static_cast<double>(stored) / d.scale);
}

std::string label_value(std::string_view v)
{
    std::string out;
    for (char c : v) {
        if (c == '\\' || c == '"')
            out += '\\';
        if (c == '\n') {
            out += "\\n";
            continue;
        }
        out += c;
    }
    return out;
}

// `{a="x",b="y"` (no closing brace, so that "le" can follow), or "" when
// there are neither labels nor `more`.
std::string label_set(const Description &d, std::string_view values, const std::string &more)
{
    std::string out;
    size_t n = label_count(d);
    for (size_t i = 0; i < n; ++i) {
        size_t sp = i + 1 < n ? values.find(' ') : std::string_view::npos;
        std::string_view v = values.substr(0, sp);
        values = sp == std::string_view::npos ? std::string_view() : values.substr(sp + 1);
        out += (out.empty() ? "{" : ",") + std::string(d.labels[i]) + "=\"" + label_value(v) + "\"";
    }
    if (!more.empty())
        out += (out.empty() ? "{" : ",") + more;
    return out;
}

std::string closed(const std::string &set)
{
    return set.empty() ? "" : set + "}";
}

void histogram_lines(std::string &out, const std::string &name, const Description &d,
                     const Series *s)
{
    std::string_view values = s != nullptr ? s->labels : "";
    uint64_t cumulative = 0;
    for (size_t b = 0; b <= bounds.size(); ++b) {
        cumulative += s != nullptr ? s->buckets[b].load(std::memory_order_relaxed) : 0;
        std::string le = b < bounds.size() ? number(bounds[b]) : "+Inf";
        out += name + "_bucket" + closed(label_set(d, values, "le=\"" + le + "\"")) + " " +
               std::to_string(cumulative) + "\n";
    }
    uint64_t sum = s != nullptr ? s->value.load(std::memory_order_relaxed) : 0;
    std::string set = closed(label_set(d, values, ""));
    out += name + "_sum" + set + " " + value_text(d, sum) + "\n";
    // The count is the +Inf bucket's, read above: the two always agree.
    out += name + "_count" + set + " " + std::to_string(cumulative) + "\n";
}

void family_lines(std::string &out, size_t f)
{
    const Description &d = families[f];
    std::string name = std::string("tarvex_") + d.name + (d.kind == Kind::counter ? "_total" : "");
    const char *type = d.kind == Kind::counter ? "counter"
                       : d.kind == Kind::gauge ? "gauge"
                                               : "histogram";
    out += "# HELP " + name + " " + d.help + "\n# TYPE " + name + " " + type + "\n";
    bool shown = false;
    for (const Series &s : shared->series) {
        if (!s.ready.load(std::memory_order_acquire))
            break;
        if (s.family != f)
            continue;
        shown = true;
        if (d.kind == Kind::histogram) {
            histogram_lines(out, name, d, &s);
            continue;
        }
        out += name + closed(label_set(d, s.labels, "")) + " " +
               value_text(d, s.value.load(std::memory_order_relaxed)) + "\n";
    }
    if (shown || label_count(d) > 0)
        return;
    // Not counted yet: 0, so that rules over it have a series from the start.
    if (d.kind == Kind::histogram)
        histogram_lines(out, name, d, nullptr);
    else
        out += name + " 0\n";
}

// The library's sink: the plug-in's reports.
void sink_add(void *, const char *name, const char *labels, double amount)
{
    report(name, labels, amount, false);
}

void sink_observe(void *, const char *name, const char *labels, double value)
{
    report(name, labels, value, true);
}

const tarvex_gfs_metrics_sink_t sink = {sink_add, sink_observe};

} // namespace

bool open(std::string &err)
{
    void *p = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS,
                   -1, 0);
    if (p == MAP_FAILED) {
        err = std::string("cannot map the metrics table: ") + strerror(errno);
        return false;
    }
    auto *s = static_cast<Shared *>(p); // zeroed: every slot free, every count 0
    int rc = init_shared_mutex(&s->mu);
    if (rc != 0) {
        munmap(p, sizeof(Shared));
        err = std::string("cannot set up the metrics table: ") + strerror(rc);
        return false;
    }
    shared = s;
    tarvex_gfs_metrics_set_sink(&sink, nullptr);
    return true;
}

bool enabled()
{
    return shared != nullptr;
}

void add(Family f, const std::string &labels, double amount)
{
    count(f, labels, amount);
}

void set(Family f, double value)
{
    if (shared == nullptr || !(value >= 0))
        return;
    if (Series *s = series_of(f, ""))
        s->value.store(scaled(describe(f), value), std::memory_order_relaxed);
}

bool report(const char *name, const char *labels, double amount, bool as_observation)
{
    if (name == nullptr || labels == nullptr || !(amount >= 0))
        return false;
    for (size_t f = 0; f < families.size(); ++f) {
        const Description &d = families[f];
        if (!d.plugin || strcmp(d.name, name) != 0)
            continue;
        if ((d.kind == Kind::histogram) != as_observation || !fit_labels(d, labels))
            return false;
        if (as_observation)
            observe(static_cast<Family>(f), labels, amount);
        else
            count(static_cast<Family>(f), labels, amount);
        return true;
    }
    return false;
}

std::string page()
{
    std::string out;
    if (shared == nullptr)
        return out;
    for (size_t f = 0; f < families.size(); ++f)
        family_lines(out, f);
    return out;
}

void close_for_tests()
{
    tarvex_gfs_metrics_set_sink(nullptr, nullptr);
    if (shared != nullptr)
        munmap(shared, sizeof(Shared));
    shared = nullptr;
}

} // namespace tarvex_server::metrics
