// The server's configuration file and how its settings meet the command
// line: what a line may say, what each mistake is called (file, line,
// key), and which side wins; a configuration command cut off.
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <string>
#include <vector>

#include "config_data.h"
#include "config_file.h"
#include "options.h"

using namespace tarvex_server;

namespace {

// "key=value@line" for each setting, or the error.
std::string parsed(const std::string &text)
{
    std::vector<Setting> out;
    std::string err;
    if (!parse_config_text("f.conf", text, out, err))
        return err;
    std::string all;
    for (const Setting &s : out)
        all += (all.empty() ? "" : " ") + s.key + "=" + s.value + "@" + std::to_string(s.line);
    return all;
}

TEST(ServerConfigFile, LinesAndTheirMistakes)
{
    struct Case {
        const char *text;
        const char *want;
    } cases[] = {
        {"", ""},
        {"# comment\n\n   # indented comment\nport = 2811\n", "port=2811@4"},
        {"  bind=0.0.0.0  \r\nrequire-tls = true\r\n", "bind=0.0.0.0@1 require-tls=true@2"},
        // '#' and '=' past the first belong to the value: commands hold them.
        {"config-command = creds=helper \"$U\" # x=1", "config-command=creds=helper \"$U\" # x=1@1"},
        {"last = line without newline", "last=line without newline@1"},
        {"\n = 5\n", "f.conf:2: no key before '='"},
    };
    for (const Case &c : cases)
        EXPECT_EQ(parsed(c.text), c.want) << c.text;
    EXPECT_EQ(parsed(std::string("port = 1\0\n", 10)), "f.conf:1: a NUL byte: not a text file");
}

// Runs parse_options on `args` (after the program name); the error or "".
struct Parsed {
    int rc = 0;
    std::string err;
    Options opts;
};

Parsed parse(std::vector<std::string> args)
{
    args.insert(args.begin(), "tarvex-gridftp-server");
    std::vector<char *> argv;
    argv.reserve(args.size());
    for (std::string &a : args)
        argv.push_back(a.data());
    Parsed p;
    p.rc = parse_options(static_cast<int>(argv.size()), argv.data(), p.opts, p.err);
    return p;
}

// One configuration file per test, rewritten for each case.
class ServerConfigOptions : public ::testing::Test {
protected:
    std::string write(const std::string &text)
    {
        std::ofstream(path_, std::ios::trunc) << text;
        return path_;
    }
    void TearDown() override { unlink(path_.c_str()); }

private:
    std::string path_ = testing::TempDir() + "tarvex-options-" + std::to_string(getpid());
};

TEST_F(ServerConfigOptions, TheCommandLineWinsOverTheFile)
{
    std::string conf = write("port = 2811\n"
                             "dsi = box\n"
                             "anonymous-map = true\n"
                             "foreground = false\n"
                             "pasv-range = 50000-50999\n"
                             "config-file = config=/etc/policy.json\n"
                             "config-file = creds=/etc/creds.json\n");
    Parsed p = parse({"--config", conf, "--port", "2121", "--config-file", "creds=/tmp/c"});
    ASSERT_EQ(p.rc, 0) << p.err;
    EXPECT_EQ(p.opts.port, 2121);
    EXPECT_EQ(p.opts.dsi, "box");
    EXPECT_TRUE(p.opts.anonymous_map);
    EXPECT_FALSE(p.opts.foreground);
    EXPECT_EQ(p.opts.pasv_low, 50000);
    EXPECT_EQ(p.opts.config_files,
              (std::map<std::string, std::string>{{"config", "/etc/policy.json"},
                                                  {"creds", "/tmp/c"}}));
    EXPECT_EQ(p.opts.config_path, conf);
    EXPECT_EQ(p.opts.file_settings.size(), 7U);
}

TEST_F(ServerConfigOptions, MistakesNameTheFileLineAndKey)
{
    struct Case {
        std::string text;
        std::string want; // after "FILE:"
    } cases[] = {
        {"dsi = box\nport = 28x1\n", "2: port: bad value \"28x1\""},
        {"prot = 21\n", "1: prot: unknown key (the keys are the long options of --help without "
                        "their dashes)"},
        {"require-tls = yes\n", "1: require-tls: a switch is true or false, not \"yes\""},
        {"config = /etc/other.conf\n", "1: config: only on the command line"},
        {"check-config = true\n", "1: check-config: only on the command line"},
        {"config-file = config\n", "1: config-file: bad value \"config\""},
        {"x", "1: expected \"key = value\""}, // a read of one byte is not the end
    };
    for (const Case &c : cases) {
        std::string conf = write(c.text);
        Parsed p = parse({"--config", conf, "--port", "1", "--dsi", "x", "--anonymous-map"});
        EXPECT_EQ(p.rc, -1);
        EXPECT_EQ(p.err, conf + ":" + c.want);
    }
    EXPECT_EQ(parse({"--config", "/nonexistent/x.conf"}).err,
              "/nonexistent/x.conf: No such file or directory");
    EXPECT_EQ(parse({"--config", "/tmp"}).err, "/tmp: not a regular file");
}

// --port takes every TCP port, 65535 included, and nothing beyond.
TEST(ServerOptions, EveryTcpPortAndNoMore)
{
    for (const char *port : {"1", "65535", "65536", "-1"}) {
        Parsed p = parse({"--dsi", "posix", "--anonymous-map", "--port", port});
        bool valid = std::stoi(port) >= 1 && std::stoi(port) <= 65535;
        EXPECT_EQ(p.rc, valid ? 0 : -1) << port << ": " << p.err;
        if (valid) {
            EXPECT_EQ(p.opts.port, std::stoi(port));
        }
    }
    // Passive ports: unprivileged ones only, the low end first.
    const struct {
        const char *range;
        int low, high; // 0: refused
    } ranges[] = {
        {"1024-1024", 1024, 1024}, {"60000-65535", 60000, 65535}, {"1023-2000", 0, 0},
        {"60000-65536", 0, 0},     {"2000-1999", 0, 0},
    };
    for (const auto &r : ranges) {
        Parsed p = parse({"--dsi", "posix", "--anonymous-map", "--port", "2811", "--pasv-range",
                          r.range});
        EXPECT_EQ(p.rc, r.low ? 0 : -1) << r.range << ": " << p.err;
        if (r.low) {
            EXPECT_EQ(p.opts.pasv_low, r.low) << r.range;
            EXPECT_EQ(p.opts.pasv_high, r.high) << r.range;
        } else {
            EXPECT_NE(p.err.find("--pasv-range"), std::string::npos) << r.range << ": " << p.err;
        }
    }
    // The metrics listener: a numeric IPv4 address, or an IPv6 one in
    // brackets, and a port.
    for (const auto &[listen, valid] :
         std::initializer_list<std::pair<const char *, bool>>{{"127.0.0.1:0", true},
                                                              {"[::1]:9100", true},
                                                              {"[zz]:9100", false},
                                                              {"localhost:9100", false}}) {
        Parsed p = parse(
            {"--dsi", "posix", "--anonymous-map", "--port", "2811", "--metrics-listen", listen});
        EXPECT_EQ(p.rc, valid ? 0 : -1) << listen << ": " << p.err;
    }
}

// A configuration command whose output is cut off (too large here; one that
// times out goes the same way, after a minute) is killed, not waited for.
TEST(ServerConfigData, ACommandCutOffIsKilled)
{
    ConfigData data({}, {{"creds", "head -c 5000000 /dev/zero; exec sleep 60"}});
    std::string text;
    auto got = std::async(std::launch::async, [&] { return data.get("creds", "u", text); });
    ASSERT_EQ(got.wait_for(std::chrono::seconds(30)), std::future_status::ready);
    EXPECT_EQ(got.get(), ConfigData::Status::failed);
    EXPECT_EQ(text, "configuration command output too large");
}

} // namespace
