// What the server gives an operator to watch: the audit log's lines, the
// metrics table that session processes count into together, and the HTTP
// responder that serves it from the listening process's poll loop.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "audit.h"
#include "metrics.h"
#include "metrics_http.h"

using namespace tarvex_server;

namespace {

// ---- the audit log ----

TEST(AuditLine, FieldsAndReplies)
{
    setenv("TZ", "UTC", 1);
    tzset();
    AuditRecord r;
    r.when = 1741079702; // 2025-03-04 09:15:02 UTC
    r.host = "192.0.2.7";
    r.user = "alice";
    const struct {
        const char *command;
        std::string path, second, reply, line;
    } cases[] = {
        {"MKD", "/reports", "", "257 \"/reports\" created.",
         "MKD /reports - 257 \"/reports\" created."},
        {"RNTO", "/a b.txt", "/c\td.txt", "250 Renamed.",
         "RNTO /a\\x20b.txt /c\\x09d.txt 250 Renamed."},
        // A storage error's lines, joined; the middle ones come indented.
        {"DELE", "/x", "", "550-PATH_NOT_FOUND\r\n No such file.\r\n550 Box-Error: 404\r\n",
         "DELE /x - 550 PATH_NOT_FOUND | No such file. | Box-Error: 404"},
        {"SITE_CHMOD", "/f", "644", "451 Operation failed.\r\n",
         "SITE_CHMOD /f 644 451 Operation failed."},
    };
    for (const auto &c : cases) {
        r.command = c.command;
        r.path = c.path;
        r.second = c.second;
        r.reply = c.reply;
        EXPECT_EQ(audit_line(r), "2025-03-04T09:15:02+0000 192.0.2.7 alice " + c.line + "\n");
    }
    r.reply = "550 " + std::string(5000, 'x');
    std::string line = audit_line(r);
    EXPECT_LT(line.size(), 1200u);
    EXPECT_EQ(line.substr(line.size() - 4), "...\n");
    unsetenv("TZ");
    tzset();
}

// ---- the metrics table ----

// The page's samples: "name{labels}" -> value.
std::map<std::string, double> samples()
{
    std::map<std::string, double> out;
    std::istringstream in(metrics::page());
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        size_t sp = line.rfind(' ');
        out[line.substr(0, sp)] = std::strtod(line.c_str() + sp + 1, nullptr);
    }
    return out;
}

class MetricsTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string err;
        ASSERT_TRUE(metrics::open(err)) << err;
    }
    void TearDown() override { metrics::close_for_tests(); }
};

// What a plug-in reports is taken only as its family has it.
TEST_F(MetricsTable, UnfitReportsAreDropped)
{
    const struct {
        const char *name;
        const char *labels;
        double amount;
        bool observe;
    } cases[] = {
        {"no_such_metric", "", 1, false},
        {"sessions", "", 1, false},                  // the server's own
        {"storage_retries", "", 1, true},            // a counter observed
        {"storage_requests", "GET", 1, false},       // one label value of two
        {"storage_requests", "G\"T 200", 1, false},  // would need escaping
        {"storage_requests", "GET 0123456789012345678901234", 1, false}, // too long
        {"storage_retries", "", -1, false},
    };
    std::string before = metrics::page();
    for (const auto &c : cases)
        EXPECT_FALSE(metrics::report(c.name, c.labels, c.amount, c.observe))
            << c.name << " [" << c.labels << "]";
    EXPECT_EQ(metrics::page(), before);
    EXPECT_TRUE(metrics::report("storage_requests", "DELETE 204", 1, false));
    EXPECT_TRUE(metrics::report("storage_requests", "GET 0", 1, false));
}

TEST_F(MetricsTable, AFullTableDropsNewSeriesAndKeepsCounting)
{
    for (int i = 0; i < 400; ++i)
        metrics::report("storage_requests", ("GET " + std::to_string(i)).c_str(), 1, false);
    std::map<std::string, double> s = samples();
    EXPECT_EQ(s.at("tarvex_storage_requests_total{method=\"GET\",code=\"0\"}"), 1);
    EXPECT_EQ(s.count("tarvex_storage_requests_total{method=\"GET\",code=\"399\"}"), 0u);
}

