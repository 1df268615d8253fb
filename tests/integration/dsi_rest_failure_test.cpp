// Transport failures and their classification; TLS verification.
#include <netinet/in.h>
#include <sys/socket.h>

#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

// A loopback port on which nobody listens.
int closed_port()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr *>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

void *idle_limit(uintptr_t ms)
{
    return reinterpret_cast<void *>(ms);
}

TEST(RestFailure, TransportFailuresAreClassified)
{
    ScriptServer server;
    ASSERT_TRUE(server.running());
    struct Case {
        std::string url;
        uintptr_t idle_ms;
        int type;
        bool retryable;
    };
    const std::vector<Case> cases = {
        {"http://127.0.0.1:" + std::to_string(closed_port()) + "/x", 0,
         TARVEX_DSI_REST_ERROR_TRANSPORT, true},
        {server.url("/drop"), 0, TARVEX_DSI_REST_ERROR_TRANSPORT, true},
        // a body cut short of its Content-Length
        {server.url("/stall?ms=50&after=10"), 0, TARVEX_DSI_REST_ERROR_TRANSPORT, true},
        // stalls before and inside the body, against the idle time-out
        {server.url("/stall?ms=3000"), 300, TARVEX_DSI_REST_ERROR_TIMEOUT, true},
        {server.url("/stall?ms=3000&after=100"), 300, TARVEX_DSI_REST_ERROR_TIMEOUT, true},
        {"ftp://127.0.0.1:1/x", 0, TARVEX_DSI_REST_ERROR_FATAL, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.url);
        Exchange ex;
        make_request(ex, "GET", c.url, {}, {}, {}, {},
                     c.idle_ms ? tarvex_dsi_rest_progress_idle_timeout : nullptr,
                     idle_limit(c.idle_ms));
        ASSERT_NE(ex.result, TARVEX_SUCCESS);
        EXPECT_EQ(ex.error_type(), c.type);
        EXPECT_EQ(ex.retryable(), c.retryable);
        const char *message = tarvex_error_get_message(tarvex_error_peek(ex.result));
        ASSERT_NE(message, nullptr);
        // the URL is named, its query never
        EXPECT_NE(std::string(message).find(url_without_query(c.url)), std::string::npos);
        EXPECT_EQ(std::string(message).find("?"), std::string::npos) << message;
    }
    // After failures the thread's connection cache still works.
    Exchange ok;
    make_request(ok, "GET", server.url("/echo"), {}, {}, {}, {},
                 tarvex_dsi_rest_progress_idle_timeout, idle_limit(300));
    EXPECT_EQ(ok.result, TARVEX_SUCCESS);
    EXPECT_FALSE(tarvex_dsi_rest_error_is_retryable(TARVEX_SUCCESS));
    EXPECT_FALSE(tarvex_dsi_rest_error_is_retryable(TARVEX_FAILURE));
}

TEST(RestFailure, BadArgumentsAreRefused)
{
    Exchange no_url, bad_method, bad_header, bad_length;
    make_request(no_url, "GET", "");
    make_request(bad_method, "GET / HTTP/1.1\r\nX:", "http://127.0.0.1:1/");
    make_request(bad_header, "GET", "http://127.0.0.1:1/", {}, {{"X-A", "1\r\nX-B: 2"}});
    make_request(bad_length, "PUT", "http://127.0.0.1:1/", {}, {{"Content-Length", "12x"}});
    for (Exchange *ex : {&no_url, &bad_method, &bad_header, &bad_length}) {
        EXPECT_EQ(ex->error_type(), TARVEX_DSI_REST_ERROR_ARGUMENT);
        EXPECT_FALSE(ex->retryable());
    }
}

class RestTls : public ::testing::Test {
protected:
    void SetUp() override
    {
        dir_ = make_temp_dir();
        std::string d = dir_;
        std::string cmd =
            "cd " + d +
            " && openssl req -x509 -newkey rsa:2048 -nodes -keyout ca.key -out ca.pem -days 2"
            " -subj /CN=dsi-rest-test-ca >/dev/null 2>&1"
            " && openssl req -newkey rsa:2048 -nodes -keyout server.key -out server.csr"
            " -subj /CN=127.0.0.1 >/dev/null 2>&1"
            " && printf 'subjectAltName=IP:127.0.0.1\\n' > ext.cnf"
            " && openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
            " -out server.pem -days 2 -extfile ext.cnf >/dev/null 2>&1";
        ASSERT_EQ(run_command(cmd), 0);
        server_ = std::make_unique<ScriptServer>(d + "/server.pem", d + "/server.key");
        ASSERT_TRUE(server_->running());
    }
    void TearDown() override
    {
        tarvex_dsi_rest_set_ca_file(nullptr);
        server_.reset();
        std::filesystem::remove_all(dir_);
    }
    std::string dir_;
    std::unique_ptr<ScriptServer> server_;
};

TEST_F(RestTls, VerifiesAgainstTheConfiguredCa)
{
    tarvex_dsi_rest_set_ca_file(nullptr);
    Exchange untrusted;
    make_request(untrusted, "GET", server_->url("/echo"));
    EXPECT_EQ(untrusted.error_type(), TARVEX_DSI_REST_ERROR_FATAL);
    EXPECT_FALSE(untrusted.retryable());

    tarvex_dsi_rest_set_ca_file((dir_ + "/ca.pem").c_str());
    uint64_t before = tarvex_dsi_rest_connections_opened();
    for (int i = 0; i < 3; i++) {
        Exchange ex;
        make_request(ex, "GET", server_->url("/echo"));
        ASSERT_EQ(ex.result, TARVEX_SUCCESS);
        EXPECT_EQ(ex.text("method"), "GET");
    }
    EXPECT_EQ(tarvex_dsi_rest_connections_opened() - before, 1u);

    // Without a configured file, the environment names the CA.
    tarvex_dsi_rest_set_ca_file(nullptr);
    tarvex_dsi_rest_close_connections();
    setenv("TARVEX_DSI_REST_CA_FILE", (dir_ + "/ca.pem").c_str(), 1);
    Exchange from_env;
    make_request(from_env, "GET", server_->url("/echo"));
    unsetenv("TARVEX_DSI_REST_CA_FILE");
    EXPECT_EQ(from_env.result, TARVEX_SUCCESS);
}

} // namespace
