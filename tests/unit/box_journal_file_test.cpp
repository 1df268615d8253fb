/*
 * The journal file's ring across processes: two writers append as fast as
 * they can while a reader, which takes no lock, reads along.  What the
 * reader takes must be whole and in each writer's order (a slot rewritten
 * under it is refused, never handed on), and in the end the generation
 * counts every append (two writers that took the same slot would count
 * one).
 */
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "box_scratch.h"
#include "box_wait.h"
#include "journal_sources.h"

namespace {

using namespace tarvex_test;

constexpr int per_writer = 20000;

/* Paths of many lengths that differ in every word, so that a slot copied
 * while it is rewritten could not look whole. */
std::string path_of(int writer, int i)
{
    std::string path = "/w" + std::to_string(writer) + "/" + std::to_string(i) + "/";
    return path + std::string((i * 37) % 900, char('a' + (writer * 7 + i) % 26));
}

/* The index an entry's path was made from; -1 when it was not made so. */
int index_of(const tarvex_box_journal_entry &e)
{
    if (e.writer != 1 && e.writer != 2)
        return -1;
    const std::string head = "/w" + std::to_string(e.writer) + "/";
    if (e.path.compare(0, head.size(), head) != 0)
        return -1;
    const int i = atoi(e.path.c_str() + head.size());
    return e.path == path_of(int(e.writer), i) ? i : -1;
}

TEST(BoxJournalFile, ConcurrentWritersAndALocklessReader)
{
    box_scratch scratch;
    tarvex_box_journal_file reader("4242j");
    ASSERT_TRUE(reader.is_shared());
    auto write = [](int writer) {
        tarvex_box_journal_file file("4242j");
        for (int i = 0; i < per_writer; i++)
            file.append(uint64_t(writer), path_of(writer, i));
        return 0;
    };
    child one([&] { return write(1); }), two([&] { return write(2); });

    uint64_t seen = 0;
    int last[3] = {-1, -1, -1};
    size_t taken = 0;
    auto read_along = [&] {
        const uint64_t now = reader.generation();
        std::vector<tarvex_box_journal_entry> entries;
        if (reader.read(seen, now, &entries)) {
            for (const tarvex_box_journal_entry &e : entries) {
                const int i = index_of(e);
                ASSERT_GE(i, 0) << "writer " << e.writer << ": " << e.path.substr(0, 40);
                ASSERT_GT(i, last[e.writer]) << "writer " << e.writer;
                last[e.writer] = i;
            }
            taken += entries.size();
        }
        seen = now;
    };
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (reader.generation() < uint64_t{2} * per_writer &&
           std::chrono::steady_clock::now() < deadline)
        ASSERT_NO_FATAL_FAILURE(read_along());
    EXPECT_EQ(one.status(), 0);
    EXPECT_EQ(two.status(), 0);
    EXPECT_EQ(reader.generation(), uint64_t{2} * per_writer);
    printf("entries read whole while written: %zu\n", taken);
}

} // namespace
