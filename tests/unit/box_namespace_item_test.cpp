/* The item record: parsing Box item JSON, stat entries, and the djb2 hash
 * behind device and inode numbers. */
#include <gtest/gtest.h>

#include <string>

#include "tarvex_box_common.h"

namespace {

/* Parses `text`; owns the record's strings. */
struct parsed {
    tarvex_box_path_info_t info = {};
    std::string error;
    explicit parsed(const std::string &text)
    {
        json_t *json = json_loads(text.c_str(), 0, nullptr);
        const char *m = tarvex_error_get_message(
            tarvex_error_peek(tarvex_box_object_info_parse(json, &info)));
        error = m ? m : "";
        json_decref(json);
    }
    ~parsed() { tarvex_box_path_info_free(&info); }
};

std::string str(const char *text) { return text ? text : "<none>"; }

TEST(BoxItem, ParsesTypesParentsAndMembers)
{
    const struct {
        const char *json;
        int type;
        const char *parent_id, *sha1, *md5;
        uint64_t size;
        bool has_metadata;
    } rows[] = {
        {R"({"type":"web_link","id":"7","name":"w"})", TARVEX_BOX_UNKNOWN, "0", 0, 0, 0, false},
        {R"({"type":"folder","id":"7","name":"d","parent":null,"metadata":null})",
         TARVEX_BOX_FOLDER, "0", 0, 0, 0, false},
        {R"({"type":"file","id":"7","name":"f","parent":{"id":"12"},"size":1073741824000,
             "sha1":"ab","metadata":{}})", TARVEX_BOX_FILE, "12", "ab", 0, 1073741824000ull, true},
        {R"({"type":"file","id":"7","metadata":{"global":{"properties":{"tarvex-md5":"0a1b"}}}})",
         TARVEX_BOX_FILE, "0", 0, "0a1b", 0, true},
        /* Members of the wrong type are left at zero, not errors. */
        {R"({"type":"file","id":"7","name":"f","size":"12","sha1":5,"parent":{"id":3}})",
         TARVEX_BOX_FILE, "0", 0, 0, 0, false},
    };
    for (const auto &r : rows) {
        parsed p(r.json);
        SCOPED_TRACE(r.json);
        EXPECT_EQ(p.error, "");
        EXPECT_EQ(p.info.type, r.type);
        EXPECT_EQ(str(p.info.id), "7");
        EXPECT_EQ(str(p.info.parent_id), str(r.parent_id));
        EXPECT_EQ(str(p.info.sha1), str(r.sha1));
        EXPECT_EQ(str(p.info.md5), str(r.md5));
        EXPECT_EQ(p.info.size, r.size);
        EXPECT_EQ(p.info.has_metadata, r.has_metadata);
    }
    parsed untyped(R"({"id":"7","name":"x"})");
    EXPECT_EQ(untyped.error, "No 'type' field found!");
    EXPECT_EQ(untyped.info.id, nullptr);
}

TEST(BoxItem, ModificationTimesInUtc)
{
    const struct { const char *date; time_t utc; bool ok; } rows[] = {
        {"2020-01-02T03:04:05-07:00", 1577959445, true}, /* 2020-01-02 10:04:05 */
        {"2020-01-02T03:04:05+05:30", 1577914445, true}, /* 2020-01-01 21:34:05 */
        {"2020-01-02T03:04:05-00:30", 1577932445, true}, /* taken as +00:30 */
        {"2020-01-02T03:04:05Z", 1577934245, false},     /* 2020-01-02 03:04:05 */
    };
    for (const auto &r : rows) {
        parsed p(std::string(R"({"type":"file","id":"1","sha1":"s","content_modified_at":")") +
                 r.date + "\"}");
        EXPECT_EQ(p.info.modtime, r.utc) << r.date;
        EXPECT_EQ(p.error, r.ok ? "" : "Error with 'content_modified_at' field!") << r.date;
        EXPECT_EQ(str(p.info.sha1), "s") << r.date; /* filled all the same */
    }
}

TEST(BoxItem, StatEntries)
{
    const struct { int type; const char *name, *parent_id; int mode; } rows[] = {
        {TARVEX_BOX_FOLDER, "/", nullptr, 16832},
        {TARVEX_BOX_FILE, "f.txt", "12", 33216},
        {TARVEX_BOX_UNKNOWN, "link", "12", 33216}};
    for (const auto &r : rows) {
        tarvex_box_path_info_t info = {};
        info.type = r.type;
        info.name = const_cast<char *>(r.name);
        info.parent_id = const_cast<char *>(r.parent_id);
        info.size = 1234;
        info.modtime = 1577959445;
        tarvex_gridftp_server_control_stat_t st = {};
        ASSERT_EQ(tarvex_box_info_to_stat(nullptr, &info, &st), TARVEX_SUCCESS);
        EXPECT_EQ(st.mode, r.mode);
        EXPECT_STREQ(st.name, r.name);
        EXPECT_EQ(st.nlink, 1);
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
