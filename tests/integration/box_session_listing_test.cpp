/* Folder listings through stat against the Box emulator: batches of a
 * hundred, unknown items, and paging by marker. */
#include <cstdio>

#include "box_session_support.h"
#include "config.h"
#include "path_cache.h"

namespace box_session_test {
namespace {

using tarvex_test::event_kind;

std::string name(int index)
{
    char text[16];
    snprintf(text, sizeof(text), "f%04d", index);
    return text;
}

/* Seed entries (without brackets) for a folder of `count` files f0000... */
std::string files(const std::string &folder, int count)
{
    std::string json = R"({"path":")" + folder + R"(","type":"folder"})";
    for (int i = 0; i < count; i++)
        json += R"(,{"path":")" + folder + "/" + name(i) + R"(","content":"x"})";
    return json;
}

/* What a listing of such a folder shows: "." and the names in order. */
strings dot_and_names(int count)
{
    strings names{"."};
    for (int i = 0; i < count; i++)
        names.push_back(name(i));
    return names;
}

class listing_test : public session_test {
protected:
    /* Lists `path` through stat into the batch sizes (final answer last)
     * and the entry names in order. */
    void list(const std::string &path)
    {
        batches_.clear();
        names_.clear();
        driver_.clear_events();
        ASSERT_EQ(driver_.stat(&box_table, session_, path, false), TARVEX_SUCCESS) << path;
        for (const auto &e : driver_.events())
            if (e.kind == event_kind::stat || e.kind == event_kind::stat_partial) {
                batches_.push_back(e.entries.size());
                for (const auto &entry : e.entries)
                    names_.push_back(entry.name.value_or("<none>"));
            }
    }
    std::vector<size_t> batches_;
    strings names_;
};

/* "." and the items in batches of a hundred; items of unknown type are
 * neither shown nor counted. */
TEST_F(listing_test, BatchesOfAHundredWithTheFolderFirst)
{
    auto ids = seed("[" + files("/l250", 250) + "," + R"({"path":"/u","type":"folder"}])");
    ASSERT_NE(start(), nullptr);
    std::string page;
    for (int i = 0; i < 99; i++)
        page += (i % 40 ? "" : R"({"type":"web_link","id":"9","name":"link"},)") +
                std::string(R"({"type":"file","id":"5)") + std::to_string(i) +
                R"(","name":")" + name(i) + R"(","parent":{"id":"77"}},)";
    page.pop_back();
    script_page(ids["/u"], R"({"entries":[)" + page + "]}");

    const struct { const char *folder; int items; std::vector<size_t> batches; } rows[] = {
        {"/l250", 250, {100, 100, 51}}, {"/u", 99, {100, 0}}};
    for (const auto &r : rows) {
        list(r.folder);
        EXPECT_EQ(batches_, r.batches) << r.folder;
        EXPECT_EQ(names_, dot_and_names(r.items)) << r.folder;
    }
    EXPECT_EQ(driver_.events(event_kind::stat_partial).at(0).entries.at(0).mode, 040700);
}

/* 301 items come in pages of the policy's size; each request after the
 * first carries the marker the page before gave, which the emulator checks
 * by going on where it stopped. */
TEST_F(listing_test, PagesFollowTheMarker)
{
    auto ids = seed("[" + files("/p", 301) + "]");
    ASSERT_NE(start(), nullptr);
    struct restore {
        ~restore() { tarvex_i_box_list_page_size = 300; }
    } restore_default;
    tarvex_i_box_list_page_size = 100;
    take_requests();
    list("/p");
    EXPECT_EQ(names_, dot_and_names(301));
    auto log = take_requests();
    ASSERT_EQ(log.size(), 4u);
    for (const auto &entry : log) {
        EXPECT_EQ(entry.path, "/2.0/folders/" + ids["/p"] + "/items");
        EXPECT_EQ(entry.query_value("limit"), "100");
        EXPECT_EQ(entry.query_value("usemarker"), "true");
    }
    EXPECT_FALSE(log[0].has_query("marker"));
    for (size_t i = 1; i < log.size(); i++)
        EXPECT_NE(log[i].query_value("marker"), "");
}

/* A listing Box would keep going for ever ends with a clear error: pages
 * that hand back the same marker, or empty pages asking for one more. */
TEST_F(listing_test, AMarkerSeenBeforeEndsTheListing)
{
    auto ids = seed(R"([{"path":"/loop","type":"folder"}])");
    ASSERT_NE(start(), nullptr);
    take_requests();
    for (const std::string page : {R"({"entries":[{"type":"file","id":"7","name":"again"}],)"
                                   R"("next_marker":"m1"})",
                                   R"({"entries":[],"next_marker":""})"}) {
        fault("GET", "^/2.0/folders/" + ids["/loop"] + "/items$", -1,
              R"("status":200,"body":)" + page);
        std::string reply = take_reply(driver_.stat(&box_table, session_, "/loop", false));
        EXPECT_NE(reply.find("repeated a listing marker"), std::string::npos) << reply;
        EXPECT_EQ(take_requests().size(), 2u);
        emulator().control("DELETE", "/_emulator/faults");
    }
}

/* A listing Box fails leaves the folder unknown, as before it: its items
 * are looked up at Box again, not answered from what the cache lacks. */
TEST_F(listing_test, AFailedListingLeavesTheFolderUnlisted)
{
    auto ids = seed("[" + files("/p", 3) + "]");
    ASSERT_NE(start(), nullptr);
    fault("GET", "^/2.0/folders/" + ids["/p"] + "/items$", -1, R"("status":500)");
    EXPECT_NE(take_reply(driver_.stat(&box_table, session_, "/p", false)), "");
    emulator().control("DELETE", "/_emulator/faults");
    EXPECT_EQ(take_reply(driver_.stat(&box_table, session_, "/p/f0001", true)), "");
}

} // namespace
} // namespace box_session_test
