// The server's transfer log: the xferlog line of a transfer, and the file
// that session processes send their lines to through the listening process
// (many senders at once, a rotation in the middle, malformed lines).
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "xferlog.h"

using namespace tarvex_server;

namespace {

std::vector<std::string> words(const std::string &line)
{
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

std::vector<std::string> file_lines(const std::string &path)
{
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string l; std::getline(in, l);)
        out.push_back(l);
    return out;
}

XferRecord sample()
{
    XferRecord r;
    r.end = 1741079702; // 2025-03-04 09:15:02 UTC, a Tuesday
    r.duration_ms = 2600;
    r.host = "192.0.2.7";
    r.bytes = 1048576;
    r.path = "/reports/q1.pdf";
    r.incoming = false;
    r.anonymous = false;
    r.user = "alice";
    r.complete = true;
    return r;
}

// Each test runs in a process of its own: nothing to put back.
class XferlogLine : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
    }
};

TEST_F(XferlogLine, FieldsInOrder)
{
    EXPECT_EQ(xferlog_line(sample()),
              "Tue Mar 04 09:15:02 2025 3 192.0.2.7 1048576 /reports/q1.pdf b _ o r alice ftp 0 * c\n");
    // An upload taken although its end was not confirmed says so after the
    // status.
    XferRecord r = sample();
    r.incoming = true;
    r.anonymous = true;
    r.end_unconfirmed = true;
    EXPECT_EQ(xferlog_line(r), "Tue Mar 04 09:15:02 2025 3 192.0.2.7 1048576 /reports/q1.pdf b _ i "
                               "a alice ftp 0 * c end-unconfirmed\n");
}

// Whatever a name holds, the line stays one line of 18 fields, and the
// name's field reads back as the log escapes it: spaces, the wide ones
// included, on top of what every log field escapes (ServerLog.FieldsAreEscaped).
TEST_F(XferlogLine, NamesStayOneField)
{
    const struct {
        std::string name;
        std::string field;
    } cases[] = {
        {"/a b/c  d.txt", "/a\\x20b/c\\x20\\x20d.txt"},
        {"/tab\there", "/tab\\x09here"},
        {"/nb\xc2\xa0sp", "/nb\\xc2\\xa0sp"},
        {"/ideo\xe3\x80\x80sp", "/ideo\\xe3\\x80\\x80sp"},
        {"/ls\xe2\x80\xa8ps\xe2\x80\xa9", "/ls\\xe2\\x80\\xa8ps\\xe2\\x80\\xa9"},
        // Each wide space Python splits on, and a zero-width space it keeps.
        {"/og\xe1\x9a\x80"
         "am",
         "/og\\xe1\\x9a\\x80am"},
        {"/en\xe2\x80\x80q\xe2\x80\x8ah", "/en\\xe2\\x80\\x80q\\xe2\\x80\\x8ah"},
        {"/nn\xe2\x80\xafm\xe2\x81\x9fs", "/nn\\xe2\\x80\\xafm\\xe2\\x81\\x9fs"},
        {"/zw\xe2\x80\x8bsp", "/zw\xe2\x80\x8bsp"},
        {"/caf\xc3\xa9 \xe6\x97\xa5\xe6\x9c\xac", "/caf\xc3\xa9\\x20\xe6\x97\xa5\xe6\x9c\xac"},
        {"", "-"},
    };
    for (const auto &c : cases) {
        XferRecord r = sample();
        r.path = c.name;
        r.user = "user " + c.name;
        std::string line = xferlog_line(r);
        ASSERT_EQ(line.find('\n'), line.size() - 1) << line;
        std::vector<std::string> w = words(line);
        ASSERT_EQ(w.size(), 18u) << line;
        EXPECT_EQ(w[8], c.field);
        EXPECT_EQ(w[13], "user\\x20" + (c.name.empty() ? "" : c.field));
    }
}

// ---- the file ----

class XferlogFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/tarvex-xferlog-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/xferlog";
    }
    void TearDown() override
    {
        std::string cmd = "rm -rf '" + dir_ + "'";
        EXPECT_EQ(system(cmd.c_str()), 0);
    }

    // Drains until `done` holds after a drain that found nothing waiting.
    template <typename Done> void drain_until(TransferLog &log, Done done)
    {
        for (;;) {
            pollfd p{log.channel(), POLLIN, 0};
            int ready = poll(&p, 1, 50);
            log.drain();
            if (ready == 0 && done())
                return;
        }
    }

    std::string dir_;
    std::string path_;
};

