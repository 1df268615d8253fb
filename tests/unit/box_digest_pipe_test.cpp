/* The checksum's digest pipe gives the digests of exactly the bytes fed,
 * in order, whatever the pieces and however often it is finished. */
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "digest_pipe.h"
#include "driver.h"

namespace {

std::string digests(const MD5_CTX &md5_in, const SHA_CTX &sha1_in)
{
    MD5_CTX md5 = md5_in;
    SHA_CTX sha1 = sha1_in;
    unsigned char out[MD5_DIGEST_LENGTH + SHA_DIGEST_LENGTH];
    MD5_Final(out, &md5);
    SHA1_Final(out + MD5_DIGEST_LENGTH, &sha1);
    return std::string(reinterpret_cast<char *>(out), sizeof out);
}

TEST(BoxDigestPipe, DigestsOfTheBytesFedInOrder)
{
    /* Pieces that straddle the pipe's buffers, and a finish in between. */
    const std::string data = tarvex_test::pattern(5 * (1 << 20) + 12345);
    MD5_CTX want_md5, md5;
    SHA_CTX want_sha1, sha1;
    MD5_Init(&want_md5);
    SHA1_Init(&want_sha1);
    MD5_Update(&want_md5, data.data(), data.size());
    SHA1_Update(&want_sha1, data.data(), data.size());

    MD5_Init(&md5);
    SHA1_Init(&sha1);
    {
        tarvex_box_digest_pipe pipe(&md5, &sha1);
        size_t at = 0;
        for (size_t piece = 1; at < data.size(); piece = piece * 7 % 300007 + 1) {
            size_t n = std::min(piece, data.size() - at);
            pipe.feed(data.data() + at, n);
            at += n;
            if (at > data.size() / 2 && at - n <= data.size() / 2)
                pipe.finish();
        }
        pipe.finish();
        EXPECT_EQ(digests(md5, sha1), digests(want_md5, want_sha1));
    }
    EXPECT_EQ(digests(md5, sha1), digests(want_md5, want_sha1));
}

} // namespace
