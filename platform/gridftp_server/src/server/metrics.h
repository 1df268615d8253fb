// The server's metrics (--metrics-listen): counts of every session process,
// served by the listening process in Prometheus's text format.
//
// Sessions are processes of their own (listener.h), so what they count must
// land where the listening process reads it: a table in memory the
// listening process maps before it forks (shared, anonymous), with a series
// per metric and label values, each number a lock-free atomic that any
// process adds to.  Only the first report of a new series takes the
// table's lock (a robust process-shared mutex, as in mark_registry.h), to
// claim a free slot; a session killed while holding it leaves the table
// whole, since a slot is published only once it is filled.
//
// The plug-in reports through the library's metric calls
// (tarvex_gridftp_server_metric_add/observe); open() makes them count here.
// Without open() every call below does nothing.
#pragma once

#include <string>

namespace tarvex_server::metrics {

// The families, in the order the page lists them.
enum class Family {
    sessions_open,          // gauge: session processes running
    sessions,               // connections that got a session
    sessions_refused,       // connections refused for want of a place
    logins,                 // labels result: ok, failed, storage_failed
    transfers,              // labels direction (download, upload), result
    transfer_bytes,         // labels direction
    storage_requests,       // the plug-in's, as the library's header names them
    storage_retries,
    storage_throttled,
    storage_retry_after_seconds,
    storage_pacing_wait_seconds,
    storage_token_renewals,
    storage_token_renewal_failures,
    count_
};

// ---- the listening process, before any session process exists ----
// Maps the table and sets the library's sink; false with `err`.
bool open(std::string &err);
bool enabled();

// ---- any process ----
// Adds `amount` to a counter; `labels` are the label values separated by a
// space, as many as the family has (see Family).  Sets a gauge.
void add(Family f, const std::string &labels, double amount = 1);
void set(Family f, double value);
// A report by name, as the plug-in makes it: false when it was dropped
// (an unknown name, a family that is not the plug-in's or not of that
// kind, unfit label values, a negative amount).
bool report(const char *name, const char *labels, double amount, bool observe);

// The exposition: text format 0.0.4, every family with HELP and TYPE, and
// the families without labels shown at 0 before their first count.
std::string page();

// Tests: forgets the table (unmaps it) and the library's sink.
void close_for_tests();

} // namespace tarvex_server::metrics
