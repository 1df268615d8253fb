// One data transfer: the data connection and the thread that serves the
// plug-in's registered reads and writes on it.
//
// The plug-in registers buffers from its own thread; a single data thread
// takes them in the order they were registered (stream mode sends bytes in
// file order, which is also the order a plug-in that asks for ordered data
// registers them), performs the I/O and runs the completion callback.  A
// callback never runs inside the register call.  Every registered buffer
// gets exactly one completion: after an abort or a failure the rest complete
// with an error and no I/O.
//
// A store's data is read ahead into a buffer of the transfer's own while
// the plug-in has no read registered (see read_ahead()).
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "conn.h"
#include "data_channel.h"
#include "line_ends.h"
#include "tarvex_gridftp_server.h"

namespace tarvex_server {

struct TransferParams {
    std::string what;            // for the 150 reply: "RETR /a/b", "LIST /"
    std::string announce;        // the 150 reply's text instead (STOU's "FILE: name")
    bool ascii = false;          // TYPE A: line ends converted (line_ends.h)
    SSL_CTX *tls = nullptr;      // PROT P: TLS on the data connection
    // The marks of the session (tls.h): a protected data connection must
    // resume a TLS session of its control connection (RFC 4217's
    // practice), which only the client that holds the control connection
    // can, or one of another control connection of the same user
    // (mark_registry.h).
    std::string tls_session_mark;
    std::string tls_user_mark;
    bool tls_require_resume = true;
    // A store over TLS whose data end without close_notify fails (426)
    // instead of ending the file there.
    bool tls_strict_eof = false;
    int io_timeout_ms = 900000;
    tarvex_off_t range_offset = 0; // REST offset
    tarvex_off_t range_length = -1;
    std::function<bool(int, const std::string &)> send_reply; // control replies
    std::function<void()> notify;                         // wakes the session
    std::function<void(const std::string &)> refused;     // a data connection turned away
};

class Transfer {
public:
    Transfer(DataSetup &setup, TransferParams params);
    ~Transfer();

    // ---- plug-in side (its thread) ----
    // Sends the 150 reply and opens the data connection; with `serve` a data
    // thread is started for registered reads and writes.  Idempotent.
    void begin(bool with_thread);
    void read_range(tarvex_off_t *offset, tarvex_off_t *length);
    void write_range(tarvex_off_t *offset, tarvex_off_t *length);
    tarvex_result_t register_write(tarvex_gfs_operation_t op, tarvex_byte_t *buf, tarvex_size_t len,
                                   tarvex_gridftp_server_write_cb_t cb, void *arg);
    tarvex_result_t register_read(tarvex_gfs_operation_t op, tarvex_byte_t *buf, tarvex_size_t len,
                                  tarvex_gridftp_server_read_cb_t cb, void *arg);
    // Listings write their text directly from the plug-in's thread.
    bool write_text(const std::string &text);
    // No more registrations will come: the data thread drains and ends.
    void plugin_finished();

    // ---- control side ----
    void abort();                 // ABOR, or the client went away
    bool done() const;            // the data thread has ended (or never ran)
    // Joins the data thread and closes the connection (orderly on success).
    void close(bool orderly);

    bool began() const { return began_; }
    // The 150 reply is out: from now on replies to NOOP and STAT cannot
    // overtake it.
    bool announced() const { return announced_; }
    bool aborted() const { return aborted_; }
    // Non-empty when the data connection failed: the reply to give.
    std::string failure() const;
    long long bytes() const { return bytes_; }
    // A store's data ended without TLS close_notify (Conn::end_unconfirmed()).
    bool end_unconfirmed() const { return end_unconfirmed_; }
    const std::string &what() const { return p_.what; }

private:
    struct Request {
        bool is_write;
        tarvex_gfs_operation_t op;
        tarvex_byte_t *buf;
        tarvex_size_t len;
        tarvex_gridftp_server_write_cb_t wcb;
        tarvex_gridftp_server_read_cb_t rcb;
        void *arg;
    };
    void serve();
    bool secure(Conn &c, int timeout_ms, std::string &why);
    bool may_read_ahead() const;
    void read_ahead();
    tarvex_size_t take_ahead(tarvex_byte_t *buf, tarvex_size_t len);
    void serve_read(const Request &r);
    void serve_read_ascii(const Request &r);
    bool write_file_data(const Request &r);
    void await_end(const Request &r);
    void complete(const Request &r, bool ok, tarvex_size_t n, tarvex_off_t offset, bool eof);
    bool take_end();
    void fail(const std::string &reply);
    bool usable();
    // Queues a plug-in's buffer for the data thread, or says why it cannot.
    tarvex_result_t enqueue(const Request &r);

    DataSetup &setup_;
    TransferParams p_;
    std::unique_ptr<Conn> conn_;
    int cancel_fd_ = -1;
    int wake_fd_ = -1; // a registration or the plug-in's end, for read-ahead

    mutable std::mutex mu_;
    std::condition_variable cv_;
    std::deque<Request> queue_;
    bool finished_ = false;
    bool serving_ = false;
    bool thread_done_ = false;
    std::string failure_;
    std::thread thread_;

    std::atomic<bool> began_{false};
    std::atomic<bool> announced_{false};
    std::atomic<bool> aborted_{false};
    std::atomic<long long> bytes_{0};
    bool read_range_given_ = false;
    bool eof_ = false;
    std::atomic<bool> end_unconfirmed_{false};
    tarvex_off_t stream_offset_ = 0;

    // Data thread only: the client's data read ahead, [ahead_begin_,
    // ahead_end_) of ahead_, and how the read-ahead ended when it failed.
    bool receiving_ = false;
    std::unique_ptr<tarvex_byte_t[]> ahead_;
    size_t ahead_begin_ = 0;
    size_t ahead_end_ = 0;
    Io ahead_io_ = Io::ok;

    // Data thread only, TYPE A: the line-end converters, and converted
    // data of a store not yet handed to the plug-in.
    CrlfToLf from_wire_;
    LfToCrlf to_wire_;
    std::string ascii_in_;
};

// An error result for a data-connection failure.
tarvex_result_t data_error(const char *what);

} // namespace tarvex_server
