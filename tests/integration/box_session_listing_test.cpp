/* Stat and folder listings against the Box emulator: batches, paging by
 * marker, odd pages, and file information. */
#include <cstdio>

#include "box_session_support.h"

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

std::string item(const std::string &type, const std::string &id, const std::string &name)
{
    return R"({"type":")" + type + R"(","id":")" + id + R"(","name":")" + name +
           R"(","parent":{"id":"77"}})";
}

class listing_test : public session_test {
protected:
    /* Lists `path` through stat: the batch sizes (final answer last) and
     * the entry names in order. */
    tarvex_result_t list(const std::string &path, std::vector<size_t> *batches, strings *names)
    {
        driver_->clear_events();
        tarvex_result_t result = driver_->stat(iface(), session_, path, false);
        for (const auto &e : driver_->events())
            if (e.kind == event_kind::stat || e.kind == event_kind::stat_partial) {
                batches->push_back(e.entries.size());
                for (const auto &entry : e.entries)
                    names->push_back(entry.name.value_or("<none>"));
            }
        return result;
    }
};

TEST_F(listing_test, BatchesOfAHundredWithTheFolderFirst)
{
    struct {
        int items;
        std::vector<size_t> batches;
    } rows[] = {{250, {100, 100, 51}}, {99, {100, 0}}, {0, {1}}, {199, {100, 100, 0}}};
    seed("[" + files("/l250", 250) + "," + files("/l99", 99) + "," + files("/l0", 0) + "," +
         files("/l199", 199) + "]");
    ASSERT_NE(start(), nullptr);
    for (const auto &r : rows) {
        const std::string folder = "/l" + std::to_string(r.items);
        std::vector<size_t> batches;
        strings names, expected{"."};
        for (int i = 0; i < r.items; i++)
            expected.push_back(name(i));
        ASSERT_EQ(list(folder, &batches, &names), TARVEX_SUCCESS) << folder;
        EXPECT_EQ(batches, r.batches) << folder;
        EXPECT_EQ(names, expected) << folder;
        EXPECT_TRUE(tarvex_box_path_cache_query(&session_->cache, folder.c_str())->listed);
    }
    auto first = driver_->events(event_kind::stat_partial).at(0).entries;
    EXPECT_EQ(first.at(0).mode, 040700); /* "." is the folder */
}

TEST_F(listing_test, UnknownItemsAreSkippedAndNotCounted)
{
    auto ids = seed(R"([{"path":"/u","type":"folder"}])");
    ASSERT_NE(start(), nullptr);
    std::string entries;
    strings expected{"."};
    for (int i = 0; i < 99; i++) {
        if (i % 40 == 0)
            entries += item("web_link", "9" + std::to_string(i), "link") + ",";
        entries += item("file", "5" + std::to_string(i), name(i)) + ",";
        expected.push_back(name(i));
    }
    entries.pop_back();
    script_page(ids["/u"], R"({"entries":[)" + entries + "]}");
    std::vector<size_t> batches;
    strings names;
    ASSERT_EQ(list("/u", &batches, &names), TARVEX_SUCCESS);
    EXPECT_EQ(batches, (std::vector<size_t>{100, 0}));
    EXPECT_EQ(names, expected);
}

TEST_F(listing_test, PagesFollowTheMarker)
{
    auto ids = seed("[" + files("/p", 301) + "]");
    ASSERT_NE(start(), nullptr);

    /* The first page's marker, asked of Box directly. */
    const std::string url = emulator().api_base() + "/2.0/folders/" + ids["/p"] + "/items";
    tarvex_dsi_rest_key_value_t q[] = {{"usemarker", "true"}, {"limit", "300"}};
    tarvex_dsi_rest_key_value_t h[] = {{"Authorization", "Bearer test-token"}};
    tarvex_dsi_rest_key_array_t query = {2, q}, headers = {1, h};
    json_t *page = nullptr;
    tarvex_dsi_rest_callbacks_t callbacks = {};
    callbacks.data_read_callback = tarvex_dsi_rest_read_json;
    callbacks.data_read_callback_arg = &page;
    ASSERT_EQ(tarvex_dsi_rest_request("GET", url.c_str(), &query, &headers, &callbacks),
              TARVEX_SUCCESS);
    const std::string marker = json_string_value(json_object_get(page, "next_marker"));
    json_decref(page);
    clear_requests();

    std::vector<size_t> batches;
    strings names;
    ASSERT_EQ(list("/p", &batches, &names), TARVEX_SUCCESS);
    EXPECT_EQ(names.size(), 302u);
    auto log = requests();
    ASSERT_EQ(log.size(), 2u);
    for (const auto &entry : log) {
        EXPECT_EQ(listed_folder(entry), ids["/p"]);
        EXPECT_EQ(entry.query_value("limit"), "300");
        EXPECT_EQ(entry.query_value("usemarker"), "true");
        EXPECT_EQ(entry.query_value("fields"), "type,id,name,parent,size,content_modified_at,sha1");
    }
    EXPECT_FALSE(log[0].has_query("marker"));
    EXPECT_EQ(log[1].query_value("marker"), marker);
}

