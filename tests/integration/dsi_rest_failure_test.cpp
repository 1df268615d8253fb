// Transport failures and their classification; refused arguments; TLS
// verification.
#include <functional>
#include <new>
#include <stdexcept>

#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestFailure : public ServerTest {};

TEST_F(RestFailure, TransportFailuresAreClassified)
{
    struct Case {
        std::string url;
        uintptr_t idle_ms;
        int type;
    };
    const Case cases[] = {
        {"http://127.0.0.1:1/x", 0, TARVEX_DSI_REST_ERROR_TRANSPORT},     // refused
        {server->url("/stall?ms=0"), 0, TARVEX_DSI_REST_ERROR_TRANSPORT}, // dropped
        // a body cut short of its Content-Length
        {server->url("/stall?ms=50&after=10"), 0, TARVEX_DSI_REST_ERROR_TRANSPORT},
        // stalls before and inside the body, against the idle time-out
        {server->url("/stall?ms=3000"), 300, TARVEX_DSI_REST_ERROR_TIMEOUT},
        {server->url("/stall?ms=3000&after=100"), 300, TARVEX_DSI_REST_ERROR_TIMEOUT},
        {"ftp://127.0.0.1:1/x", 0, TARVEX_DSI_REST_ERROR_FATAL},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.url);
        Exchange ex({.url = c.url, .idle_ms = c.idle_ms});
        EXPECT_EQ(ex.error_type(), c.type);
        EXPECT_EQ(ex.retryable(), c.type != TARVEX_DSI_REST_ERROR_FATAL);
        EXPECT_EQ(ex.completed, ex.result);
    }
    // The message names the URL, never its query; without a credential in
    // the headers (a pre-signed link's own path may be one), its host only.
    const std::string url = server->url("/stall?ms=0&sig=SECRET");
    const std::string path = url.substr(0, url.find('?'));
    const std::string origin = path.substr(0, path.find('/', strlen("http://")));
    for (bool credentialed : {true, false}) {
        SCOPED_TRACE(credentialed);
        Pairs headers;
        if (credentialed)
            headers = {{"Authorization", "Bearer t"}};
        Exchange ex({.url = url, .headers = headers});
        std::string message = tarvex_error_get_message(tarvex_error_peek(ex.result));
        EXPECT_NE(message.find(credentialed ? path : origin), std::string::npos) << message;
        EXPECT_EQ(message.find(credentialed ? "SECRET" : "/stall"), std::string::npos) << message;
    }
    // The thread's connection cache still works after all that.
    EXPECT_EQ(Exchange({.url = server->url("/echo"), .idle_ms = 300}).result, TARVEX_SUCCESS);
    EXPECT_FALSE(tarvex_dsi_rest_error_is_retryable(TARVEX_FAILURE)); // not ours: final
}

TEST_F(RestFailure, BadArgumentsAreRefused)
{
    const Request requests[] = {
        {.method = "GET / HTTP/1.1\r\nX:", .url = "http://127.0.0.1:1/"},
        {.url = "http://127.0.0.1:1/", .headers = {{"X-A", "1\r\nX-B: 2"}}},
        {.method = "PUT", .url = "http://127.0.0.1:1/", .headers = {{"Content-Length", "12x"}}},
    };
    for (const Request &r : requests) {
        Exchange ex(r);
        EXPECT_EQ(ex.error_type(), TARVEX_DSI_REST_ERROR_ARGUMENT) << r.method;
        EXPECT_FALSE(ex.retryable());
    }
}

// A response callback that refuses the answer (the Box plug-in's status
// check does) ends the request with a callback error that names the URL and
// keeps the caller's own error as its cause.
TEST_F(RestFailure, AResponseCallbackThatRefusesFailsTheRequest)
{
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = [](void *, int, const char *,
                                     const tarvex_dsi_rest_key_array_t *) -> tarvex_result_t {
        return tarvex_error_put(TARVEX_ERROR_CONSTRUCT(nullptr, nullptr, 7, "not this answer"));
    };
    std::string url = server->url("/bytes?n=1000");
    tarvex_result_t result =
        tarvex_dsi_rest_request("GET", url.c_str(), nullptr, nullptr, &callbacks);
    const tarvex_object_t *error = tarvex_error_peek(result);
    ASSERT_NE(error, nullptr);
    EXPECT_EQ(tarvex_error_get_type(error), TARVEX_DSI_REST_ERROR_CALLBACK);
    // The message names the server, not the path and query, which may
    // carry what the log must not.
    std::string message = tarvex_error_get_message(error);
    EXPECT_EQ(message.rfind("The response callback failed: http://127.0.0.1:", 0), 0u) << message;
    EXPECT_EQ(message.find("bytes"), std::string::npos) << message;
    const tarvex_object_t *cause = tarvex_error_get_cause(error);
    ASSERT_NE(cause, nullptr);
    EXPECT_EQ(std::string(tarvex_error_get_message(cause)), "not this answer");
    EXPECT_FALSE(tarvex_dsi_rest_error_is_retryable(result));
    tarvex_error_discard(result);

    // A write callback that claims more bytes than its buffer holds is
    // refused before anything reads past the buffer.
    callbacks = {};
    callbacks.data_write_callback = [](void *, char *, size_t room, size_t *written) {
        *written = room + 1;
        return TARVEX_SUCCESS;
    };
    result = tarvex_dsi_rest_request("PUT", url.c_str(), nullptr, nullptr, &callbacks);
    ASSERT_NE(tarvex_error_peek(result), nullptr);
    message = tarvex_error_get_message(tarvex_error_peek(result));
    EXPECT_EQ(message.rfind("The write callback overran its buffer: ", 0), 0u) << message;
    tarvex_error_discard(result);
}

