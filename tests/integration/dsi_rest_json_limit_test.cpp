// The limits on JSON answers: size (announced or streamed), nesting and
// number of values; what is refused is never kept whole, and the limit
// comes from the call or the environment.
#include "dsi_rest_fixture.h"

using namespace dsi_rest_test;

namespace {

class RestJsonLimit : public ServerTest {
protected:
    void TearDown() override
    {
        tarvex_dsi_rest_set_json_limit(0);
        unsetenv("TARVEX_DSI_REST_JSON_LIMIT");
    }
    std::string json_url(const char *shape, size_t n, bool chunked = false)
    {
        return server->url("/json?shape=" + std::string(shape) + "&n=" + std::to_string(n) +
                           (chunked ? "&chunked=1" : ""));
    }
    // libcurl hands the body over in pieces of at most this many bytes.
    static constexpr uint64_t piece = uint64_t{64} * 1024;
};

TEST_F(RestJsonLimit, AnswersWithinTheLimitsParseAndOthersAreRefused)
{
    const size_t limit = size_t{64} * 1024; // 4096 values, an array counting 4
    tarvex_dsi_rest_set_json_limit(limit);
    struct Case {
        const char *shape;
        size_t n;
        bool chunked, fits;
        const char *says = nullptr; // in the refusal
    };
    const Case cases[] = {
        {"string", limit, false, true},
        {"string", limit, true, true},
        {"string", limit + 1, false, false, "announces"}, // refused before its bytes
        {"string", limit + 1, true, false, "is longer than the limit"}, // where it passes it
        {"nest", 65, false, false},
        {"arrays", 3300, false, false}, // 1100 arrays in one: 4404 values
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.shape) + " " + std::to_string(c.n) +
                     (c.chunked ? " chunked" : ""));
        Exchange ex({.url = json_url(c.shape, c.n, c.chunked)});
        if (c.fits) {
            EXPECT_EQ(ex.result, TARVEX_SUCCESS) << ex.message();
            EXPECT_NE(ex.json, nullptr);
            continue;
        }
        EXPECT_EQ(ex.error_type(), TARVEX_DSI_REST_ERROR_TOO_LARGE);
        EXPECT_FALSE(ex.retryable());
        EXPECT_EQ(ex.json, nullptr);
        EXPECT_NE(ex.message().find("TARVEX_DSI_REST_JSON_LIMIT"), std::string::npos);
        if (c.says != nullptr) {
            EXPECT_NE(ex.message().find(c.says), std::string::npos) << ex.message();
        }
        EXPECT_LE(ex.downloaded, limit + piece);
    }
    // The thread's connection still serves the next request.
    EXPECT_EQ(Exchange({.url = server->url("/echo")}).text("method"), "GET");
}

TEST_F(RestJsonLimit, TheEnvironmentSetsTheLimitUnlessACallDid)
{
    struct Case {
        const char *env;
        size_t set, expected;
    };
    const Case cases[] = {
        {"1K", 0, 1024},
        {" 16M ", 0, 16u << 20},
        {"9", 0, 9},
        {"12x", 0, TARVEX_DSI_REST_JSON_LIMIT_DEFAULT}, // not a count: ignored
        {"0", 0, TARVEX_DSI_REST_JSON_LIMIT_DEFAULT},
        {"99999999999999999999", 0, TARVEX_DSI_REST_JSON_LIMIT_DEFAULT},
        {"1K", 5000, 5000}, // a call wins over the environment
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.env);
        setenv("TARVEX_DSI_REST_JSON_LIMIT", c.env, 1);
        tarvex_dsi_rest_set_json_limit(c.set);
        EXPECT_EQ(tarvex_dsi_rest_json_limit(), c.expected);
    }
    tarvex_dsi_rest_set_json_limit(0);
    setenv("TARVEX_DSI_REST_JSON_LIMIT", "1K", 1);
    EXPECT_EQ(Exchange({.url = json_url("string", 2000)}).error_type(),
              TARVEX_DSI_REST_ERROR_TOO_LARGE);
    unsetenv("TARVEX_DSI_REST_JSON_LIMIT");
    EXPECT_EQ(Exchange({.url = json_url("string", 2000)}).result, TARVEX_SUCCESS);
}

} // namespace