/* The listing call itself, with a per-item function recording names. */
class folder_items_test : public session_test {
protected:
    void SetUp() override
    {
        session_test::SetUp();
        ids_ = seed(R"([{"path":"/q","type":"folder"}])");
        ASSERT_NE(start(), nullptr);
        clear_requests();
    }
    tarvex_result_t list_q()
    {
        seen_.clear();
        return tarvex_box_get_folder_items(
            session_, ids_["/q"].c_str(), "/q",
            [](tarvex_box_session_t *, const char *base, tarvex_box_path_info_t *info, void *arg) {
                static_cast<strings *>(arg)->push_back(std::string(base) + "|" + info->name);
                return TARVEX_SUCCESS;
            },
            &seen_);
    }
    std::map<std::string, std::string> ids_;
    strings seen_;
};

TEST_F(folder_items_test, EmptyMarkerAsksForOneMorePage)
{
    script_page(ids_["/q"], R"({"entries":[)" + item("file", "1", "a") + R"(],"next_marker":""})");
    script_page(ids_["/q"], R"({"entries":[)" + item("file", "2", "b") + R"(],"next_marker":null})");
    ASSERT_EQ(list_q(), TARVEX_SUCCESS);
    EXPECT_EQ(seen_, (strings{"/q|a", "/q|b"}));
    auto log = requests();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_TRUE(log[1].has_query("marker"));
    EXPECT_EQ(log[1].query_value("marker"), "");
}

TEST_F(folder_items_test, BadPagesStopTheListing)
{
    const std::string a = item("file", "1", "a"), c = item("file", "3", "c");
    struct {
        std::string page;
        const char *error;
        strings seen;
    } rows[] = {
        {R"({"entries":[)" + a + R"(,{"id":"2","name":"b"},)" + c + "]}", "Failed info_parse!",
         {"/q|a"}},
        {R"({"entries":[{"type":"file","id":"9","name":""}]})", "Failed info_parse!", {}},
        {R"({"entries":{"a":1}})", "Json object not array when it was expected", {}},
        {R"({"total_count":0})", "Json object not array when it was expected", {}},
    };
    for (const auto &r : rows) {
        script_page(ids_["/q"], r.page);
        EXPECT_EQ(message(list_q()), r.error) << r.page;
        EXPECT_EQ(seen_, r.seen) << r.page;
    }
    /* What came before the bad entry stays cached; the root stays itself. */
    EXPECT_NE(tarvex_box_path_cache_query(&session_->cache, "/q/a"), nullptr);
    EXPECT_EQ(tarvex_box_path_cache_query(&session_->cache, "/q/c"), nullptr);
    EXPECT_STREQ(tarvex_box_path_cache_query(&session_->cache, "/")->id, "0");
}

TEST_F(folder_items_test, FileInformationWithItsMd5)
{
    auto ids = seed(R"([{"path":"/q/f","content":"hi","md5_property":"0a1b"}])");
    ASSERT_EQ(tarvex_box_get_file_info(session_, ids["/q/f"].c_str(), "/q", nullptr, nullptr),
              TARVEX_SUCCESS);
    tarvex_box_path_info_t *cached = tarvex_box_path_cache_query(&session_->cache, "/q/f");
    ASSERT_NE(cached, nullptr);
    EXPECT_STREQ(cached->md5, "0a1b");
    EXPECT_TRUE(cached->has_metadata);
    auto log = requests();
    ASSERT_EQ(log.size(), 1u);
    EXPECT_EQ(log[0].path, "/2.0/files/" + ids["/q/f"] + "/");
    EXPECT_EQ(log[0].query_value("fields"),
              "type,id,name,parent,size,content_modified_at,sha1,metadata.global.properties");
}

TEST_F(listing_test, SingleItemsAndFailures)
{
    seed(R"([{"path":"/d/f.txt","content":"hello"}])");
    ASSERT_NE(start(), nullptr);
    struct {
        const char *path;
        bool file_only;
        const char *reply_or_name; /* a failure's reply code, or the entry's name */
        int mode;
    } rows[] = {{"/", true, "/", 040700},          {"/d/f.txt", true, "/d/f.txt", 0100700},
                {"/d/nope", true, "550", 0},       {"/d/nope", false, "550", 0},
                {"/d/f.txt", false, "550", 0}}; /* a file listed as a folder */
    for (const auto &r : rows) {
        driver_->clear_events();
        tarvex_result_t result = driver_->stat(iface(), session_, r.path, r.file_only);
        auto answer = driver_->events(event_kind::stat).at(0);
        SCOPED_TRACE(std::string(r.path) + " " + answer.reply);
        if (r.mode == 0) {
            EXPECT_EQ(answer.reply.substr(0, 3), r.reply_or_name);
            continue;
        }
        ASSERT_EQ(result, TARVEX_SUCCESS);
        ASSERT_EQ(answer.entries.size(), 1u);
        EXPECT_EQ(answer.entries[0].name.value_or(""), r.reply_or_name);
        EXPECT_EQ(answer.entries[0].mode, r.mode);
    }
}

} // namespace
} // namespace box_session_test
