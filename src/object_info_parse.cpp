/*
 * The item record: filling it from a Box item object, copying, releasing,
 * and turning it into a stat entry of the server.
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "object_info_parse"
#include "object_info_parse.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"

namespace {

/* Stores a private copy of `value` in `*field`.  What the field held
 * before is the caller's and is left alone: a caller may parse into a
 * record whose strings it borrowed.  False only when memory runs out. */
bool tarvex_l_box_set_string(char **field, const char *value)
{
    char *copy = strdup(value);
    if (copy == nullptr)
        return false;
    *field = copy;
    return true;
}

/* The string member `key` of `json`, or nullptr when absent or not a string. */
const char *tarvex_l_box_string_member(json_t *json, const char *key)
{
    json_t *member = json_object_get(json, key);
    return json_is_string(member) ? json_string_value(member) : nullptr;
}

/*
 * "2020-01-02T03:04:05-07:00" as seconds since the epoch, UTC.  The offset
 * minutes follow the sign of the offset hours, so "-00:30" is taken as
 * +00:30; a "Z" zone stops the scan after the seconds.  Whatever was read
 * is still converted: false only says the text was not complete.
 */
bool tarvex_l_box_parse_modtime(const char *text, time_t *modtime)
{
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    int offset_hours = 0, offset_minutes = 0;
    int scanned = sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d%3d:%2d", &year, &month, &day,
                         &hour, &minute, &second, &offset_hours, &offset_minutes);

    struct tm tm = {};
    tm.tm_year = year - 1900;
    tm.tm_mon = month - 1;
    tm.tm_mday = day;
    tm.tm_hour = hour - offset_hours;
    tm.tm_min = minute - (offset_hours < 0 ? -offset_minutes : offset_minutes);
    tm.tm_sec = second;
    *modtime = timegm(&tm);
    return scanned == 8;
}

} // namespace