// Which callback throws, and how: each callback of the test below calls
// raise_in() with its own name.
struct Thrower {
    const char *where;
    std::function<void()> raise;
};
const Thrower *thrower = nullptr;

tarvex_result_t raise_in(const std::string &where)
{
    if (where == thrower->where)
        thrower->raise();
    return TARVEX_SUCCESS;
}

// A callback written in C++ may throw: the exception stops at the client's
// edge (it must never unwind through libcurl) and fails the request as a
// callback error, and the thread's connection serves the next request.
TEST_F(RestFailure, ExceptionsFromCallbacksFailTheRequest)
{
    const Thrower throwers[] = {
        {"response", [] { throw std::runtime_error("boom"); }},
        {"read", [] { throw std::bad_alloc(); }},
        {"write", [] { throw std::runtime_error("boom"); }},
        {"progress", [] { throw 42; }},
    };
    for (const Thrower &t : throwers) {
        SCOPED_TRACE(t.where);
        thrower = &t;
        std::string where = t.where;
        tarvex_dsi_rest_callbacks_t callbacks{};
        callbacks.response_callback = [](void *, int, const char *,
                                         const tarvex_dsi_rest_key_array_t *) {
            return raise_in("response");
        };
        callbacks.data_read_callback = [](void *, void *, size_t) { return raise_in("read"); };
        callbacks.data_write_callback = [](void *, char *, size_t, size_t *written) {
            *written = 0;
            return raise_in("write");
        };
        callbacks.progress_callback = [](void *, uint64_t, uint64_t, uint64_t, uint64_t) {
            return raise_in("progress");
        };
        tarvex_result_t result = tarvex_dsi_rest_request(
            "PUT", server->url("/bytes?n=1000").c_str(), nullptr, nullptr, &callbacks);
        const tarvex_object_t *error = tarvex_error_peek(result);
        ASSERT_NE(error, nullptr);
        std::string message = tarvex_error_get_message(error);
        EXPECT_FALSE(tarvex_dsi_rest_error_is_retryable(result));
        if (where == "read") { // out of memory
            EXPECT_EQ(tarvex_error_get_type(error), TARVEX_DSI_REST_ERROR_FATAL);
            EXPECT_EQ(message, "Out of memory in the read callback");
        } else {
            EXPECT_EQ(tarvex_error_get_type(error), TARVEX_DSI_REST_ERROR_CALLBACK);
            EXPECT_EQ(message.rfind("Exception ", 0), 0u) << message;
            EXPECT_NE(message.find("the " + where + " callback"), std::string::npos) << message;
        }
        tarvex_error_discard(result);
        EXPECT_EQ(Exchange({.url = server->url("/echo")}).text("method"), "GET");
    }
}

TEST(RestTls, VerifiesAgainstTheConfiguredCa)
{
    std::string dir = make_temp_dir();
    ASSERT_EQ(std::system(("cd " + dir +
                           " && openssl req -x509 -newkey rsa:2048 -nodes -days 2 -keyout key.pem"
                           " -out cert.pem -subj /CN=127.0.0.1 -addext subjectAltName=IP:127.0.0.1"
                           " >/dev/null 2>&1")
                              .c_str()),
              0);
    ScriptServer server(dir + "/cert.pem", dir + "/key.pem");
    ASSERT_TRUE(server.running());
    Exchange untrusted({.url = server.url("/echo")});
    EXPECT_EQ(untrusted.error_type(), TARVEX_DSI_REST_ERROR_FATAL);

    tarvex_dsi_rest_set_ca_file((dir + "/cert.pem").c_str());
    uint64_t before = tarvex_dsi_rest_connections_opened();
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(Exchange({.url = server.url("/echo")}).text("method"), "GET");
    EXPECT_EQ(tarvex_dsi_rest_connections_opened() - before, 1u);
    tarvex_dsi_rest_set_ca_file(nullptr);
    std::filesystem::remove_all(dir);
}

} // namespace
