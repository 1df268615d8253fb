/*
 * Every Box request is one attempt of its call: a connection that Box
 * drops costs an attempt (the REST client never sends a request again by
 * itself), each attempt is paced, and a call makes at most its budget of
 * requests: two for a listing and for making a folder, one for an upload
 * in a single request.
 */
#include <jansson.h>

#include <chrono>

#include "box_session_support.h"

namespace box_session_test {
namespace {

using tarvex_test::event_kind;

/* One request as the emulator logged it, with the wall-clock time it
 * arrived. */
struct arrival {
    std::string method, path;
    int status = 0; /* 0: dropped */
    double time = 0;
};

/* The emulator's requests since the last call, with their times (the
 * emulator logs a request before it answers or drops it). */
std::vector<arrival> take_arrivals()
{
    std::vector<arrival> out;
    json_t *log = json_loads(emulator().control("GET", "/_emulator/log").c_str(), 0, nullptr);
    size_t index;
    json_t *entry;
    json_array_foreach(log, index, entry) {
        out.push_back({json_string_value(json_object_get(entry, "method")),
                       json_string_value(json_object_get(entry, "path")),
                       int(json_integer_value(json_object_get(entry, "status"))),
                       json_number_value(json_object_get(entry, "time"))});
    }
    json_decref(log);
    emulator().clear_log();
    return out;
}

double wall_clock()
{
    using namespace std::chrono;
    return duration<double>(system_clock::now().time_since_epoch()).count();
}

class attempt_budget_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        ids_ = seed(R"([{"path":"/d/a.txt","content":"alpha"}])");
        ASSERT_NE(start(), nullptr);
        /* The root's listing at the start left a kept-alive connection:
         * the first request of each test goes out on a reused one. */
        take_requests();
    }

    /* The next `count` requests of `method` on `path_regex` are dropped
     * (read whole, then the connection closed without an answer). */
    static void drop(const std::string &method, const std::string &path_regex, int count)
    {
        emulator().fault(R"({"method":")" + method + R"(","path_regex":")" + path_regex +
                         R"(","count":)" + std::to_string(count) + R"(,"drop":true})");
    }

    /* Forgets the last pacing stamp, so that the next attempt waits for
     * nobody and starts at once: whatever comes after it is spaced by the
     * attempts of the call under test alone. */
    double start_unpaced()
    {
        session_->user_retry.shared->last.tv_sec = 0;
        session_->user_retry.shared->last.tv_nsec = 0;
        return wall_clock();
    }

    /* The spacing of the API pacing state, in seconds. */
    double spacing() const { return session_->user_retry.delay / 1e6; }

    /* Every attempt after the first is stamped at least the spacing after
     * the one before, and goes out after its stamp; the first is stamped
     * after `started`.  So request i arrives no earlier than `started` +
     * i spacings (less 1 ms for the microsecond stamps). */
    void expect_paced(const std::vector<arrival> &sent, double started) const
    {
        for (size_t i = 1; i < sent.size(); i++)
            EXPECT_GE(sent[i].time - started, double(i) * spacing() - 0.001) << "request " << i;
    }

    std::map<std::string, std::string> ids_;
};

TEST_F(attempt_budget_test, AListingDroppedTwiceMakesTwoPacedRequestsAndFails)
{
    const std::string items = "/2.0/folders/" + ids_["/d"] + "/items";
    drop("GET", "^" + items + "$", 2);
    double started = start_unpaced();
    EXPECT_NE(take_reply(tarvex_box_path_resolve(session_, "/d/a.txt", nullptr, nullptr)), "");
    auto sent = take_arrivals();
    ASSERT_EQ(sent.size(), 2u);
    for (const arrival &a : sent) {
        EXPECT_EQ(a.method + " " + a.path, "GET " + items);
        EXPECT_EQ(a.status, 0);
    }
    expect_paced(sent, started);

    /* The drops used up, the same resolution lists once and succeeds. */
    EXPECT_EQ(take_reply(tarvex_box_path_resolve(session_, "/d/a.txt", nullptr, nullptr)), "");
    EXPECT_EQ(take_arrivals().size(), 1u);
}

TEST_F(attempt_budget_test, AFolderCreationIsSentAtMostTwice)
{
    ASSERT_EQ(take_reply(tarvex_box_path_resolve(session_, "/d/a.txt", nullptr, nullptr)), "");
    struct {
        int drops;
        bool created;
    } rows[] = {{1, true}, {2, false}};
    for (const auto &r : rows) {
        SCOPED_TRACE(r.drops);
        std::string path = "/d/m" + std::to_string(r.drops);
        take_arrivals();
        drop("POST", "^/2.0/folders$", r.drops);
        tarvex_gfs_command_info_t info{};
        info.command = TARVEX_GFS_CMD_MKD;
        info.pathname = const_cast<char *>(path.c_str());
        info.cksm_length = -1;
        double started = start_unpaced();
        std::string reply = take_reply(driver_.command(&box_table, session_, info));
        auto sent = take_arrivals();
        ASSERT_EQ(sent.size(), 2u);
        EXPECT_EQ(sent[0].method + " " + sent[0].path, "POST /2.0/folders");
        EXPECT_EQ(sent[1].method + " " + sent[1].path, "POST /2.0/folders");
        EXPECT_EQ(sent[0].status, 0);
        EXPECT_EQ(sent[1].status, r.created ? 201 : 0);
        EXPECT_EQ(reply.empty(), r.created) << reply;
        EXPECT_EQ(emulator().item(path).empty(), !r.created);
        expect_paced(sent, started);
    }
}

TEST_F(attempt_budget_test, AOneRequestUploadDroppedOnceIsSentOnceAndFails)
{
    ASSERT_EQ(take_reply(tarvex_box_path_resolve(session_, "/d/a.txt", nullptr, nullptr)), "");
    take_arrivals();
    drop("POST", "^/api/2.0/files/content$", 1);
    driver_.set_receive_data(std::string(100000, 'u'));
    driver_.clear_events();
    EXPECT_NE(take_reply(driver_.recv(&box_table, session_, "/d/up.bin", 100000, true)), "");
    EXPECT_EQ(driver_.events(event_kind::finished_transfer).size(), 1u);

    /* The answer was lost: the file is looked up in its folder (and not
     * found), never sent again. */
    auto sent = take_arrivals();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].method + " " + sent[0].path, "POST /api/2.0/files/content");
    EXPECT_EQ(sent[0].status, 0);
    EXPECT_EQ(sent[1].method + " " + sent[1].path, "GET /2.0/folders/" + ids_["/d"] + "/items");
    EXPECT_EQ(emulator().item("/d/up.bin"), "");
}

} // namespace
} // namespace box_session_test