extern "C" tarvex_result_t tarvex_box_object_info_parse(json_t *json,
                                                       tarvex_box_path_info_t *info)
{
    const char *type = nullptr;
    if (json_unpack(json, "{s:s}", "type", &type) != 0 || type == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", "No 'type' field found!");

    if (strcmp(type, "folder") == 0)
        info->type = TARVEX_BOX_FOLDER;
    else if (strcmp(type, "file") == 0)
        info->type = TARVEX_BOX_FILE;
    else
        info->type = TARVEX_BOX_UNKNOWN;

    if (const char *name = tarvex_l_box_string_member(json, "name"))
        if (!tarvex_l_box_set_string(&info->name, name))
            return TARVEX_BOX_MALLOC_ERROR();
    if (const char *id = tarvex_l_box_string_member(json, "id"))
        if (!tarvex_l_box_set_string(&info->id, id))
            return TARVEX_BOX_MALLOC_ERROR();

    json_t *size = json_object_get(json, "size");
    if (json_is_integer(size))
        info->size = (uint64_t)json_integer_value(size);

    /* A malformed date is reported only after every other field is filled,
     * so that the caller still gets a complete record. */
    bool date_ok = true;
    if (const char *modified = tarvex_l_box_string_member(json, "content_modified_at"))
        date_ok = tarvex_l_box_parse_modtime(modified, &info->modtime);

    if (const char *sha1 = tarvex_l_box_string_member(json, "sha1"))
        if (!tarvex_l_box_set_string(&info->sha1, sha1))
            return TARVEX_BOX_MALLOC_ERROR();

    json_t *metadata = json_object_get(json, "metadata");
    if (metadata != nullptr && !json_is_null(metadata)) {
        info->has_metadata = true;
        const char *md5 = nullptr;
        if (json_unpack(metadata, "{s:{s:{s:s}}}", "global", "properties", "tarvex-md5",
                        &md5) == 0 &&
            md5 != nullptr)
            if (!tarvex_l_box_set_string(&info->md5, md5))
                return TARVEX_BOX_MALLOC_ERROR();
    }

    /* An item without a parent sits in the root folder, whose id is "0". */
    const char *parent_id = nullptr;
    if (json_unpack(json_object_get(json, "parent"), "{s:s}", "id", &parent_id) != 0)
        parent_id = "0";
    else if (parent_id == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", "No 'parent->id' field found!");
    if (!tarvex_l_box_set_string(&info->parent_id, parent_id))
        return TARVEX_BOX_MALLOC_ERROR();

    if (!date_ok)
        return TARVEX_BOX_GENERIC_ERROR("%s", "Error with 'content_modified_at' field!");
    return TARVEX_SUCCESS;
}

extern "C" tarvex_box_path_info_t *tarvex_box_path_info_copy(
    const tarvex_box_path_info_t *info)
{
    if (info == nullptr || info->name == nullptr || info->id == nullptr)
        return nullptr;

    tarvex_box_path_info_ptr copy(
        static_cast<tarvex_box_path_info_t *>(calloc(1, sizeof(tarvex_box_path_info_t))));
    if (copy == nullptr)
        return nullptr;
    copy->freeme = true;

    /* Absent optional strings stay absent. */
    auto copy_of = [](char **field, const char *text) {
        return text == nullptr || tarvex_l_box_set_string(field, text);
    };
    if (!tarvex_l_box_set_string(&copy->name, info->name) ||
        !tarvex_l_box_set_string(&copy->id, info->id) ||
        !copy_of(&copy->parent_id, info->parent_id) || !copy_of(&copy->md5, info->md5) ||
        !copy_of(&copy->sha1, info->sha1))
        return nullptr;
    copy->type = info->type;
    copy->size = info->size;
    copy->modtime = info->modtime;
    copy->listed = info->listed;
    copy->has_metadata = info->has_metadata;
    copy->cached_at = info->cached_at;
    copy->listed_at = info->listed_at;
    return copy.release();
}

extern "C" void tarvex_box_path_info_free(tarvex_box_path_info_t *info)
{
    if (info == nullptr)
        return;
    free(info->id);
    free(info->parent_id);
    free(info->name);
    free(info->sha1);
    free(info->md5);
    info->id = info->parent_id = info->name = info->sha1 = info->md5 = nullptr;
    if (info->freeme)
        free(info);
}

extern "C" tarvex_result_t tarvex_box_info_to_stat(tarvex_box_session_t *,
                                                  const tarvex_box_path_info_t *info,
                                                  tarvex_gridftp_server_control_stat_t *stat_out)
{
    const char *name = info->name != nullptr ? info->name : "";
    char *name_copy = strdup(name);
    if (name_copy == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    /* Box has no permission bits to show: the owner gets everything. */
    stat_out->mode = info->type == TARVEX_BOX_FOLDER ? 040700 : 0100700;
    stat_out->nlink = 1;
    stat_out->name = name_copy;
    stat_out->symlink_target = nullptr;
    stat_out->uid = 0;
    stat_out->gid = 0;
    stat_out->size = (tarvex_off_t)info->size;
    stat_out->atime = info->modtime;
    stat_out->ctime = info->modtime;
    stat_out->mtime = info->modtime;
    stat_out->dev = (int)tarvex_box_hash(info->parent_id != nullptr ? info->parent_id
                                                                   : "00000");
    stat_out->ino = (int)tarvex_box_hash(name);
    stat_out->link_mode = 0;
    stat_out->error = TARVEX_GRIDFTP_SERVER_CONTROL_STAT_SUCCESS;
    return TARVEX_SUCCESS;
}

/* djb2 over the bytes taken as signed chars, so that names with bytes above
 * 0x7f give the same device and inode numbers on every platform. */
extern "C" uint32_t tarvex_box_hash(const char *text)
{
    uint64_t hash = 5381;
    for (const char *p = text; *p != '\0'; p++)
        hash = hash * 33 + (uint64_t)(int64_t)(signed char)*p;
    return (uint32_t)hash;
}
