// --port takes every TCP port, 65535 included, and nothing beyond.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "options.h"

using namespace tarvex_server;

namespace {

TEST(ServerPortRange, EveryTcpPortAndNoMore)
{
    struct Case {
        std::string port;
        int rc;
    } cases[] = {{"1", 0}, {"65535", 0}, {"65536", -1}, {"-1", -1}};
    for (const Case &c : cases) {
        std::vector<std::string> args = {"tarvex-gridftp-server", "--dsi", "posix",
                                         "--anonymous-map", "--port", c.port};
        std::vector<char *> argv;
        argv.reserve(args.size());
        for (std::string &a : args)
            argv.push_back(a.data());
        Options o;
        std::string err;
        EXPECT_EQ(parse_options_with({}, static_cast<int>(argv.size()), argv.data(), o, err), c.rc)
            << c.port << ": " << err;
        if (c.rc == 0) {
            EXPECT_EQ(o.port, std::stoi(c.port));
        }
    }
}

} // namespace
