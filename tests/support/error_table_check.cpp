/*
 * Fails a test that leaves errors behind in the runtime's error table.
 *
 * A result that is neither reported (taken out with tarvex_error_get) nor
 * dropped (tarvex_error_discard) stays in the table until 4096 newer errors
 * push it out: in a server process that is memory held for nobody, and a
 * sign of a failure path that forgot its result.  Linked into a test
 * program, this listener counts the table before and after each test and
 * adds a failure to the test that left more than it found.
 *
 * It registers itself while the program starts, after GoogleTest's own
 * result printer; end-of-test events go to listeners in reverse order, so
 * the failure is in place before the test's result is printed.
 */
#include <gtest/gtest.h>

#include "tarvex_error.h"

namespace {

class error_table_check : public ::testing::EmptyTestEventListener {
    void OnTestStart(const ::testing::TestInfo &) override
    {
        before_ = tarvex_error_table_count();
    }
    void OnTestEnd(const ::testing::TestInfo &) override
    {
        size_t after = tarvex_error_table_count();
        if (after > before_)
            ADD_FAILURE() << "the test left " << after - before_
                          << " error(s) in the error table (" << before_ << " before, " << after
                          << " after): a result was neither taken out nor discarded";
    }

    size_t before_ = 0;
};

[[maybe_unused]] const bool registered = [] {
    ::testing::UnitTest::GetInstance()->listeners().Append(new error_table_check);
    return true;
}();

} // namespace
