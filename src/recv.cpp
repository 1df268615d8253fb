/*
 * Upload (STOR and its restarts).  The receive operation replaces a file
 * of the same name (deleting it first, or, with the policy's "replace":
 * "new-version", by uploading a new version of it), checks the announced
 * size against the user's Box upload limit and stores the client's data
 * either in one multipart request or, for files announced larger than
 * tarvex_i_box_chunked_minimum, through a Box upload session: the data is
 * read one part at a time into one buffer (or, with the policy's
 * "upload_parts_in_flight", several parts go to Box at once:
 * upload_parts.h), each part is sent with its own SHA-1, running SHA-1 and
 * MD5 digests of the whole file are kept, and the session is committed
 * with the whole file's SHA-1; the MD5 is then stored as the file's
 * "tarvex-md5" property.  An open upload session is remembered under the
 * file's path, so that a restarted store in the same login continues at
 * its next part.
 */
#include <errno.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <memory>
#include <string>
#include <system_error>
#include <thread>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "recv"
#include "command.h"
#include "config.h"
#include "error.h"
#include "path_cache.h"
#include "path_resolve.h"
#include "recv.h"
#include "request.h"
#include "session_journal.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"
#include "token.h"
#include "upload_answer.h"
#include "upload_parts.h"
#include "upload_stream.h"
#include "tarvex_result.h"

namespace {

/* What Box is asked to return of a stored file. */
constexpr const char *tarvex_l_box_upload_fields =
    "type,id,name,parent,size,content_modified_at,sha1";

/* The client's wanted modification time as Box's "content_modified_at";
 * false (and an empty text) when the client gave none. */
bool tarvex_l_box_format_modtime(time_t modtime, char text[64])
{
    text[0] = '\0';
    struct tm tm = {};
    if (modtime == -1 || gmtime_r(&modtime, &tm) == nullptr)
        return false;
    snprintf(text, 64, "%04d-%02d-%02dT%02d:%02d:%02dZ", tm.tm_year + 1900, tm.tm_mon + 1,
             tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec);
    return true;
}

/* The modification time the client sent with the upload, as Box takes it
 * ("" when it sent none). */
tarvex_result_t tarvex_l_box_client_modtime(tarvex_gfs_operation_t op, char text[64])
{
    time_t modtime = -1;
    tarvex_result_t result = tarvex_gridftp_server_get_recv_modification_time(op, &modtime);
    if (result != TARVEX_SUCCESS)
        return result;
    tarvex_l_box_format_modtime(modtime, text);
    return TARVEX_SUCCESS;
}

/* The last component of an absolute path, or NULL for a path without "/"
 * (the server hands only absolute ones, and resolution refused any other
 * before we got here). */
const char *tarvex_l_box_base_name(const char *path)
{
    const char *slash = path ? strrchr(path, '/') : nullptr;
    return slash ? slash + 1 : nullptr;
}

tarvex_result_t tarvex_l_box_no_base_name(const char *path)
{
    return TARVEX_BOX_GENERIC_ERROR("Not an absolute path: %s", path ? path : "");
}

/* An FTP response error; the out-of-memory error when it cannot be made. */
tarvex_result_t tarvex_l_box_ftp_error(tarvex_object_t *error)
{
    return error ? tarvex_error_put(error) : TARVEX_BOX_MALLOC_ERROR();
}

/* A generic error whose cause is the error behind `cause` (taken out of
 * the error table). */
tarvex_result_t tarvex_l_box_error_with_cause(tarvex_result_t cause, const char *message)
{
    tarvex_object_t *inner = cause != TARVEX_SUCCESS ? tarvex_error_get(cause) : nullptr;
    return tarvex_error_put(tarvex_error_construct_error(nullptr, inner,
                                                         TARVEX_GFS_ERROR_GENERIC,
                                                         TARVEX_BOX_SOURCE, __func__,
                                                         __LINE__, "%s", message));
}

/*
 * 451 "QUOTA_EXCEEDED" for an announced size above the user's limit, with
 * the path, both sizes and the reason as reply lines.
 */
tarvex_result_t tarvex_l_box_quota_exceeded(const char *path, tarvex_off_t alloc_size,
                                            uint64_t max_upload)
{
    char upload_size[24], max_size[24];
    snprintf(upload_size, sizeof(upload_size), "%ld", static_cast<long>(alloc_size));
    snprintf(max_size, sizeof(max_size), "%ld", static_cast<long>(max_upload));
    tarvex_dsi_rest_key_value_t pairs[4] = {
        {"Box-Path", path},
        {"Box-Upload-Size", upload_size},
        {"Box-Max-Upload-Size", max_size},
        {"Box-Error", "Upload size is too large."},
    };
    tarvex_dsi_rest_key_array_t info = {4, pairs};
    tarvex_object_t *details = tarvex_box_error_construct(nullptr, nullptr, &info);
    return tarvex_l_box_ftp_error(tarvex_gfs_ftp_response_error_construct(
        nullptr, details, 451, "QUOTA_EXCEEDED", nullptr));
}

/*
 * Deletes the item that already has the new file's name.  It is deleted
 * as by DELE (type 3, TARVEX_BOX_UNKNOWN in the item types' numbering), so
 * a folder of that name is refused ("Path is a folder.") and stays: a
 * client cannot replace a folder by storing a file over it.  A failed
 * deletion says why the store needed it: the "Box-Details" reason ends the
 * error's chain (after any cause of its own, which is kept).
 */
tarvex_result_t tarvex_l_box_delete_existing(tarvex_box_session_t *box,
                                             tarvex_box_path_info_t *path_info)
{
    tarvex_result_t result = tarvex_i_box_delete_object(box, path_info, TARVEX_BOX_UNKNOWN);
    tarvex_dsi_rest_key_value_t pairs[1] = {
        {"Box-Details", "A file with this name already exists and must be deleted before "
                        "upload, but deletion failed."},
    };
    tarvex_dsi_rest_key_array_t info = {1, pairs};
    return tarvex_box_error_append(result, &info);
}

/* 553 before anything is touched: the root folder cannot be stored over. */
tarvex_result_t tarvex_l_box_refuse_folder_path(const char *path)
{
    return tarvex_l_box_ftp_error(tarvex_gfs_ftp_response_error_construct(
        nullptr, nullptr, 553, "INVALID_PATH_NAME", "GridFTP-Path: %s is a folder", path));
}

/*
 * A restart (REST, APPE: no truncation, an offset) can only continue an
 * upload session this login opened for the path: the one-request upload
 * would store the bytes from the offset on as the whole file, and without
 * a session there is nothing to continue.  Refused here, before anything
 * of the old file is touched.
 */
tarvex_result_t tarvex_l_box_check_restart(tarvex_gfs_transfer_info_t *info,
                                           tarvex_box_session_t *box, bool one_request)
{
    if (info->truncate || info->partial_offset == 0)
        return TARVEX_SUCCESS;
    if (one_request)
        return tarvex_l_box_ftp_error(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 553, "APPEND_NOT_SUPPORTED", nullptr));
    if (tarvex_box_upload_state_query(&box->upload_state, info->pathname) == nullptr)
        return tarvex_l_box_ftp_error(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 553, "MULTI_PART_UPLOAD_NOT_FOUND", nullptr));
    return TARVEX_SUCCESS;
}

