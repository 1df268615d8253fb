// The owned result of the C++ code: what it discards, and what it hands on.
#include <gtest/gtest.h>

#include <utility>

#include "tarvex_common.h"
#include "tarvex_result.h"

namespace {

tarvex_result_t fresh_error()
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

} // namespace
