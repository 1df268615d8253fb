/* Stat and folder listings against the Box emulator: batching, paging by
 * marker, and how odd pages are taken in. */
#include <cstdio>

#include "box_session_support.h"

namespace box_session_test {
namespace {

using tarvex_test::event_kind;
using strings = std::vector<std::string>;

std::string name(int index)
{
    char text[16];
    snprintf(text, sizeof(text), "f%04d", index);
    return text;
}

/* Seed entries for `count` files named f0000... under `folder`. */
std::string files_json(const std::string &folder, int count)
{
    std::string json = "[{\"path\":\"" + folder + "\",\"type\":\"folder\"}";
    for (int i = 0; i < count; i++)
        json += ",{\"path\":\"" + folder + "/" + name(i) + "\",\"type\":\"file\",\"content\":\"" +
                std::string(i % 7, 'x') + "\"}";
    return json + "]";
}

/* An item of a scripted listing page. */
std::string item_json(const std::string &type, const std::string &id, const std::string &name)
{
    return R"({"type":")" + type + R"(","id":")" + id + R"(","name":")" + name +
           R"(","parent":{"type":"folder","id":"77"},"size":3})";
}

class listing_test : public session_test {
protected:
    /* Lists `path` through stat and returns the batch sizes, final answer
     * last, and every entry name in order. */
    tarvex_result_t list(const std::string &path, std::vector<size_t> *batches, strings *names)
    {
        driver_->clear_events();
        tarvex_result_t result = driver_->stat(iface(), session_, path, false);
        for (const auto &e : driver_->events()) {
            if (e.kind != event_kind::stat && e.kind != event_kind::stat_partial)
                continue;
            batches->push_back(e.entries.size());
            for (const auto &entry : e.entries)
                names->push_back(entry.name.value_or("<none>"));
        }
        return result;
    }

    /* The next listing of folder `id` answers `page` (a JSON object). */
    void script_page(const std::string &id, const std::string &page)
    {
        emulator().fault(R"({"method":"GET","path_regex":"^/2.0/folders/)" + id +
                         R"(/items$","count":1,"status":200,"body":)" + page + "}");
    }
};

TEST_F(listing_test, BatchesOfAHundredWithTheFolderFirst)
{
    struct row {
        int items;
        std::vector<size_t> batches;
    } rows[] = {
        {250, {100, 100, 51}}, {99, {100, 0}}, {0, {1}}, {1, {2}}, {199, {100, 100, 0}},
    };
    std::string seed_json = "[";
    for (const row &r : rows) {
        std::string one = files_json("/l" + std::to_string(r.items), r.items);
        seed_json += one.substr(1, one.size() - 2) + ",";
    }
    seed_json.back() = ']';
    seed(seed_json);
    ASSERT_NE(start(), nullptr);

    for (const row &r : rows) {
        SCOPED_TRACE(r.items);
        std::vector<size_t> batches;
        strings names;
        ASSERT_EQ(list("/l" + std::to_string(r.items), &batches, &names), TARVEX_SUCCESS);
        EXPECT_EQ(batches, r.batches);
        strings expected{"."};
        for (int i = 0; i < r.items; i++)
            expected.push_back(name(i));
        EXPECT_EQ(names, expected);
        /* The folder's complete contents are cached now. */
        EXPECT_TRUE(
            tarvex_box_path_cache_query(&session_->cache, ("/l" + std::to_string(r.items)).c_str())
                ->listed);
    }

    /* Entries carry the folder's and the files' attributes. */
    driver_->clear_events();
    ASSERT_EQ(driver_->stat(iface(), session_, "/l1", false), TARVEX_SUCCESS);
    auto answer = driver_->events(event_kind::stat);
    ASSERT_EQ(answer.size(), 1u);
    ASSERT_EQ(answer[0].entries.size(), 2u);
    EXPECT_EQ(answer[0].entries[0].mode, 040700);
    EXPECT_EQ(answer[0].entries[1].mode, 0100700);
    EXPECT_EQ(answer[0].entries[1].size, 0);
    EXPECT_EQ(answer[0].entries[1].nlink, 1);
}