/*
 * What becomes of the item already at the path.  With "replace":
 * "new-version" a file stays, and the store uploads a new version of it
 * (`*version_of` its id), so that its content is current until the new one
 * is complete.  Otherwise it is deleted as by DELE (type 3,
 * TARVEX_BOX_UNKNOWN in the item types' numbering): a folder is refused
 * ("Path is a folder.") and stays, in either mode.  A restart continues a
 * session that was opened as a new version or after the deletion.
 */
tarvex_result_t tarvex_l_box_clear_the_way(tarvex_gfs_transfer_info_t *info,
                                           tarvex_box_session_t *box,
                                           tarvex_box_path_info_t *path_info,
                                           std::string *version_of)
{
    bool keep_file = tarvex_i_box_replace == TARVEX_BOX_REPLACE_NEW_VERSION &&
                     path_info->type == TARVEX_BOX_FILE;
    if (!keep_file)
        return tarvex_l_box_delete_existing(box, path_info);
    if (info->truncate)
        *version_of = path_info->id;
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_recv_small(tarvex_gfs_operation_t op,
                                        tarvex_gfs_transfer_info_t *info,
                                        tarvex_box_session_t *box, tarvex_box_path_info_t *parent,
                                        const char *version_of);
tarvex_result_t tarvex_l_box_recv_chunked(tarvex_gfs_operation_t op,
                                          tarvex_gfs_transfer_info_t *info,
                                          tarvex_box_session_t *box,
                                          tarvex_box_path_info_t *parent,
                                          const char *version_of);

tarvex_result_t tarvex_l_box_recv(tarvex_gfs_operation_t op, tarvex_gfs_transfer_info_t *info,
                                  tarvex_box_session_t *box)
{
    tarvex_result_t result = tarvex_box_token_refresh(box, op);
    if (result != TARVEX_SUCCESS)
        return result;

    bool one_request =
        static_cast<int64_t>(info->alloc_size) <= static_cast<int64_t>(tarvex_i_box_chunked_minimum);
    result = tarvex_l_box_check_restart(info, box, one_request);
    if (result != TARVEX_SUCCESS)
        return result;

    tarvex_box_path_info_t *path_info = nullptr;
    tarvex_box_path_info_t *parent_info = nullptr;
    result = tarvex_box_path_resolve(box, info->pathname, &path_info, &parent_info);
    /* No parent: the folder to store into is missing (the resolution's
     * error), or the path is the root itself ("/", also as "/d/.."). */
    if (parent_info == nullptr)
        return result == TARVEX_SUCCESS ? tarvex_l_box_refuse_folder_path(info->pathname)
                                        : result;

    /* By default the old file is deleted before the size check and before
     * any new byte has arrived: a store that then fails for any reason
     * leaves neither file behind.  Clients have always seen it so. */
    std::string version_of;
    if (result == TARVEX_SUCCESS) {
        result = tarvex_l_box_clear_the_way(info, box, path_info, &version_of);
        if (result != TARVEX_SUCCESS)
            return result;
    } else {
        /* The usual case: a new file in an existing folder. */
        tarvex_error_discard(result);
    }

    /* So a client whose store is refused for its size has already lost
     * the file it meant to replace, unless it is replaced by versions. */
    if (static_cast<uint64_t>(info->alloc_size) > box->max_upload)
        return tarvex_l_box_quota_exceeded(info->pathname, info->alloc_size, box->max_upload);

    /* A client that announces no size (no ALLO) always gets the one-request
     * upload, whatever it then sends. */
    const char *target = version_of.empty() ? nullptr : version_of.c_str();
    if (!one_request)
        return tarvex_box_traced("tarvex_i_box_recv_chunked", [&] {
            return tarvex_l_box_recv_chunked(op, info, box, parent_info, target);
        });
    return tarvex_box_traced("tarvex_i_box_recv_small", [&] {
        return tarvex_l_box_recv_small(op, info, box, parent_info, target);
    });
}

/* ---- the one-request upload ---- */

/* The attributes part of the one-request upload, as compact JSON text: a
 * new file names its folder, a new version only its name. */
tarvex_box_cstr_ptr tarvex_l_box_upload_attributes(const char *name, const char *parent_id,
                                                   const char *modtime_str)
{
    tarvex_box_json_ptr attributes(
        parent_id != nullptr
            ? json_pack("{s:s, s:{s:s}}", "name", name, "parent", "id", parent_id)
            : json_pack("{s:s}", "name", name));
    if (attributes == nullptr)
        return nullptr;
    if (modtime_str[0] != '\0' &&
        json_object_set_new(attributes.get(), "content_modified_at", json_string(modtime_str)) != 0)
        return nullptr;
    return tarvex_box_cstr_ptr(json_dumps(attributes.get(), JSON_COMPACT));
}

/* ---- upload sessions ---- */

/* The Content-Length value of a block body. */
/*
 * A JSON text POSTed whole, with its length: the empty "Transfer-Encoding"
 * has the body go out so, not chunked.  A "digest" header follows when one
 * is given.
 */
class tarvex_l_box_json_post {
public:
    tarvex_l_box_json_post(char *text, const char *digest)
        : block_{text, strlen(text)}, header_count_(digest != nullptr ? 4 : 3)
    {
        snprintf(length_text_, sizeof length_text_, "%lu",
                 static_cast<unsigned long>(block_.block_len));
        headers_[0] = {"Content-Type", "application/json"};
        headers_[1] = {"Content-Length", length_text_};
        headers_[2] = {"Transfer-Encoding", ""};
        headers_[3] = {"digest", digest};
    }
    tarvex_l_box_json_post(const tarvex_l_box_json_post &) = delete;
    tarvex_l_box_json_post &operator=(const tarvex_l_box_json_post &) = delete;

    tarvex_box_request_t request(const char *url, const tarvex_box_call &call)
    {
        return tarvex_box_body_request("POST", url, headers_, header_count_, &block_, call);
    }

private:
    char length_text_[24] = {};
    tarvex_dsi_rest_key_value_t headers_[4] = {};
    tarvex_dsi_rest_write_block_arg_t block_;
    size_t header_count_;
};

/*
 * An upload session record is usable only with Box's id, a part size and
 * at least one part: the part arithmetic divides by the size, and the
 * part URL carries the id.
 */
tarvex_result_t tarvex_l_box_check_session(const tarvex_box_upload_session_t *upload)
{
    if (upload->id == nullptr || upload->part_size == 0 || upload->num_parts < 1)
        return TARVEX_BOX_GENERIC_ERROR(
            "%s", "Box's upload session answer lacks \"id\", \"part_size\" or \"total_parts\".");
    return TARVEX_SUCCESS;
}

/* The upload session record made from Box's answer, not yet stored. */
tarvex_result_t tarvex_l_box_new_session(json_t *answer, const char *path,
                                         tarvex_off_t alloc_size,
                                         tarvex_box_upload_session_t **upload_out)
{
    /* Zero-filled, so that what Box's answer leaves out reads as absent. */
    tarvex_box_upload_session_ptr upload(static_cast<tarvex_box_upload_session_t *>(
        calloc(1, sizeof(tarvex_box_upload_session_t))));
    if (upload == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_result_t result = tarvex_box_upload_session_parse(answer, upload.get());
    if (result == TARVEX_SUCCESS)
        result = tarvex_l_box_check_session(upload.get());
    if (result != TARVEX_SUCCESS) {
        upload.reset();
        return tarvex_l_box_error_with_cause(result, "Failed to parse session info!");
    }

    const bool named = tarvex_box_field_set(&upload->name, path);
    upload->total_size = static_cast<uint64_t>(alloc_size);
    upload->part_array = json_array();
    if (!named || upload->part_array == nullptr || MD5_Init(&upload->md5_ctx) != 1 ||
        SHA1_Init(&upload->sha1_ctx) != 1)
        return TARVEX_BOX_MALLOC_ERROR();
    *upload_out = upload.release();
    return TARVEX_SUCCESS;
}

/* ---- parts ---- */

/*
 * Adds a part to the whole file's running SHA-1 and MD5 while the part's
 * request is out.  Nothing needs them before the commit, and they cost
 * about as much time as the request: on a 2-core machine against the
 * emulator an 8 MiB part takes some 18 ms of SHA-1 and MD5 and 20 to 30 ms
 * of request; side by side instead of one after the other, a 1 GiB upload
 * went from 137-175 MB/s to 179-232 MB/s.  Both only read the part
 * buffer.  The caller waits for them before it looks at the request's
 * outcome, so a failed part's data is in the digests as before, and a
 * digest failure still wins over the request's result.  Without a thread
 * they run at once, as before.
 */
class tarvex_l_box_file_digester {
public:
    tarvex_l_box_file_digester(tarvex_box_upload_session_t *upload, const tarvex_byte_t *data,
                               size_t length)
        : upload_(upload), data_(data), length_(length)
    {
        try {
            thread_ = std::thread([this] { run(); });
        } catch (const std::system_error &) {
            run();
        }
    }
    ~tarvex_l_box_file_digester() { wait(); }
    tarvex_l_box_file_digester(const tarvex_l_box_file_digester &) = delete;
    tarvex_l_box_file_digester &operator=(const tarvex_l_box_file_digester &) = delete;

    /* The part is in both digests; their failure, if any. */
    tarvex_result_t finish()
    {
        wait();
        if (failed_ != nullptr)
            return TARVEX_BOX_GENERIC_ERROR("%s", failed_);
        return TARVEX_SUCCESS;
    }

private:
    void run()
    {
        if (SHA1_Update(&upload_->sha1_ctx, data_, length_) != 1)
            failed_ = "Failed updating file sha1 hash.";
        else if (MD5_Update(&upload_->md5_ctx, data_, length_) != 1)
            failed_ = "Failed updating file md5 hash.";
    }
    void wait()
    {
        if (thread_.joinable())
            thread_.join();
    }

    tarvex_box_upload_session_t *upload_;
    const tarvex_byte_t *data_;
    size_t length_;
    const char *failed_ = nullptr; /* written by run(), read after the join */
    std::thread thread_;
};

/* Sends one filled part and keeps Box's record of it for the commit;
 * `*unlisted` says that Box's answer had no record to keep. */
tarvex_result_t tarvex_l_box_send_part(tarvex_gfs_operation_t op, tarvex_box_session_t *box,
                                       tarvex_box_upload_session_t *upload, const char *url,
                                       int index, tarvex_byte_t *buffer, size_t length,
                                       bool *unlisted)
{
    tarvex_box_part_put put;
    tarvex_result_t result = put.prepare(upload, url, index, buffer, length);
    if (result != TARVEX_SUCCESS)
        return result;
    tarvex_l_box_file_digester file_digests(upload, buffer, length);

    /* A part may take long: the token is renewed before every attempt. */
    put.request.refresh_token = true;
    put.request.op = op;
    result = tarvex_box_request(box, &put.request);
    tarvex_result_t digested = file_digests.finish();
    if (digested != TARVEX_SUCCESS) {
        tarvex_error_discard(result);
        return digested;
    }
    if (result != TARVEX_SUCCESS)
        return result;

    if (put.request.json == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    json_t *part = json_object_get(put.request.json, "part");
    *unlisted = part == nullptr;
    if (part != nullptr)
        json_array_append(upload->part_array, part);
    return TARVEX_SUCCESS;
}

/* ---- commit ---- */

/*
 * 202 means Box is still assembling the parts: the attempt fails as
 * retryable and the wait before the next doubles and grows by one second
 * (1, 3, 7, 15 s).  Box's own "Retry-After" on a 202 is not followed.
 */
tarvex_result_t tarvex_l_box_commit_check(tarvex_box_request_t *request, bool *retry,
                                          unsigned long *retry_after)
{
    if (request->response.response_code != 202)
        return TARVEX_SUCCESS;
    *retry = true;
    *retry_after = *retry_after * 2 + 1;
    return TARVEX_BOX_GENERIC_ERROR("%s", "Upload is not ready to commit.");
}

/* The whole file's digests: the MD5 as 32 lower-case hex digits, the SHA-1
 * as a "digest" value. */
tarvex_result_t tarvex_l_box_file_digests(tarvex_box_upload_session_t *upload, char md5_str[33],
                                          char digest[tarvex_box_digest_size],
                                          std::string *sha1_hex)
{
    unsigned char sha1[SHA_DIGEST_LENGTH];
    unsigned char md5[MD5_DIGEST_LENGTH];
    if (SHA1_Final(sha1, &upload->sha1_ctx) != 1)
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed finalizing file sha1 hash.");
    if (MD5_Final(md5, &upload->md5_ctx) != 1)
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed finalizing file md5 hash.");
    for (size_t i = 0; i < MD5_DIGEST_LENGTH; i++)
        snprintf(md5_str + 2 * i, 3, "%.2x", md5[i]);
    for (unsigned char byte : sha1) {
        *sha1_hex += "0123456789abcdef"[byte >> 4];
        *sha1_hex += "0123456789abcdef"[byte & 15];
    }
    tarvex_box_digest_value(sha1, digest);
    return TARVEX_SUCCESS;
}

/*
 * The commit body: "attributes" (only with a known modification time) and
 * "parts".  The part list goes into the body and is released with it: the
 * record no longer holds one, so a commit cannot be assembled twice.
 */
tarvex_result_t tarvex_l_box_commit_body(tarvex_box_upload_session_t *upload,
                                         const char *modtime_str, tarvex_box_cstr_ptr *text)
{
    if (upload->part_array == nullptr)
        return TARVEX_BOX_GENERIC_ERROR(
            "%s", "The parts of this upload went to an earlier commit; store the file anew.");
    tarvex_box_json_ptr body(json_object());
    if (body == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    if (modtime_str[0] != '\0' &&
        json_object_set_new(body.get(), "attributes",
                            json_pack("{s:s}", "content_modified_at", modtime_str)) != 0)
        return TARVEX_BOX_MALLOC_ERROR();
    int set = json_object_set_new(body.get(), "parts", upload->part_array);
    upload->part_array = nullptr;
    if (set != 0)
        return TARVEX_BOX_MALLOC_ERROR();
    text->reset(json_dumps(body.get(), JSON_COMPACT));
    return *text != nullptr ? TARVEX_SUCCESS : TARVEX_BOX_MALLOC_ERROR();
}

/* Where the one-request upload goes: a new file, or a new version. */
tarvex_box_cstr_ptr tarvex_l_box_small_url(const char *version_of)
{
    if (version_of != nullptr)
        return tarvex_box_cstr_ptr(tarvex_common_create_string(
            "%s/api/2.0/files/%s/content", tarvex_box_upload_base(), version_of));
    return tarvex_box_cstr_ptr(
        tarvex_common_create_string("%s/api/2.0/files/content", tarvex_box_upload_base()));
}

tarvex_result_t tarvex_l_box_recv_small(tarvex_gfs_operation_t op,
                                        tarvex_gfs_transfer_info_t *info,
                                        tarvex_box_session_t *box, tarvex_box_path_info_t *parent,
                                        const char *version_of)
{
    /* The range is taken as it is: this path stores whatever arrives as
     * the whole file. */
    tarvex_off_t start_byte = 0, byte_count = -1;
    tarvex_gridftp_server_get_write_range(op, &start_byte, &byte_count);

    char modtime_str[64];
    tarvex_result_t result = tarvex_l_box_client_modtime(op, modtime_str);
    if (result != TARVEX_SUCCESS)
        return result;

    tarvex_uuid_t uuid;
    if (tarvex_uuid_create(&uuid) != 0)
        return TARVEX_BOX_GENERIC_ERROR("%s", "No randomness for the multipart boundary.");
    char content_type[78];
    snprintf(content_type, sizeof(content_type), "multipart/form-data; boundary=tarvex_%36s",
             uuid.text);

    const char *name = tarvex_l_box_base_name(info->pathname);
    if (name == nullptr)
        return tarvex_l_box_no_base_name(info->pathname);
    tarvex_box_cstr_ptr attributes = tarvex_l_box_upload_attributes(
        name, version_of != nullptr ? nullptr : parent->id, modtime_str);
    /* jansson refuses a name that is not UTF-8 as it refuses no memory. */
    if (attributes == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", "The file name cannot be sent to Box.");
    /* The name goes into the part header as it is: Box takes the file's
     * name from the attributes, not from this header. */
    tarvex_box_cstr_ptr disposition(tarvex_common_create_string(
        "form-data; name=\"file\"; filename=\"%s\"", name));
    tarvex_box_cstr_ptr url = tarvex_l_box_small_url(version_of);
    if (disposition == nullptr || url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_gridftp_server_begin_transfer(op, 0, 0);

    tarvex_dsi_rest_key_value_t attributes_headers[] = {
        {"Content-Disposition", "form-data; name=\"attributes\""}};
    tarvex_dsi_rest_key_value_t file_headers[] = {
        {"Content-Disposition", disposition.get()},
        {"Content-Type", "application/octet-stream"}};
    tarvex_dsi_rest_write_block_arg_t attributes_block = {attributes.get(),
                                                          strlen(attributes.get())};
    tarvex_box_upload_stream data(op, start_byte, byte_count,
                                  static_cast<uint64_t>(info->alloc_size), version_of != nullptr);
    tarvex_dsi_rest_write_part_t parts[2] = {
        {{1, attributes_headers}, tarvex_dsi_rest_write_block, &attributes_block},
        {{2, file_headers}, tarvex_box_upload_stream_write, &data},
    };
    tarvex_dsi_rest_multipart_arg_t multipart = {2, parts};
    tarvex_dsi_rest_key_value_t query_pairs[] = {{"fields", tarvex_l_box_upload_fields}};
    tarvex_dsi_rest_key_array_t query = {1, query_pairs};
    tarvex_dsi_rest_key_value_t headers[] = {{"Content-Type", content_type}};

    tarvex_box_request_t request = {
        .method = "POST",
        .url = url.get(),
        .query = &query,
        .headers = headers,
        .header_count = 1,
        .write_callback = tarvex_dsi_rest_write_multipart,
        .write_callback_arg = &multipart,
        /* One attempt: the client's data is read from the data channel as
         * it goes out and cannot be sent a second time. */
        .attempts = 1,
        .retry = &box->user_upload_retry,
        .caller = "tarvex_i_box_recv_small",
    };
    tarvex_box_request_guard guard{&request};
    result = tarvex_box_request(box, &request);
    if (data.off_count) {
        tarvex_error_discard(result);
        return data.off_count_error();
    }
    /* An answer lost after the whole body went out may hide a stored
     * file; one lost before it cannot. */
    if (!data.ended)
        request.answers_lost = 0;
    std::string md5 = version_of != nullptr ? data.md5_hex() : "";
    tarvex_box_stored_file file = {parent, name, version_of != nullptr, data.count,
                                   data.sha1_hex(), md5.empty() ? nullptr : md5.c_str()};
    return tarvex_box_store_outcome(box, file, result, request);
}

tarvex_result_t tarvex_l_box_create_upload_session(tarvex_box_session_t *box,
                                                   tarvex_gfs_transfer_info_t *info,
                                                   tarvex_box_path_info_t *parent,
                                                   const char *version_of,
                                                   tarvex_box_upload_session_t **upload_out);

tarvex_result_t tarvex_l_box_recv_chunked(tarvex_gfs_operation_t op,
                                          tarvex_gfs_transfer_info_t *info,
                                          tarvex_box_session_t *box,
                                          tarvex_box_path_info_t *parent,
                                          const char *version_of)
{
    tarvex_box_upload_session_t *upload = nullptr;
    if (info->truncate) {
        tarvex_result_t result = tarvex_box_traced("tarvex_i_box_create_upload_session", [&] {
            return tarvex_l_box_create_upload_session(box, info, parent, version_of, &upload);
        });
        if (result != TARVEX_SUCCESS)
            return result;
    } else {
        /* A restart continues an upload session of this login only: the
         * table ends with the session, so a client that logged in again
         * must store the file anew. */
        upload = tarvex_box_upload_state_query(&box->upload_state, info->pathname);
        if (upload == nullptr)
            return tarvex_l_box_ftp_error(tarvex_gfs_ftp_response_error_construct(
                nullptr, nullptr, 553, "MULTI_PART_UPLOAD_NOT_FOUND", nullptr));
    }

    /* A failure from here on leaves the record in the table, so that the
     * client can restart the store where it broke off. */
    tarvex_result_t result = tarvex_i_box_upload_parts(op, box, info, upload);
    /* The parts may have taken longer than the token lives. */
    if (result == TARVEX_SUCCESS)
        result = tarvex_box_token_refresh(box, op);
    if (result == TARVEX_SUCCESS)
        result = tarvex_i_box_commit_upload(op, box, info, parent, upload);
    if (result == TARVEX_SUCCESS)
        tarvex_box_upload_state_remove(&box->upload_state, info->pathname);
    return result;
}

/* What opens the session: for a new file its folder, size and name; for
 * a new version the file's URL, its size and name. */
tarvex_box_json_ptr tarvex_l_box_session_body(const tarvex_box_path_info_t *parent,
                                              const char *name, tarvex_off_t size,
                                              const char *version_of)
{
    json_int_t file_size = static_cast<json_int_t>(size);
    if (version_of != nullptr)
        return tarvex_box_json_ptr(
            json_pack("{s:I, s:s}", "file_size", file_size, "file_name", name));
    return tarvex_box_json_ptr(json_pack("{s:s, s:I, s:s}", "folder_id", parent->id,
                                         "file_size", file_size, "file_name", name));
}

tarvex_box_cstr_ptr tarvex_l_box_session_url(const char *version_of)
{
    if (version_of != nullptr)
        return tarvex_box_cstr_ptr(tarvex_common_create_string(
            "%s/api/2.0/files/%s/upload_sessions", tarvex_box_upload_base(), version_of));
    return tarvex_box_cstr_ptr(tarvex_common_create_string("%s/api/2.0/files/upload_sessions",
                                                           tarvex_box_upload_base()));
}

tarvex_result_t tarvex_l_box_create_upload_session(tarvex_box_session_t *box,
                                                   tarvex_gfs_transfer_info_t *info,
                                                   tarvex_box_path_info_t *parent,
                                                   const char *version_of,
                                                   tarvex_box_upload_session_t **upload_out)
{
    if (parent->type != TARVEX_BOX_FOLDER)
        return tarvex_l_box_ftp_error(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 553, "NOT_A_DIRECTORY", "GridFTP-Path: %s", info->pathname));
    const char *name = tarvex_l_box_base_name(info->pathname);
    if (name == nullptr)
        return tarvex_l_box_no_base_name(info->pathname);

    tarvex_box_json_ptr body =
        tarvex_l_box_session_body(parent, name, info->alloc_size, version_of);
    /* jansson refuses a name that is not UTF-8 as it refuses no memory. */
    if (body == nullptr)
        return TARVEX_BOX_GENERIC_ERROR("%s", "The file name cannot be sent to Box.");
    tarvex_box_cstr_ptr text(json_dumps(body.get(), JSON_COMPACT));
    tarvex_box_cstr_ptr url = tarvex_l_box_session_url(version_of);
    if (text == nullptr || url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_l_box_json_post post(text.get(), nullptr);
    tarvex_box_request_t request =
        post.request(url.get(), {.attempts = 3,
                                 .retry = &box->user_upload_retry,
                                 .caller = "tarvex_i_box_create_upload_session"});
    tarvex_box_request_guard guard{&request};
    tarvex_result_t result = tarvex_box_request(box, &request);
    if (result != TARVEX_SUCCESS)
        return result;
    /* An empty success has always been reported as lack of memory. */
    if (request.json == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_box_upload_session_t *upload = nullptr;
    result = tarvex_l_box_new_session(request.json, info->pathname, info->alloc_size, &upload);
    if (result != TARVEX_SUCCESS)
        return result;
    upload->new_version = version_of != nullptr;
    /* The table keeps an open upload of this path and refuses a second
     * one: a fresh store over an upload that broke off in this login fails
     * here, after Box has opened the new session. */
    if (!tarvex::Result(tarvex_box_upload_state_update(&box->upload_state, upload, upload->name))
             .ok()) {
        tarvex_box_upload_session_free(upload);
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed cache update!");
    }
    *upload_out = upload;
    return TARVEX_SUCCESS;
}

tarvex_result_t tarvex_l_box_upload_session_parse(json_t *json,
                                                  tarvex_box_upload_session_t *info)
{
    const char *id = json_string_value(json_object_get(json, "id"));
    if (id != nullptr) {
        if (!tarvex_box_field_set(&info->id, id))
            return TARVEX_BOX_MALLOC_ERROR();
    }
    tarvex_result_t result = TARVEX_SUCCESS;
    json_t *part_size = json_object_get(json, "part_size");
    if (json_is_integer(part_size)) {
        info->part_size = static_cast<uint64_t>(json_integer_value(part_size));
        if (info->part_size == 0)
            result = TARVEX_BOX_GENERIC_ERROR("%s", "Invalid part size!");
    }
    json_t *total_parts = json_object_get(json, "total_parts");
    if (json_is_integer(total_parts)) {
        json_int_t parts = json_integer_value(total_parts);
        info->num_parts = parts > INT32_MAX ? INT32_MAX : static_cast<int>(parts);
        if (parts < 1) {
            /* The more telling of the two complaints. */
            tarvex_error_discard(result);
            result = TARVEX_BOX_GENERIC_ERROR("%s", "Invalid number of parts!");
        }
    }
    return result;
}

tarvex_result_t tarvex_l_box_upload_parts(tarvex_gfs_operation_t op, tarvex_box_session_t *box,
                                          tarvex_gfs_transfer_info_t *info,
                                          tarvex_box_upload_session_t *upload)
{
    tarvex_off_t offset = 0, length = -1;
    tarvex_gridftp_server_get_write_range(op, &offset, &length);

    /* Box takes whole parts only: a store continues a broken one at a part
     * boundary (where the restart marker of a part that went through
     * lies), and anything else, an append or a range inside a part, is
     * refused. */
    uint64_t part_size = upload->part_size;
    if ((length != -1 && length != info->alloc_size) || offset < 0 ||
        static_cast<uint64_t>(offset) % part_size != 0)
        return tarvex_l_box_ftp_error(tarvex_gfs_ftp_response_error_construct(
            nullptr, nullptr, 553, "APPEND_NOT_SUPPORTED", nullptr));

    uint64_t first_part = static_cast<uint64_t>(offset) / part_size;
    tarvex_box_cstr_ptr url(tarvex_common_create_string(
        "%s/api/2.0/files/upload_sessions/%s", tarvex_box_upload_base(), upload->id));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    tarvex_gridftp_server_begin_transfer(op, 0, 0);
    /* With the policy's "upload_parts_in_flight", several at a time
     * (upload_parts.h); one at a time should no thread be had. */
    if (tarvex_i_box_upload_parts_in_flight > 1 &&
        first_part < static_cast<uint64_t>(upload->num_parts)) {
        bool started = false;
        tarvex_result_t result = tarvex_box_upload_parts_in_flight(
            op, box, upload, url.get(), static_cast<int>(first_part),
            tarvex_i_box_upload_parts_in_flight, &started);
        if (started)
            return result;
        tarvex_error_discard(result);
    }
    /* The only copy of the client's data held: one part at a time. */
    tarvex_box_bytes buffer = tarvex_box_bytes_alloc(part_size);
    if (buffer == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    /* A restart past the last part sends nothing and answers the bare
     * failure value, with no error object: the client sees the server's
     * plain "451 Operation failed." as it always has. */
    if (first_part >= static_cast<uint64_t>(upload->num_parts))
        return TARVEX_FAILURE;

    tarvex_box_monitor_scope reader;
    tarvex_box_monitor_t &monitor = reader.monitor;

    /* A part whose answer lacks "part" is left out of the commit's list;
     * the complaint is kept only when it is the last part's (the next
     * part's read replaces it), which is how clients have always seen it.
     * An earlier part missing makes Box refuse the commit instead. */
    tarvex_result_t result = TARVEX_SUCCESS;
    for (int index = static_cast<int>(first_part); index < upload->num_parts; index++) {
        bool last = index == upload->num_parts - 1;
        tarvex_error_discard(result);
        result = tarvex_box_fill_part(op, &monitor, buffer.get(), part_size, last);
        if (result != TARVEX_SUCCESS)
            break;
        bool unlisted = false;
        result = tarvex_l_box_send_part(op, box, upload, url.get(), index, buffer.get(),
                                        monitor.length, &unlisted);
        if (result != TARVEX_SUCCESS)
            break;
        if (unlisted)
            result = TARVEX_BOX_GENERIC_ERROR("%s", "invalid part upload response");
    }
    return result;
}

tarvex_result_t tarvex_l_box_commit_upload(tarvex_gfs_operation_t op, tarvex_box_session_t *box,
                                           tarvex_gfs_transfer_info_t *info,
                                           tarvex_box_path_info_t *parent,
                                           tarvex_box_upload_session_t *upload)
{
    char modtime_str[64];
    tarvex_result_t result = tarvex_l_box_client_modtime(op, modtime_str);
    if (result != TARVEX_SUCCESS)
        return result;

    char md5_str[33];
    char digest[tarvex_box_digest_size];
    std::string sha1_hex;
    result = tarvex_l_box_file_digests(upload, md5_str, digest, &sha1_hex);
    if (result != TARVEX_SUCCESS)
        return result;
    tarvex_box_cstr_ptr body;
    result = tarvex_l_box_commit_body(upload, modtime_str, &body);
    if (result != TARVEX_SUCCESS)
        return result;
    tarvex_box_cstr_ptr url(tarvex_common_create_string(
        "%s/api/2.0/files/upload_sessions/%s/commit", tarvex_box_upload_base(), upload->id));
    if (url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    tarvex_dsi_rest_key_value_t query_pairs[] = {{"fields", tarvex_l_box_upload_fields}};
    tarvex_dsi_rest_key_array_t query = {1, query_pairs};
    tarvex_l_box_json_post post(body.get(), digest);

    /* No shared pacing: the commit waits only as Box or its 202s ask. */
    tarvex_box_request_t request = post.request(
        url.get(), {.attempts = 5, .retry = nullptr, .caller = "tarvex_i_box_commit_upload"});
    request.query = &query;
    request.check_answer = tarvex_l_box_commit_check;
    tarvex_box_request_guard guard{&request};
    result = tarvex_box_request(box, &request);
    const char *name = tarvex_l_box_base_name(info->pathname);
    if (name == nullptr) {
        tarvex_error_discard(result);
        return tarvex_l_box_no_base_name(info->pathname);
    }
    tarvex_box_stored_file file = {parent,           name,   upload->new_version,
                                   upload->total_size, sha1_hex, md5_str};
    return tarvex_box_store_outcome(box, file, result, request);
}

} // namespace

/* ---- the receive operation and its steps ---- */

extern "C" void tarvex_i_box_recv(tarvex_gfs_operation_t op,
                                  tarvex_gfs_transfer_info_t *transfer_info, void *user_arg)
{
    TARVEX_BOX_TRACE_ENTER();
    auto *box = static_cast<tarvex_box_session_t *>(user_arg);
    const unsigned long writes = tarvex_box_journal_writes(box);
    tarvex_result_t result =
        tarvex_box_guarded([&] { return tarvex_l_box_recv(op, transfer_info, box); });
    tarvex_box_journal_publish(box, writes, transfer_info->pathname);
    tarvex_gridftp_server_finished_transfer(op, result);
    TARVEX_BOX_TRACE_RESULT(result);
}

/* The C entry points store new files; the receive operation itself also
 * stores new versions. */
extern "C" tarvex_result_t tarvex_i_box_recv_small(tarvex_gfs_operation_t op,
                                                   tarvex_gfs_transfer_info_t *info,
                                                   tarvex_box_session_t *box,
                                                   tarvex_box_path_info_t *parent)
{
    return TARVEX_BOX_TRACED(tarvex_l_box_recv_small(op, info, box, parent, nullptr));
}

extern "C" tarvex_result_t tarvex_i_box_recv_chunked(tarvex_gfs_operation_t op,
                                                     tarvex_gfs_transfer_info_t *info,
                                                     tarvex_box_session_t *box,
                                                     tarvex_box_path_info_t *parent)
{
    return TARVEX_BOX_TRACED(tarvex_l_box_recv_chunked(op, info, box, parent, nullptr));
}

extern "C" tarvex_result_t tarvex_i_box_create_upload_session(
    tarvex_box_session_t *box, tarvex_gfs_transfer_info_t *info, tarvex_box_path_info_t *parent,
    tarvex_box_upload_session_t **upload)
{
    return TARVEX_BOX_TRACED(
        tarvex_l_box_create_upload_session(box, info, parent, nullptr, upload));
}

extern "C" tarvex_result_t tarvex_box_upload_session_parse(json_t *json,
                                                          tarvex_box_upload_session_t *info)
{
    return TARVEX_BOX_TRACED(tarvex_l_box_upload_session_parse(json, info));
}

extern "C" tarvex_result_t tarvex_i_box_upload_parts(tarvex_gfs_operation_t op,
                                                     tarvex_box_session_t *box,
                                                     tarvex_gfs_transfer_info_t *info,
                                                     tarvex_box_upload_session_t *upload)
{
    return TARVEX_BOX_TRACED(tarvex_l_box_upload_parts(op, box, info, upload));
}

extern "C" tarvex_result_t tarvex_i_box_commit_upload(tarvex_gfs_operation_t op,
                                                      tarvex_box_session_t *box,
                                                      tarvex_gfs_transfer_info_t *info,
                                                      tarvex_box_path_info_t *parent,
                                                      tarvex_box_upload_session_t *upload)
{
    return TARVEX_BOX_TRACED(tarvex_l_box_commit_upload(op, box, info, parent, upload));
}
