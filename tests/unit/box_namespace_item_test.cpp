/* The item record: parsing Box item JSON, copying, converting to stat
 * entries, and the djb2 hash behind device and inode numbers. */
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "tarvex_box_common.h"

namespace {

/* Owns the JSON document and the strings of a parsed record. */
struct parsed {
    tarvex_box_path_info_t info = {};
    tarvex_result_t result = TARVEX_SUCCESS;

    explicit parsed(const char *text)
    {
        json_error_t error;
        json_t *json = json_loads(text, 0, &error);
        EXPECT_NE(json, nullptr) << text;
        result = tarvex_box_object_info_parse(json, &info);
        json_decref(json);
    }
    ~parsed() { tarvex_box_path_info_free(&info); }

    std::string message() const
    {
        const char *text = tarvex_error_get_message(tarvex_error_peek(result));
        return text != nullptr ? text : "";
    }
};

std::string str(const char *text) { return text != nullptr ? text : "<none>"; }

TEST(BoxItemParse, TypesParentsAndOptionalMembers)
{
    struct row {
        const char *json;
        int type;
        const char *parent_id;
        uint64_t size;
        const char *sha1;
    } rows[] = {
        {R"({"type":"web_link","id":"7","name":"w"})", TARVEX_BOX_UNKNOWN, "0", 0, nullptr},
        {R"({"type":"folder","id":"7","name":"d","parent":null})", TARVEX_BOX_FOLDER, "0", 0,
         nullptr},
        {R"({"type":"file","id":"7","name":"f","parent":{"type":"folder","id":"12"},
             "size":1073741824000,"sha1":"ab"})",
         TARVEX_BOX_FILE, "12", 1073741824000ull, "ab"},
        /* Wrongly typed members are ignored, not errors. */
        {R"({"type":"file","id":"7","name":"f","size":"12","sha1":5,"parent":{"id":3}})",
         TARVEX_BOX_FILE, "0", 0, nullptr},
        /* Only exact type words count. */
        {R"({"type":"Folder","id":"7","name":"f"})", TARVEX_BOX_UNKNOWN, "0", 0, nullptr},
    };
    for (const row &r : rows) {
        parsed p(r.json);
        SCOPED_TRACE(r.json);
        EXPECT_EQ(p.result, TARVEX_SUCCESS) << p.message();
        EXPECT_EQ(p.info.type, r.type);
        EXPECT_EQ(str(p.info.id), "7");
        EXPECT_EQ(str(p.info.parent_id), str(r.parent_id));
        EXPECT_EQ(p.info.size, r.size);
        EXPECT_EQ(str(p.info.sha1), str(r.sha1));
        EXPECT_FALSE(p.info.listed);
        EXPECT_FALSE(p.info.freeme);
    }
}

TEST(BoxItemParse, MissingTypeFillsNothing)
{
    for (const char *json : {R"({"id":"7","name":"x"})", R"({"type":null,"id":"7"})",
                             R"({"type":3,"id":"7"})", R"([1,2])"}) {
        parsed p(json);
        SCOPED_TRACE(json);
        EXPECT_NE(p.result, TARVEX_SUCCESS);
        EXPECT_EQ(p.message(), "No 'type' field found!");
        EXPECT_EQ(p.info.id, nullptr);
        EXPECT_EQ(p.info.name, nullptr);
        EXPECT_EQ(p.info.type, 0);
    }
}

TEST(BoxItemParse, ModificationTimes)
{
    struct row {
        const char *date;
        time_t expected; /* the instant in UTC */
        bool ok;
    } rows[] = {
        {"2020-01-02T03:04:05-07:00", 1577959445, true}, /* 2020-01-02 10:04:05 */
        {"2020-01-02T03:04:05+05:30", 1577914445, true}, /* 2020-01-01 21:34:05 */
        /* The minutes follow the sign of the hours: -00:30 acts as +00:30. */
        {"2020-01-02T03:04:05-00:30", 1577932445, true}, /* 2020-01-02 02:34:05 */
        {"2020-01-02T03:04:05Z", 1577934245, false},     /* 2020-01-02 03:04:05 */
    };
    for (const row &r : rows) {
        std::string json = std::string(R"({"type":"file","id":"1","name":"n","sha1":"s",)") +
                           R"("parent":{"id":"9"},"content_modified_at":")" + r.date + "\"}";
        parsed p(json.c_str());
        SCOPED_TRACE(r.date);
        EXPECT_EQ(p.info.modtime, r.expected);
        if (r.ok) {
            EXPECT_EQ(p.result, TARVEX_SUCCESS) << p.message();
        } else {
            EXPECT_EQ(p.message(), "Error with 'content_modified_at' field!");
        }
        /* A bad date still leaves a complete record. */
        EXPECT_EQ(str(p.info.sha1), "s");
        EXPECT_EQ(str(p.info.parent_id), "9");
    }
}

