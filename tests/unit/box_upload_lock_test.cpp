/*
 * The upload lock's refusal when there is no state file to lock.
 */
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <string>

#include "box_scratch.h"
#include "config.h"
#include "upload_state.h"

namespace {

/* A FIFO where the state file would be: the handle still works, on private
 * zeroed memory, and its lock is refused as "System error in fnctl" (spelt
 * so) carrying EBADF, since there is no file to lock.  (A folder that cannot
 * be made leaves no file either: BoxFrameRetry's fallback test.) */
TEST(BoxUploadLock, FallsBackToPrivateMemory)
{
    tarvex_test::box_scratch box;
    const char *saved = tarvex_i_box_upload_path;
    const std::string dir = box.dir() + "/box-u";
    tarvex_i_box_upload_path = dir.c_str();
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((dir + "/x").c_str(), 0600), 0);

    tarvex_box_upload_state_t state{};
    tarvex_i_box_upload_state_create("x", &state);
    tarvex_i_box_upload_path = saved;
    EXPECT_TRUE(state.is);
    EXPECT_EQ(state.fd, -1);
    ASSERT_NE(state.shared, nullptr);
    const char *bytes = reinterpret_cast<const char *>(state.shared);
    EXPECT_EQ(std::string(bytes, 4440), std::string(4440, '\0'));

    tarvex_result_t result = tarvex_i_box_upload_state_lock(&state, false);
    ASSERT_NE(result, TARVEX_SUCCESS);
    EXPECT_EQ(tarvex_error_errno_get_errno(tarvex_error_peek(result)), EBADF);
    char *reply = tarvex_gfs_error_to_ftp_reply(result, 0);
    EXPECT_EQ(std::string(reply).rfind("451 System error in fnctl: ", 0), 0u) << reply;
    free(reply);
    tarvex_object_free(tarvex_error_get(result));
    tarvex_i_box_upload_state_destroy(&state);
    EXPECT_EQ(state.shared, nullptr);
}

} // namespace
