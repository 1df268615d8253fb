/*
 * The one-request upload's file part: the client's data, counted against
 * the announced size and digested as it goes out (upload_stream.h).
 */
#include <stdio.h>

/* Generic errors from here name their source by this short name. */
#undef TARVEX_BOX_SOURCE /* a unity build's previous file */
#define TARVEX_BOX_SOURCE "recv"
#include "upload_stream.h"

namespace {

std::string hex_of(const unsigned char *digest, size_t length)
{
    std::string hex;
    for (size_t i = 0; i < length; i++) {
        hex += "0123456789abcdef"[digest[i] >> 4];
        hex += "0123456789abcdef"[digest[i] & 15];
    }
    return hex;
}

} // namespace

tarvex_box_upload_stream::tarvex_box_upload_stream(tarvex_gfs_operation_t op,
                                                   tarvex_off_t start, tarvex_off_t length,
                                                   uint64_t announced_size, bool md5_too)
    : data{op, start, length, false}, announced(announced_size), with_md5(md5_too)
{
    SHA1_Init(&sha1);
    MD5_Init(&md5);
}

std::string tarvex_box_upload_stream::sha1_hex() const
{
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA_CTX copy = sha1;
    SHA1_Final(digest, &copy);
    return hex_of(digest, sizeof digest);
}

std::string tarvex_box_upload_stream::md5_hex() const
{
    unsigned char digest[MD5_DIGEST_LENGTH];
    MD5_CTX copy = md5;
    MD5_Final(digest, &copy);
    return hex_of(digest, sizeof digest);
}

tarvex_result_t tarvex_box_upload_stream::off_count_error() const
{
    if (count > announced)
        return TARVEX_BOX_GENERIC_ERROR(
            "The client sent more than the %llu bytes it announced (ALLO); nothing was stored.",
            static_cast<unsigned long long>(announced));
    return TARVEX_BOX_GENERIC_ERROR(
        "The client sent %llu bytes where it announced %llu (ALLO); nothing was stored.",
        static_cast<unsigned long long>(count), static_cast<unsigned long long>(announced));
}

tarvex_result_t tarvex_box_upload_stream_write(void *arg, char *buffer, size_t length,
                                               size_t *written)
{
    auto *stream = static_cast<tarvex_box_upload_stream *>(arg);
    tarvex_result_t result = tarvex_dsi_rest_write_gridftp_op(&stream->data, buffer, length,
                                                              written);
    if (result != TARVEX_SUCCESS)
        return result;
    stream->count += *written;
    /* The refusal itself is made by the uploader once the request is over
     * (off_count_error): this one only ends the exchange, and the REST
     * client's wrapping of it is dropped. */
    bool counted = stream->announced != 0;
    if (counted && (stream->count > stream->announced ||
                    (*written == 0 && stream->count != stream->announced))) {
        stream->off_count = true;
        return TARVEX_BOX_GENERIC_ERROR("%s", "The client's data did not match its ALLO.");
    }
    if (*written == 0) {
        stream->ended = true;
        return TARVEX_SUCCESS;
    }
    if (SHA1_Update(&stream->sha1, buffer, *written) != 1)
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed updating file sha1 hash.");
    if (stream->with_md5 && MD5_Update(&stream->md5, buffer, *written) != 1)
        return TARVEX_BOX_GENERIC_ERROR("%s", "Failed updating file md5 hash.");
    return TARVEX_SUCCESS;
}