TEST(BoxItemParse, Metadata)
{
    struct row {
        const char *metadata;
        bool has_metadata;
        const char *md5;
    } rows[] = {
        {"null", false, nullptr},
        {"{}", true, nullptr},
        {R"({"global":{"properties":{}}})", true, nullptr},
        {R"({"global":{"properties":{"tarvex-md5":"0123abcd"}}})", true, "0123abcd"},
    };
    for (const row &r : rows) {
        std::string json =
            std::string(R"({"type":"file","id":"1","name":"n","metadata":)") + r.metadata + "}";
        parsed p(json.c_str());
        SCOPED_TRACE(r.metadata);
        EXPECT_EQ(p.result, TARVEX_SUCCESS);
        EXPECT_EQ(p.info.has_metadata, r.has_metadata);
        EXPECT_EQ(str(p.info.md5), str(r.md5));
    }
}

TEST(BoxItemCopy, DeepCopyOwnsEverything)
{
    parsed p(R"({"type":"file","id":"1","name":"n","sha1":"s","parent":{"id":"2"},
                 "metadata":{"global":{"properties":{"tarvex-md5":"m"}}}})");
    p.info.listed = true;
    tarvex_box_path_info_t *copy = tarvex_box_path_info_copy(&p.info);
    ASSERT_NE(copy, nullptr);
    EXPECT_TRUE(copy->freeme);
    EXPECT_TRUE(copy->listed);
    EXPECT_TRUE(copy->has_metadata);
    for (auto field : {&tarvex_box_path_info_t::name, &tarvex_box_path_info_t::id,
                       &tarvex_box_path_info_t::parent_id, &tarvex_box_path_info_t::md5,
                       &tarvex_box_path_info_t::sha1}) {
        ASSERT_NE(copy->*field, nullptr);
        EXPECT_NE(copy->*field, p.info.*field);
        EXPECT_STREQ(copy->*field, p.info.*field);
    }
    tarvex_box_path_info_free(copy);

    /* A record without a name or id cannot be copied. */
    tarvex_box_path_info_t nameless = {};
    nameless.id = const_cast<char *>("1");
    EXPECT_EQ(tarvex_box_path_info_copy(&nameless), nullptr);
}

TEST(BoxItemStat, Conversion)
{
    struct row {
        int type;
        const char *name;
        const char *parent_id;
        int mode;
    } rows[] = {
        {TARVEX_BOX_FOLDER, "/", nullptr, 16832},
        {TARVEX_BOX_FILE, "f.txt", "12", 33216},
        {TARVEX_BOX_UNKNOWN, "link", "12", 33216},
    };
    for (const row &r : rows) {
        tarvex_box_path_info_t info = {};
        info.type = r.type;
        info.name = const_cast<char *>(r.name);
        info.id = const_cast<char *>("5");
        info.parent_id = const_cast<char *>(r.parent_id);
        info.size = 1234;
        info.modtime = 1577959445;
        tarvex_gridftp_server_control_stat_t st;
        memset(&st, 0xff, sizeof(st));
        st.name = nullptr;
        ASSERT_EQ(tarvex_box_info_to_stat(nullptr, &info, &st), TARVEX_SUCCESS);
        SCOPED_TRACE(r.name);
        EXPECT_EQ(st.mode, r.mode);
        EXPECT_EQ(st.nlink, 1);
        ASSERT_NE(st.name, nullptr);
        EXPECT_NE(st.name, info.name);
        EXPECT_STREQ(st.name, r.name);
        EXPECT_EQ(st.symlink_target, nullptr);
        EXPECT_EQ(st.uid, 0u);
        EXPECT_EQ(st.gid, 0u);
        EXPECT_EQ(st.size, 1234);
        EXPECT_EQ(st.atime, 1577959445);
        EXPECT_EQ(st.ctime, 1577959445);
        EXPECT_EQ(st.mtime, 1577959445);
        EXPECT_EQ((uint32_t)st.dev, tarvex_box_hash(r.parent_id ? r.parent_id : "00000"));
        EXPECT_EQ((uint32_t)st.ino, tarvex_box_hash(r.name));
        EXPECT_EQ(st.link_mode, 0);
        EXPECT_EQ(st.error, TARVEX_GRIDFTP_SERVER_CONTROL_STAT_SUCCESS);
        free(st.name);
    }
}

TEST(BoxItemHash, Djb2OverSignedBytes)
{
    /* Expected values worked out by hand and with an independent 64-bit
     * implementation keeping the low 32 bits. */
    EXPECT_EQ(tarvex_box_hash(""), 5381u);
    EXPECT_EQ(tarvex_box_hash("\xC3\xA9"), (uint32_t)((5381 * 33 - 61) * 33 - 87));
    EXPECT_EQ(tarvex_box_hash("00000"), 192855317u);
    EXPECT_EQ(tarvex_box_hash("hello world"), 894552257u);
    EXPECT_EQ(tarvex_box_hash("/Folder \xC3\x9Cn\xC3\xAF" "code/na\xC3\xAFve.txt"), 2176100803u);
}

} // namespace
