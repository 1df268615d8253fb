// Error objects, printing and the process error table.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tarvex_common.h"
#include "tarvex_result.h"

namespace {

// A two-level derived error family: "tagged" carries a string and prints
// it; "leaf" below it has no printable of its own.
std::vector<std::string> destroyed;

void tag_free(void *data)
{
    destroyed.push_back("tagged");
    delete static_cast<std::string *>(data);
}
void leaf_free(void *)
{
    destroyed.push_back("leaf");
}
char *tag_printable(tarvex_object_t *error);
const tarvex_error_class_t tagged_class = {tag_printable};
const tarvex_object_type_t tagged_type = {TARVEX_ERROR_TYPE_BASE, nullptr, tag_free,
                                          &tagged_class};
const tarvex_object_type_t leaf_type = {&tagged_type, nullptr, leaf_free, nullptr};

char *tag_printable(tarvex_object_t *error)
{
    auto *tag = static_cast<std::string *>(tarvex_object_get_instance_data(error, &tagged_type));
    return strdup(("tag=" + (tag ? *tag : std::string("?")) + "\nsecond line").c_str());
}

tarvex_module_descriptor_t test_module = {"test", nullptr, nullptr, nullptr,
                                          nullptr, nullptr, nullptr};

__attribute__((format(printf, 3, 4)))
tarvex_object_t *make_leaf(const char *tag, tarvex_object_t *cause, const char *format, ...)
{
    tarvex_object_t *error = tarvex_object_construct(&leaf_type);
    va_list ap;
    va_start(ap, format);
    EXPECT_EQ(tarvex_error_initialize_error(error, &test_module, cause, 5, "f.c", "fn", 9,
                                            format, ap),
              error);
    va_end(ap);
    EXPECT_EQ(tarvex_object_set_instance_data(error, &tagged_type, new std::string(tag)), 0);
    return error;
}

std::string take(char *text)
{
    std::string copy = text == nullptr ? "(null)" : text;
    free(text);
    return copy;
}

tarvex_object_t *numbered(int i)
{
    return TARVEX_ERROR_CONSTRUCT(&test_module, nullptr, 1, "error number %d", i);
}

} // namespace

TEST(CommonObject, LevelsAndFreeOrder)
{
    tarvex_object_t *cause = numbered(1);
    tarvex_object_t *error = make_leaf("blue", cause, "outer %s", "text");
    ASSERT_NE(error, nullptr);
    EXPECT_TRUE(tarvex_object_type_match(tarvex_object_get_type(error), TARVEX_ERROR_TYPE_BASE));
    EXPECT_FALSE(tarvex_object_type_match(TARVEX_ERROR_TYPE_BASE, &leaf_type));
    EXPECT_NE(tarvex_object_set_instance_data(error, TARVEX_ERROR_TYPE_ERRNO, nullptr), 0);
    EXPECT_STREQ(tarvex_error_get_message(error), "outer text");
    EXPECT_STREQ(tarvex_error_get_function(error), "fn");
    EXPECT_EQ(tarvex_error_get_line(error), 9);
    EXPECT_EQ(tarvex_error_get_source(error), &test_module);

    destroyed.clear();
    tarvex_object_free(error);
    EXPECT_EQ(destroyed, (std::vector<std::string>{"leaf", "tagged"}));
}

// A cause that would close a loop is refused: printing or freeing the
// chain would never end.
TEST(CommonError, ACauseThatWouldCloseALoopIsRefused)
{
    tarvex_object_t *inner = numbered(1);
    tarvex_object_t *outer = TARVEX_ERROR_CONSTRUCT(nullptr, inner, 42, "wrapped");
    tarvex_error_set_cause(inner, outer);
    EXPECT_EQ(tarvex_error_get_cause(inner), nullptr);
    EXPECT_EQ(tarvex_error_get_cause(outer), inner);
    tarvex_object_free(outer);
}

TEST(CommonError, PrintChainOrderAndSkipping)
{
    struct {
        const char *name;
        tarvex_object_t *(*build)();
        std::string expected;
    } cases[] = {
        {"outermost first",
         [] { return TARVEX_ERROR_CONSTRUCT(nullptr, numbered(7), 0, "top"); },
         "top\nerror number 7"},
        {"empty and absent messages skipped",
         [] {
             tarvex_object_t *bottom = numbered(3);
             tarvex_object_t *silent = TARVEX_ERROR_CONSTRUCT(nullptr, bottom, 0, nullptr);
             tarvex_object_t *empty = TARVEX_ERROR_CONSTRUCT(nullptr, silent, 0, "%s", "");
             return TARVEX_ERROR_CONSTRUCT(nullptr, empty, 0, "top");
         },
         "top\nerror number 3"},
        {"multi-line printable of a derived type",
         [] { return make_leaf("red", numbered(4), "ignored"); },
         "tag=red\nsecond line\nerror number 4"},
        {"nothing printable", [] { return TARVEX_ERROR_CONSTRUCT(nullptr, nullptr, 0, nullptr); },
         ""},
    };
    for (auto &c : cases) {
        tarvex_object_t *error = c.build();
        EXPECT_EQ(take(tarvex_error_print_chain(error)), c.expected) << c.name;
        tarvex_object_free(error);
    }
    EXPECT_EQ(take(tarvex_error_print_chain(nullptr)), "");
}