TEST_F(listing_test, UnknownItemsAreSkippedAndNotCounted)
{
    auto ids = seed(R"([{"path":"/u","type":"folder"}])");
    ASSERT_NE(start(), nullptr);
    std::string entries;
    strings expected{"."};
    for (int i = 0; i < 99; i++) {
        entries += item_json("file", std::to_string(5000 + i), name(i)) + ",";
        expected.push_back(name(i));
        if (i % 40 == 0)
            entries += item_json("web_link", std::to_string(9000 + i), "link" + name(i)) + ",";
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
    auto ids = seed(files_json("/p", 301));
    ASSERT_NE(start(), nullptr);

    /* What Box gives as the first page's marker, asked for directly. */
    std::string url = emulator().api_base() + "/2.0/folders/" + ids["/p"] + "/items";
    tarvex_dsi_rest_key_value_t query_pairs[] = {
        {"fields", "type,id,name,parent,size,content_modified_at,sha1"},
        {"usemarker", "true"},
        {"limit", "300"}};
    tarvex_dsi_rest_key_array_t query = {3, query_pairs};
    tarvex_dsi_rest_key_value_t header_pairs[] = {{"Authorization", "Bearer test-token"}};
    tarvex_dsi_rest_key_array_t headers = {1, header_pairs};
    json_t *first_page = nullptr;
    tarvex_dsi_rest_callbacks_t callbacks = {};
    callbacks.data_read_callback = tarvex_dsi_rest_read_json;
    callbacks.data_read_callback_arg = &first_page;
    ASSERT_EQ(tarvex_dsi_rest_request("GET", url.c_str(), &query, &headers, &callbacks),
              TARVEX_SUCCESS);
    const char *marker = json_string_value(json_object_get(first_page, "next_marker"));
    ASSERT_NE(marker, nullptr);
    const std::string expected_marker = marker;
    json_decref(first_page);
    clear_requests();

    std::vector<size_t> batches;
    strings names;
    ASSERT_EQ(list("/p", &batches, &names), TARVEX_SUCCESS);
    EXPECT_EQ(names.size(), 302u);
    EXPECT_EQ(names.back(), name(300));

    auto log = requests();
    ASSERT_EQ(log.size(), 2u);
    for (const auto &entry : log) {
        EXPECT_EQ(listed_folder(entry), ids["/p"]);
        EXPECT_EQ(entry.query_value("limit"), "300");
        EXPECT_EQ(entry.query_value("usemarker"), "true");
        EXPECT_EQ(entry.query_value("fields"), "type,id,name,parent,size,content_modified_at,sha1");
        EXPECT_EQ(entry.header("Authorization"), "Bearer test-token");
    }
    EXPECT_FALSE(log[0].has_query("marker"));
    EXPECT_EQ(log[1].query_value("marker"), expected_marker);
}

/* The listing call itself, with a per-item function that records names. */
class folder_items_test : public listing_test {
protected:
    void SetUp() override
    {
        listing_test::SetUp();
        ids_ = seed(R"([{"path":"/q","type":"folder"}])");
        ASSERT_NE(start(), nullptr);
        clear_requests();
    }

    tarvex_result_t list_q()
    {
        seen_.clear();
        return tarvex_box_get_folder_items(
            session_, ids_["/q"].c_str(), "/q",
            [](tarvex_box_session_t *, const char *base, tarvex_box_path_info_t *info,
               void *arg) -> tarvex_result_t {
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
    script_page(ids_["/q"], R"({"entries":[)" + item_json("file", "1", "a") +
                                R"(],"next_marker":""})");
    script_page(ids_["/q"], R"({"entries":[)" + item_json("file", "2", "b") +
                                R"(],"next_marker":null})");
    ASSERT_EQ(list_q(), TARVEX_SUCCESS);
    EXPECT_EQ(seen_, (strings{"/q|a", "/q|b"}));
    auto log = requests();
    ASSERT_EQ(log.size(), 2u);
    EXPECT_FALSE(log[0].has_query("marker"));
    ASSERT_TRUE(log[1].has_query("marker"));
    EXPECT_EQ(log[1].query_value("marker"), "");
    EXPECT_NE(tarvex_box_path_cache_query(&session_->cache, "/q/b"), nullptr);
}

TEST_F(folder_items_test, BadPagesStopTheListing)
{
    struct row {
        std::string page;
        const char *error;
        strings seen;
    } rows[] = {
        {R"({"entries":[)" + item_json("file", "1", "a") + R"(,{"id":"2","name":"b"},)" +
             item_json("file", "3", "c") + "]}",
         "Failed info_parse!", {"/q|a"}},
        {R"({"entries":[)" + item_json("file", "1", "a") + R"(,{"type":"file","name":"nameless"}]})",
         "Failed info_parse!", {"/q|a"}},
        {R"({"entries":{"a":1}})", "Json object not array when it was expected", {}},
        {R"({"total_count":0})", "Json object not array when it was expected", {}},
        {R"({"entries":[{"type":"file","id":"9","name":""}]})", "Failed info_parse!", {}},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(r.page);
        script_page(ids_["/q"], r.page);
        tarvex_result_t result = list_q();
        EXPECT_EQ(message(result), r.error);
        EXPECT_EQ(seen_, r.seen);
    }
    /* What was taken in before the bad entry stays cached. */
    EXPECT_NE(tarvex_box_path_cache_query(&session_->cache, "/q/a"), nullptr);
    EXPECT_EQ(tarvex_box_path_cache_query(&session_->cache, "/q/c"), nullptr);
    /* The root stays where it was, whatever a page called its items. */
    EXPECT_STREQ(tarvex_box_path_cache_query(&session_->cache, "/")->id, "0");
}

TEST_F(folder_items_test, OneRetryablePageFailureIsRetried)
{
    const std::string busy = R"({"method":"GET","path_regex":"^/2.0/folders/)" + ids_["/q"] +
                             R"(/items$","status":429,"body":null,"count":)";
    emulator().fault(busy + "1}");
    EXPECT_EQ(list_q(), TARVEX_SUCCESS);
    EXPECT_EQ(requests().size(), 2u);

    clear_requests();
    emulator().fault(busy + "2}");
    tarvex_result_t result = list_q();
    EXPECT_EQ(error_code(result), 451);
    EXPECT_EQ(error_class(result), "TOO_BUSY");
    EXPECT_EQ(requests().size(), 2u);
}

TEST_F(listing_test, SingleItemsAndFailures)
{
    auto ids = seed(R"([{"path":"/d/f.txt","type":"file","content":"hello"}])");
    ASSERT_NE(start(), nullptr);

    struct row {
        const char *path;
        bool file_only;
        int code;               /* 0: success */
        const char *entry_name; /* of the one entry of a success */
        int mode;
    } rows[] = {
        {"/", true, 0, "/", 040700},
        {"/d", true, 0, "/d", 040700},
        {"/d/f.txt", true, 0, "/d/f.txt", 0100700},
        {"/d/nope", true, 550, nullptr, 0},
        {"/d/nope", false, 550, nullptr, 0},
        /* A file listed as a folder: Box says there is no such folder. */
        {"/d/f.txt", false, 550, nullptr, 0},
    };
    for (const row &r : rows) {
        SCOPED_TRACE(std::string(r.path) + (r.file_only ? " single" : " listing"));
        driver_->clear_events();
        tarvex_result_t result = driver_->stat(iface(), session_, r.path, r.file_only);
        auto answers = driver_->events(event_kind::stat);
        ASSERT_EQ(answers.size(), 1u);
        if (r.code != 0) {
            EXPECT_EQ(error_code(result), r.code);
            EXPECT_EQ(answers[0].reply.substr(0, 3), std::to_string(r.code));
            continue;
        }
        ASSERT_EQ(result, TARVEX_SUCCESS) << answers[0].reply;
        ASSERT_EQ(answers[0].entries.size(), 1u);
        EXPECT_EQ(answers[0].entries[0].name.value_or(""), r.entry_name);
        EXPECT_EQ(answers[0].entries[0].mode, r.mode);
    }
    EXPECT_EQ(ids.count("/d/f.txt"), 1u);
}

} // namespace
} // namespace box_session_test
