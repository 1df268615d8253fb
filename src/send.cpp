/*
 * Download (RETR, also partial and striped retrievals): each read range the
 * server asks for is fetched from Box in two requests, the file's content
 * URL, which answers with a redirect, and the "Location" it names, whose
 * body the REST client streams into the data channel at the range's
 * offsets.  Nothing is held in memory beyond the REST client's buffers,
 * whatever the file's size.  The "Location" is a signed link: it is
 * fetched without the user's token and never named in a reply or a log.
 * With the policy's "download_streams", a large file's rest is fetched in
 * several ranges at once instead (download_ranges.h).
 */
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include <algorithm>
#include <string>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "send"
#include "config.h"
#include "download_ranges.h"
#include "error.h"
#include "origin.h"
#include "path_resolve.h"
#include "range_answer.h"
#include "request.h"
#include "send.h"
#include "tarvex_box_common.h"
#include "tarvex_box_raii.h"
#include "token.h"

namespace {

/* The two requests of one range share this many attempts: a retry spent on
 * the content request is one the download cannot have. */
constexpr int tarvex_l_box_range_attempts = 2;

/* One read range on its way from Box into the data channel. */
struct tarvex_l_box_range {
    tarvex_off_t start_byte;
    tarvex_off_t byte_count;               /* negative: to the end of the file */
    tarvex_dsi_rest_gridftp_op_arg_t sink; /* offset: where the next byte goes */
    tarvex_box_cstr_ptr value;             /* the "Range" value, or none */
    tarvex_dsi_rest_key_value_t header;
    tarvex_box_range_answer answer;        /* the answer being read */
};

/* Bytes the range wants from `from` on; negative: to the end. */
tarvex_off_t tarvex_l_box_wanted_from(const tarvex_l_box_range *range, tarvex_off_t from)
{
    return range->byte_count < 0 ? -1 : range->start_byte + range->byte_count - from;
}

/*
 * Makes the "Range" value asking for the range's bytes from `from` on:
 * "bytes=F-L" for a range of known length, "bytes=F-" to the end, and no
 * header at all for a whole file from its first byte.
 */
tarvex_result_t tarvex_l_box_range_ask(tarvex_l_box_range *range, tarvex_off_t from)
{
    range->value.reset();
    range->answer.reset(from, tarvex_l_box_wanted_from(range, from));
    if (range->byte_count >= 0) {
        long last = static_cast<long>(range->start_byte + range->byte_count - 1);
        range->value.reset(
            tarvex_common_create_string("bytes=%ld-%ld", static_cast<long>(from), last));
    } else if (from != 0) {
        range->value.reset(tarvex_common_create_string("bytes=%ld-", static_cast<long>(from)));
    } else {
        return TARVEX_SUCCESS;
    }
    if (range->value == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();
    range->header = {"Range", range->value.get()};
    return TARVEX_SUCCESS;
}

/* The request's own headers (after "Authorization"): the "Range", if any. */
void tarvex_l_box_range_headers(const tarvex_l_box_range *range, tarvex_box_request_t *request)
{
    request->headers = range->value ? &range->header : nullptr;
    request->header_count = range->value ? 1 : 0;
}

/*
 * Before each attempt of the download: a retry asks only for the bytes not
 * yet handed to the data channel and writes them where they belong.  Asking
 * for the whole range again would hand the client its first bytes twice: in
 * stream mode the server sends bytes in the order it gets them, whatever
 * offsets they carry.  The REST client moves `sink.offset` on only for
 * bytes the data channel has taken, so it is exactly where to resume.
 */
tarvex_result_t tarvex_l_box_resume(tarvex_box_request_t *request, void *arg)
{
    auto *range = static_cast<tarvex_l_box_range *>(arg);
    range->sink.eof = false;
    range->sink.length = range->byte_count < 0 ? -1
                                               : range->start_byte + range->byte_count -
                                                     range->sink.offset;
    if (range->sink.offset != range->answer.asked_from) {
        tarvex_result_t result = tarvex_l_box_range_ask(range, range->sink.offset);
        if (result != TARVEX_SUCCESS)
            return result;
    }
    range->answer.reset(range->sink.offset,
                        tarvex_l_box_wanted_from(range, range->sink.offset));
    tarvex_l_box_range_headers(range, request);
    return TARVEX_SUCCESS;
}

/* The download's read callback: the range's bytes of the answer to the
 * data channel, at their offsets (range_answer.h). */
tarvex_result_t tarvex_l_box_take_body(void *arg, void *buffer, size_t length)
{
    auto *range = static_cast<tarvex_l_box_range *>(arg);
    const char *data = static_cast<const char *>(buffer);
    tarvex_result_t result = range->answer.take(&data, &length);
    if (result != TARVEX_SUCCESS || length == 0)
        return result;
    return tarvex_dsi_rest_read_gridftp_op(&range->sink, const_cast<char *>(data), length);
}

/* A download's failure names the file and the host it came from, never
 * the signed link itself: its details end the error's chain. */
tarvex_result_t tarvex_l_box_name_download(tarvex_result_t result, const char *path,
                                           const char *location)
{
    if (result == TARVEX_SUCCESS)
        return result;
    std::string host = tarvex_box_origin(location);
    tarvex_dsi_rest_key_value_t pairs[2] = {
        {"Box-Path", path}, {"Box-Download-Host", host.empty() ? nullptr : host.c_str()}};
    tarvex_dsi_rest_key_array_t info = {2, pairs};
    return tarvex_box_error_append(result, &info);
}

/*
 * The content request: Box answers 302 with the download's "Location".
 * Success leaves that value in `content`'s outputs; the caller's guard
 * releases them.
 */
tarvex_result_t tarvex_l_box_ask_location(tarvex_box_session_t *box, const char *content_url,
                                          tarvex_l_box_range *range,
                                          tarvex_box_request_t *content, const char **location)
{
    static const char *const wanted[] = {"Location"};
    *content = {
        .method = "GET",
        .url = content_url,
        .wanted_headers = wanted,
        .wanted_header_count = 1,
        .attempts = tarvex_l_box_range_attempts,
        .retry = &box->user_retry,
        .expected_status = 302,
        .caller = "tarvex_i_box_send",
    };
    tarvex_l_box_range_headers(range, content);

    tarvex_result_t result = tarvex_box_request(box, content);
    if (result != TARVEX_SUCCESS)
        return result;
    /* Box always names a location; an answer without one (a bare 302, or
     * a 4xx that the translation lets pass) leaves nothing to download. */
    *location = tarvex_box_request_header(content, "Location");
    if (*location == nullptr || (*location)[0] == '\0')
        return TARVEX_BOX_GENERIC_ERROR("%s", "Box named no download location for the file");
    return TARVEX_SUCCESS;
}

/* One read range of the file of `size` bytes: the content request, then
 * the download streamed into the data channel from `start_byte` on, or
 * several ranges of it at once (download_ranges.h). */
tarvex_result_t tarvex_l_box_send_range(tarvex_box_session_t *box, tarvex_gfs_operation_t op,
                                        const char *path, const char *content_url,
                                        tarvex_off_t start_byte, tarvex_off_t byte_count,
                                        uint64_t size)
{
    tarvex_l_box_range range = {};
    range.start_byte = start_byte;
    range.byte_count = byte_count;
    range.sink = {op, start_byte, byte_count, false};
    tarvex_result_t result = tarvex_l_box_range_ask(&range, start_byte);
    if (result != TARVEX_SUCCESS)
        return result;

    tarvex_box_request_t content = {};
    tarvex_box_request_guard content_guard{&content};
    const char *location = nullptr;
    result = tarvex_l_box_ask_location(box, content_url, &range, &content, &location);
    if (result != TARVEX_SUCCESS)
        return result;

    int attempts = tarvex_l_box_range_attempts + 1 - content.attempts_made;
    if (tarvex_box_download_in_streams(start_byte, byte_count, size)) {
        bool started = false;
        result = tarvex_box_download_ranges(op, box, location, start_byte, size, attempts,
                                            &started);
        if (started)
            return tarvex_l_box_name_download(result, path, location);
        tarvex_error_discard(result);
    }

    tarvex_box_request_t download = tarvex_box_download_request(
        location, tarvex_l_box_take_body, tarvex_l_box_resume, &range, attempts);
    tarvex_box_request_guard download_guard{&download};
    range.answer.request = &download;
    result = tarvex_box_request(box, &download);
    if (result != TARVEX_SUCCESS && range.answer.refusal != nullptr) {
        tarvex_error_discard(result);
        result = TARVEX_BOX_GENERIC_ERROR("%s", range.answer.refusal);
    }
    return tarvex_l_box_name_download(result, path, location);
}

/* Everything between entry and the one finished_transfer call. */
tarvex_result_t tarvex_l_box_send(tarvex_gfs_operation_t op,
                                  tarvex_gfs_transfer_info_t *transfer_info,
                                  tarvex_box_session_t *box)
{
    tarvex_result_t result = tarvex_box_token_refresh(box, op);
    if (result != TARVEX_SUCCESS)
        return result;
    /* A folder is not refused here: Box's answer to the request for its
     * content is what the client is told. */
    tarvex_box_path_info_t *path_info = nullptr;
    result = tarvex_box_path_resolve(box, transfer_info->pathname, &path_info, nullptr);
    if (result != TARVEX_SUCCESS)
        return result;

    tarvex_gridftp_server_begin_transfer(op, 0, nullptr);
    tarvex_box_cstr_ptr content_url(tarvex_common_create_string(
        "%s/2.0/files/%s/content", tarvex_box_api_base(), path_info->id));
    if (content_url == nullptr)
        return TARVEX_BOX_MALLOC_ERROR();

    for (;;) {
        tarvex_off_t start_byte = 0, byte_count = 0;
        tarvex_gridftp_server_get_read_range(op, &start_byte, &byte_count);
        if (byte_count == 0)
            return TARVEX_SUCCESS;
        if (start_byte < 0)
            return TARVEX_BOX_GENERIC_ERROR("%s", "The server asked for a negative offset");
        result = tarvex_l_box_send_range(box, op, transfer_info->pathname, content_url.get(),
                                         start_byte, byte_count, path_info->size);
        if (result != TARVEX_SUCCESS || byte_count < 1)
            return result; /* a range to the end of the file is the last one */
    }
}

} // namespace

tarvex_box_request_t tarvex_box_download_request(
    const char *location, tarvex_dsi_rest_data_read_t read,
    tarvex_result_t (*resume)(tarvex_box_request_t *request, void *arg), void *arg,
    int attempts)
{
    static const char *const wanted[] = {"Content-Range"};
    static const int body_statuses[] = {200, 206};
    return {
        .method = "GET",
        .url = location,
        .read_callback = read,
        .read_callback_arg = arg,
        .before_attempt = resume,
        .before_attempt_arg = arg,
        .wanted_headers = wanted,
        .wanted_header_count = 1,
        .attempts = attempts,
        .no_delay = true,
        .translate_without_body = true,
        .success_statuses = body_statuses,
        .success_status_count = 2,
        .signed_url = true,
        .caller = "tarvex_i_box_send",
    };
}

extern "C" void tarvex_i_box_send(tarvex_gfs_operation_t op,
                                  tarvex_gfs_transfer_info_t *transfer_info, void *user_arg)
{
    TARVEX_BOX_TRACE_ENTER();
    auto *box = static_cast<tarvex_box_session_t *>(user_arg);
    tarvex_result_t result =
        tarvex_box_guarded([&] { return tarvex_l_box_send(op, transfer_info, box); });
    tarvex_gridftp_server_finished_transfer(op, result);
    TARVEX_BOX_TRACE_RESULT(result);
}
