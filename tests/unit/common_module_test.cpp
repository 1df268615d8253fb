// Module reference counting.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "tarvex_common.h"

namespace {

std::atomic<int> activations{0};
std::atomic<int> deactivations{0};

int counting_activate()
{
    activations++;
    tarvex_time_sleep_usec(20000); // widen the window for concurrent callers
    return 0;
}
int counting_deactivate()
{
    deactivations++;
    return 0;
}
tarvex_module_descriptor_t counted = {
    "counted", counting_activate, counting_deactivate, nullptr, nullptr, nullptr, nullptr};

} // namespace

TEST(CommonModule, ReferenceCountingAcrossThreads)
{
    std::thread other([] { EXPECT_EQ(tarvex_module_activate(&counted), 0); });
    EXPECT_EQ(tarvex_module_activate(&counted), 0);
    other.join();
    EXPECT_EQ(activations, 1);
    EXPECT_EQ(tarvex_module_activation_count(&counted), 2);
    EXPECT_EQ(tarvex_module_deactivate(&counted), 0);
    EXPECT_EQ(deactivations, 0);
    EXPECT_EQ(tarvex_module_deactivate(&counted), 0);
    EXPECT_EQ(deactivations, 1);
    EXPECT_EQ(tarvex_module_activation_count(&counted), 0);
    EXPECT_NE(tarvex_module_deactivate(&counted), 0);
}