// ---- HTTP ----

TEST(MetricsHttpResponse, OnlyGetMetrics)
{
    auto page = [] { return std::string("tarvex_x 1\n"); };
    const struct {
        const char *request;
        const char *status;
    } cases[] = {
        {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.0 200 OK\r\n"},
        {"GET /metrics HTTP/1.0\n\n", "HTTP/1.0 200 OK\r\n"},
        {"HEAD /metrics HTTP/1.0\r\n\r\n", "HTTP/1.0 405 Method Not Allowed\r\n"},
        {"GET /metricsx HTTP/1.0\r\n\r\n", "HTTP/1.0 404 Not Found\r\n"},
        {"GET /metrics\r\n\r\n", "HTTP/1.0 400 Bad Request\r\n"},
    };
    for (const auto &c : cases) {
        std::string r = metrics_response(c.request, page);
        EXPECT_EQ(r.substr(0, r.find("\r\n") + 2), c.status) << c.request;
    }
}

// The responder and its clients, driven as the listening process drives it.
class MetricsHttpLoop : public ::testing::Test {
protected:
    void start(int deadline_ms)
    {
        http_ = std::make_unique<MetricsHttp>(deadline_ms);
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
        ASSERT_EQ(listen(fd, 16), 0);
        socklen_t len = sizeof a;
        getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
        addr_ = a;
        http_->listen_on(fd);
    }

    void TearDown() override
    {
        for (int fd : clients_)
            close(fd);
    }

    int client(const std::string &send_first)
    {
        int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        clients_.push_back(fd);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr_), sizeof addr_), 0);
        EXPECT_EQ(send(fd, send_first.data(), send_first.size(), 0),
                  static_cast<ssize_t>(send_first.size()));
        return fd;
    }

    // One turn of the loop.
    void turn()
    {
        std::vector<pollfd> p;
        http_->want(p);
        poll(p.data(), p.size(), 20);
        http_->serve(p, 0, [] { return std::string(300000, '#') + "\n"; });
    }

    // Turns the loop until the responder has ended `fd`: what came first.
    std::string answer(int fd)
    {
        std::string got;
        for (;;) {
            turn();
            char buf[65536];
            ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
            if (n == 0)
                return got;
            if (n > 0)
                got.append(buf, static_cast<size_t>(n));
        }
    }

    static bool still_open(int fd)
    {
        char c;
        return recv(fd, &c, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
    }

    sockaddr_in addr_{};
    std::unique_ptr<MetricsHttp> http_;
    std::vector<int> clients_;
};

// A scraper that stalls holds its own slot only: others are answered
// meanwhile, however long their answers; one that leaves before asking is
// let go; a huge request is refused, and a flood beyond the slots is closed
// unanswered while the clients already in keep theirs.
TEST_F(MetricsHttpLoop, SlowHugeAndTooManyClients)
{
    start(600000);
    int slow = client("GET /metr");
    int silent = client("");
    int gone = client("GET");
    shutdown(gone, SHUT_WR);
    int fast = client("GET /metrics HTTP/1.0\r\n\r\n");
    std::string got = answer(fast);
    EXPECT_EQ(got.substr(0, 17), "HTTP/1.0 200 OK\r\n");
    EXPECT_EQ(got.size() - got.find("\r\n\r\n") - 4, 300001u);
    EXPECT_EQ(answer(gone), "");
    std::string huge = answer(client("GET /metrics HTTP/1.0\r\nX: " + std::string(20000, 'a')));
    EXPECT_EQ(huge.substr(0, 26), "HTTP/1.0 400 Bad Request\r\n");

    std::vector<int> held{slow, silent};
    while (held.size() < static_cast<size_t>(MetricsHttp::max_connections))
        held.push_back(client(""));
    // Taken in: the turn that accepts them comes before the next
    // connection is made.
    turn();
    int extra = client("GET /metrics HTTP/1.0\r\n\r\n");
    EXPECT_EQ(answer(extra), ""); // closed unanswered
    for (int fd : held)
        EXPECT_TRUE(still_open(fd));
}

} // namespace
