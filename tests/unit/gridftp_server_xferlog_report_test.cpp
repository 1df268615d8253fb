// The server's log speaks of a transfer log line only when the line did
// not reach the file: a line written whole leaves it silent, a line that
// could not be sent is kept there rather than lost.
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include "xferlog.h"

using namespace tarvex_server;

namespace {

TEST(ServerXferlogReport, SilentWhenWrittenLineKeptWhenNot)
{
    char dir[] = "/tmp/tarvex-xferlog-report-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    std::string path = std::string(dir) + "/xferlog";
    {
        TransferLog log;
        std::string err;
        ASSERT_TRUE(log.open(path, err)) << err;
        testing::internal::CaptureStderr();
        log.send("written\n");
        log.drain();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    }
    std::stringstream file;
    file << std::ifstream(path).rdbuf();
    EXPECT_EQ(file.str(), "written\n");

    TransferLog closed;
    testing::internal::CaptureStderr();
    closed.send("kept\n");
    std::string reported = testing::internal::GetCapturedStderr();
    EXPECT_NE(reported.find("not open; line: kept"), std::string::npos) << reported;
    unlink(path.c_str());
    rmdir(dir);
}

} // namespace
