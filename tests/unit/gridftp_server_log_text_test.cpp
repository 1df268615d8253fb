// The log keeps every printable character of a name as it is: the last
// ASCII one and the three-byte UTF-8 sequences led by 0xe0 (Thai,
// Devanagari, ...), which a range off by one would escape byte by byte.
#include <gtest/gtest.h>

#include <string>

#include "log.h"
#include "parse.h"

using namespace tarvex_server;

namespace {

TEST(ServerLogText, EdgesOfPrintableTextStayReadable)
{
    const std::string kept[] = {
        "~alice/notes",          // 0x7e, right below DEL
        "\xe0\xb8\x81.txt",      // U+0E01, Thai
        "\xe0\xa4\x85",          // U+0905, Devanagari
        "\xdf\xbf",              // U+07FF, the last two-byte character
    };
    for (const std::string &name : kept)
        EXPECT_EQ(log_field(name), name) << name;
    EXPECT_EQ(utf8_length("\xe0\xb8\x81"), 3u);
    EXPECT_EQ(utf8_length("\xdf\xbf"), 2u);
}

} // namespace