// What a session sends is written only when it is one printable line: a
// session runs the plug-in's code and must not be able to break the file's
// lines or put escape sequences in it.  A line that could not be sent is
// kept in the server's log rather than lost.
TEST_F(XferlogFile, OnlyWholePrintableLinesAppendedToAPrivateFile)
{
    {
        std::ofstream(path_) << "kept\n";
    }
    TransferLog log;
    std::string err;
    ASSERT_TRUE(log.open(path_, err)) << err;
    testing::internal::CaptureStderr();
    log.send("one\n");
    log.drain();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), ""); // written: nothing to report
    for (const char *bad : {"two\nlines\n", "no newline", "\x1b[2Jclear\n", "\n", "cr\r\n"})
        log.send(bad);
    log.send(std::string("nul\0inside\n", 11));
    log.send("g\n"); // the shortest line there is
    log.drain();
    EXPECT_EQ(file_lines(path_), (std::vector<std::string>{"kept", "one", "g"}));

    TransferLog fresh;
    std::string other = dir_ + "/new";
    ASSERT_TRUE(fresh.open(other, err)) << err;
    struct stat st{};
    ASSERT_EQ(stat(other.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0026, 0u); // others cannot read it, the group only reads

    TransferLog missing;
    EXPECT_FALSE(missing.open(dir_ + "/no/such/folder/xferlog", err));
    EXPECT_NE(err.find("no/such/folder"), std::string::npos) << err;
    testing::internal::CaptureStderr();
    missing.send("lost\n");
    std::string reported = testing::internal::GetCapturedStderr();
    EXPECT_NE(reported.find("not open; line: lost"), std::string::npos) << reported;
}

// Several session processes send at once while the file is renamed and
// reopened: every line is in one of the two files, whole, and what is sent
// after the reopen is in the new one.
TEST_F(XferlogFile, ConcurrentSendersAndRotationLoseNoLine)
{
    TransferLog log;
    std::string err;
    ASSERT_TRUE(log.open(path_, err)) << err;
    constexpr int senders = 6;
    constexpr int lines_each = 400;
    std::vector<pid_t> pids;
    for (int s = 0; s < senders; ++s) {
        pid_t pid = fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            log.enter_session();
            for (int i = 0; i < lines_each; ++i)
                log.send("sender " + std::to_string(s) + " line " + std::to_string(i) + " " +
                         std::string(static_cast<size_t>(i % 97), 'x') + "\n");
            _exit(0);
        }
        pids.push_back(pid);
    }
    // Rotate once a part of the lines is in, while the senders go on.
    while (file_lines(path_).size() < senders * lines_each / 4) {
        pollfd p{log.channel(), POLLIN, 0};
        poll(&p, 1, 50);
        log.drain();
    }
    ASSERT_EQ(rename(path_.c_str(), (path_ + ".1").c_str()), 0);
    ASSERT_TRUE(log.reopen(err)) << err;
    // A session sends the line after the reopen, as in the server: this
    // process is the only one draining, so a send of its own would wait on
    // a channel the senders keep full (10 s, and the lines were lost).
    pid_t after = fork();
    ASSERT_GE(after, 0);
    if (after == 0) {
        log.enter_session();
        log.send("after the rotation\n");
        _exit(0);
    }
    int exited = 0;
    drain_until(log, [&] {
        while (exited < senders + 1 && waitpid(-1, nullptr, WNOHANG) > 0)
            ++exited;
        return exited == senders + 1;
    });

    std::vector<std::string> old_lines = file_lines(path_ + ".1");
    std::vector<std::string> new_lines = file_lines(path_);
    // As many lines as were sent, and each of them: none twice.
    EXPECT_EQ(old_lines.size() + new_lines.size(), senders * lines_each + 1u);
    std::set<std::string> seen(old_lines.begin(), old_lines.end());
    seen.insert(new_lines.begin(), new_lines.end());
    for (int s = 0; s < senders; ++s)
        for (int i = 0; i < lines_each; ++i)
            ASSERT_TRUE(seen.count("sender " + std::to_string(s) + " line " + std::to_string(i) +
                                   " " + std::string(static_cast<size_t>(i % 97), 'x')))
                << s << " " << i;
    EXPECT_NE(std::find(new_lines.begin(), new_lines.end(), "after the rotation"), new_lines.end());
}

} // namespace