TEST(CommonErrorTable, HandlesGoStaleWhenTakenOrEvicted)
{
    EXPECT_EQ(tarvex_error_put(nullptr), TARVEX_FAILURE);
    EXPECT_EQ(tarvex_error_peek(TARVEX_SUCCESS), nullptr);
    EXPECT_EQ(tarvex_error_peek(TARVEX_FAILURE), nullptr);

    tarvex_object_t *error = numbered(1);
    tarvex_result_t taken = tarvex_error_put(error);
    EXPECT_EQ(tarvex_error_peek(taken), error);
    EXPECT_EQ(tarvex_error_get(taken), error);
    EXPECT_EQ(tarvex_error_peek(taken), nullptr);
    EXPECT_EQ(tarvex_error_get(taken), nullptr);
    tarvex_object_free(error);

    tarvex_result_t oldest = tarvex_error_put(numbered(0));
    std::vector<tarvex_result_t> newer;
    for (int i = 0; i < TARVEX_ERROR_TABLE_CAPACITY; i++) {
        tarvex_result_t handle = tarvex_error_put(numbered(i));
        ASSERT_NE(handle, TARVEX_SUCCESS);
        ASSERT_NE(handle, TARVEX_FAILURE);
        ASSERT_NE(handle, taken) << "a stale handle was handed out again";
        newer.push_back(handle);
    }
    EXPECT_EQ(tarvex_error_table_count(), size_t(TARVEX_ERROR_TABLE_CAPACITY));
    EXPECT_EQ(tarvex_error_peek(oldest), nullptr);
    EXPECT_EQ(tarvex_error_get(oldest), nullptr);
    for (size_t i = 0; i < newer.size(); i++) {
        tarvex_object_t *got = tarvex_error_get(newer[i]);
        ASSERT_NE(got, nullptr);
        EXPECT_EQ(tarvex_error_get_message(got), "error number " + std::to_string(i));
        tarvex_object_free(got);
    }
}

TEST(CommonErrorTable, ConcurrentPutPeekGet)
{
    std::vector<std::thread> threads;
    threads.reserve(4);
    int mismatches[4] = {};
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([t, &mismatches] {
            for (int i = 0; i < 20000; i++) {
                tarvex_object_t *error = numbered(t * 100000 + i);
                tarvex_result_t handle = tarvex_error_put(error);
                // Each thread holds one error at a time: it cannot become
                // the oldest of a full table before it is taken back.
                if (tarvex_error_peek(handle) != error || tarvex_error_get(handle) != error)
                    mismatches[t]++;
                tarvex_object_free(error);
            }
        });
    }
    for (auto &thread : threads)
        thread.join();
    for (int t = 0; t < 4; t++)
        EXPECT_EQ(mismatches[t], 0) << "thread " << t;
}

// The owned result of the C++ code: what it discards, and what it hands on.
static tarvex_result_t fresh_error()
{
    return tarvex_error_put(TARVEX_ERROR_CONSTRUCT(nullptr, nullptr, 1, "%s", "failed"));
}

TEST(Result, DiscardsWhatItHoldsAndHandsOnWhatItReleases)
{
    const size_t before = tarvex_error_table_count();
    tarvex_result_t handed_on = TARVEX_SUCCESS;
    {
        tarvex::Result first(fresh_error());
        tarvex::Result second(fresh_error());
        const tarvex_result_t second_handle = second.get();
        first = std::move(second); // the first error is discarded
        EXPECT_EQ(tarvex_error_table_count(), before + 1);
        tarvex::Result last(std::move(first));
        EXPECT_EQ(last.get(), second_handle);
        handed_on = last.release();
        EXPECT_TRUE(last.ok());
        tarvex::Result dropped(fresh_error());
    }
    EXPECT_EQ(tarvex_error_table_count(), before + 1);
    EXPECT_NE(tarvex_error_peek(handed_on), nullptr);
    tarvex_error_discard(handed_on);
}
