/* The item record: parsing Box item JSON, stat entries, and the djb2 hash
 * behind device and inode numbers. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "object_info_parse.h"
#include "tarvex_box_common.h"

namespace {

/* The parse error ("-" for none) and the record in one line: type, id,
 * parent id, sha1, md5, size, modification time, whether it has metadata. */
std::string parse(const std::string &text)
{
    tarvex_box_path_info_t i = {};
    json_t *json = json_loads(text.c_str(), 0, nullptr);
    auto s = [](const char *t) { return std::string(t ? t : "-"); };
    tarvex_object_t *failure = tarvex_error_get(tarvex_box_object_info_parse(json, &i));
    const std::string error = s(tarvex_error_get_message(failure));
    tarvex_object_free(failure);
    json_decref(json);
    const char *types[] = {"none", "folder", "file", "unknown"};
    std::string line = error + "|" + (i.type >= 0 && i.type <= 3 ? types[i.type] : "?") +
                       " " + s(i.id) + " " + s(i.parent_id) + " " + s(i.sha1) +
                       " " + s(i.md5) + " " + std::to_string(i.size) + " " +
                       std::to_string(i.modtime) + (i.has_metadata ? " meta" : "");
    tarvex_box_path_info_free(&i);
    return line;
}

TEST(BoxItem, ParsesTypesParentsMembersAndDates)
{
    const struct { const char *json, *record; } rows[] = {
        {R"({"type":"web_link","id":"7","name":"w"})", "-|unknown 7 0 - - 0 0"},
        {R"({"type":"folder","id":"7","parent":null,"metadata":null})", "-|folder 7 0 - - 0 0"},
        {R"({"type":"file","id":"7","parent":{"id":"12"},"size":1073741824000,"sha1":"ab",
            "metadata":{}})", "-|file 7 12 ab - 1073741824000 0 meta"},
        {R"({"type":"file","id":"7","metadata":{"global":{"properties":{"tarvex-md5":"0a"}}}})",
         "-|file 7 0 - 0a 0 0 meta"},
        /* Members of the wrong type are left at zero, not errors. */
        {R"({"type":"file","id":"7","size":"1","sha1":5,"parent":{"id":3}})", "-|file 7 0 - - 0 0"},
        {R"({"id":"7","name":"x"})", "No 'type' field found!|none - - - - 0 0"},
        /* Times in UTC: 2020-01-02 10:04:05, 2020-01-01 21:34:05, -00:30
         * taken as +00:30; a Z zone is refused, all else still filled. */
        {R"({"type":"file","id":"1","content_modified_at":"2020-01-02T03:04:05-07:00"})",
         "-|file 1 0 - - 0 1577959445"},
        {R"({"type":"file","id":"1","content_modified_at":"2020-01-02T03:04:05+05:30"})",
         "-|file 1 0 - - 0 1577914445"},
        {R"({"type":"file","id":"1","content_modified_at":"2020-01-02T03:04:05-00:30"})",
         "-|file 1 0 - - 0 1577932445"},
        {R"({"type":"file","id":"1","sha1":"s","content_modified_at":"2020-01-02T03:04:05Z"})",
         "Error with 'content_modified_at' field!|file 1 0 s - 0 1577934245"},
    };
    for (const auto &r : rows)
        EXPECT_EQ(parse(r.json), r.record) << r.json;

    /* Strings the record held before are the caller's: replaced, never freed. */
    tarvex_box_path_info_t held = {};
    held.name = const_cast<char *>("borrowed");
    json_t *json = json_loads(R"({"type":"file","id":"7","name":"n"})", 0, nullptr);
    EXPECT_EQ(tarvex_box_object_info_parse(json, &held), TARVEX_SUCCESS);
    json_decref(json);
    EXPECT_STREQ(held.name, "n");
    tarvex_box_path_info_free(&held);

    /* Parse errors name their source by its short name. */
    json = json_loads(R"({"id":"7"})", 0, nullptr);
    tarvex_object_t *error = tarvex_error_get(tarvex_box_object_info_parse(json, &held));
    json_decref(json);
    EXPECT_STREQ(tarvex_error_get_file(error), "object_info_parse");
    tarvex_object_free(error);
}

TEST(BoxItem, StatEntries)
{
    const struct { int type; const char *name, *parent_id; int mode; } rows[] = {
        {TARVEX_BOX_FOLDER, "/", nullptr, 040700},
        {TARVEX_BOX_FILE, "f.txt", "12", 0100700},
        {TARVEX_BOX_UNKNOWN, "link", "12", 0100700}};
    for (const auto &r : rows) {
        tarvex_box_path_info_t info = {};
        info.type = r.type;
        info.name = const_cast<char *>(r.name);
        info.parent_id = const_cast<char *>(r.parent_id);
        info.size = 1234;
        info.modtime = 1577959445;
        /* Filled with ones, so that a field left unset shows. */
        tarvex_gridftp_server_control_stat_t st;
        memset(&st, 0xff, sizeof st);
        ASSERT_EQ(tarvex_box_info_to_stat(nullptr, &info, &st), TARVEX_SUCCESS);
        EXPECT_EQ(st.mode, r.mode);
        EXPECT_STREQ(st.name, r.name);
        EXPECT_EQ(st.symlink_target, nullptr);
        EXPECT_EQ(st.nlink, 1);
        EXPECT_EQ(st.uid, 0); /* LIST shows the owner and group as 0 0 */
        EXPECT_EQ(st.gid, 0);
        EXPECT_EQ(st.size, 1234);
        EXPECT_EQ(st.mtime, info.modtime);
        EXPECT_EQ((uint32_t)st.dev, tarvex_box_hash(r.parent_id ? r.parent_id : "00000"));
        EXPECT_EQ((uint32_t)st.ino, tarvex_box_hash(r.name));
        free(st.name);
    }
    /* djb2 over signed bytes; values from an independent implementation. */
    EXPECT_EQ(tarvex_box_hash("\xC3\xA9"), (uint32_t)((5381 * 33 - 61) * 33 - 87));
    EXPECT_EQ(tarvex_box_hash("00000"), 192855317u);
}

} // namespace
