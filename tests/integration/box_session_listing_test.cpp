/* Folder listings Box gets wrong, through stat against the Box emulator.
 * (Paging by marker through a big folder, listed whole by a real client:
 * test_box_wan.py.) */
#include "box_session_support.h"

namespace box_session_test {
namespace {

class listing_test : public session_test {};

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
    auto ids = seed(R"([{"path":"/p/f1","content":"x"}])");
    ASSERT_NE(start(), nullptr);
    fault("GET", "^/2.0/folders/" + ids["/p"] + "/items$", -1, R"("status":500)");
    EXPECT_NE(take_reply(driver_.stat(&box_table, session_, "/p", false)), "");
    emulator().control("DELETE", "/_emulator/faults");
    EXPECT_EQ(take_reply(driver_.stat(&box_table, session_, "/p/f1", true)), "");
}

} // namespace
} // namespace box_session_test
