// Module reference counting, registries and extension loading.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "tarvex_common.h"

namespace {

std::atomic<int> activations{0};
std::atomic<int> deactivations{0};
int next_result = 0;
int outer_result = 0;

int counting_activate()
{
    activations++;
    tarvex_time_sleep_usec(20000); // widen the window for concurrent callers
    return next_result;
}
int counting_deactivate()
{
    deactivations++;
    return 0;
}
tarvex_module_descriptor_t inner = {"inner", counting_activate, counting_deactivate,
                                    nullptr, nullptr, nullptr, nullptr};

// Activates `inner` and itself from its own activation.
tarvex_module_descriptor_t outer;
int outer_activate()
{
    tarvex_module_activate(&inner);
    tarvex_module_activate(&outer);
    return outer_result;
}
int outer_deactivate()
{
    return tarvex_module_deactivate(&inner);
}

void reset()
{
    activations = deactivations = 0;
    next_result = outer_result = 0;
}

int failing_runtime()
{
    return 3;
}

} // namespace

TEST(CommonModule, ReferenceCountingAcrossThreads)
{
    reset();
    std::thread other([] { EXPECT_EQ(tarvex_module_activate(&inner), 0); });
    EXPECT_EQ(tarvex_module_activate(&inner), 0);
    other.join();
    EXPECT_EQ(activations, 1);
    EXPECT_EQ(tarvex_module_activation_count(&inner), 2);
    EXPECT_EQ(tarvex_module_deactivate(&inner), 0);
    EXPECT_EQ(deactivations, 0);
    EXPECT_EQ(tarvex_module_deactivate(&inner), 0);
    EXPECT_EQ(deactivations, 1);
    EXPECT_EQ(tarvex_module_activation_count(&inner), 0);
    EXPECT_NE(tarvex_module_deactivate(&inner), 0);
}

TEST(CommonModule, NestedAndFailingActivation)
{
    reset();
    outer = {"outer", outer_activate, outer_deactivate, nullptr, nullptr, nullptr, nullptr};
    ASSERT_EQ(tarvex_module_activate(&outer), 0);
    EXPECT_EQ(tarvex_module_activation_count(&inner), 1);
    EXPECT_EQ(tarvex_module_activation_count(&outer), 2); // own call + nested self
    tarvex_module_deactivate(&outer);
    tarvex_module_deactivate(&outer);
    EXPECT_EQ(tarvex_module_activation_count(&inner), 0);

    outer_result = 9;
    EXPECT_EQ(tarvex_module_activate(&outer), 9);
    EXPECT_EQ(tarvex_module_activation_count(&outer), 0);
    // The nested activation of `inner` did succeed and keeps its reference.
    EXPECT_EQ(tarvex_module_deactivate(&inner), 0);

    tarvex_module_activation_func_t saved = tarvex_i_common_module.activation_func;
    tarvex_i_common_module.activation_func = failing_runtime;
    EXPECT_EQ(tarvex_module_activate(&tarvex_i_common_module), 3);
    EXPECT_EQ(tarvex_module_activation_count(&tarvex_i_common_module), 0);
    tarvex_i_common_module.activation_func = saved;
    EXPECT_EQ(tarvex_module_activate(&tarvex_i_common_module), 0);
    EXPECT_EQ(tarvex_module_deactivate(&tarvex_i_common_module), 0);
}

TEST(CommonExtension, RegistryCopiesKeysAndRefusesDuplicates)
{
    static tarvex_extension_registry_t registry; // zero-initialised, like the real ones
    int first = 1, second = 2;
    char key[] = "box";
    EXPECT_EQ(tarvex_extension_lookup(&registry, "box"), nullptr);
    EXPECT_EQ(tarvex_extension_registry_add(&registry, key, &inner, &first), 0);
    key[0] = 'f'; // the registry kept its own copy
    EXPECT_NE(tarvex_extension_registry_add(&registry, "box", nullptr, &second), 0);
    EXPECT_EQ(tarvex_extension_lookup(&registry, "box"), &first);
    EXPECT_EQ(tarvex_extension_lookup(&registry, "fox"), nullptr);
    EXPECT_EQ(tarvex_extension_registry_module(&registry, "box"), &inner);
    EXPECT_EQ(tarvex_extension_registry_remove(&registry, "box"), &first);
    EXPECT_EQ(tarvex_extension_registry_remove(&registry, "box"), nullptr);
    EXPECT_EQ(tarvex_extension_lookup(&registry, "box"), nullptr);
    EXPECT_EQ(tarvex_extension_registry_add(&registry, "box", nullptr, &second), 0);
    EXPECT_EQ(tarvex_extension_lookup(&registry, "box"), &second);
    tarvex_extension_registry_remove(&registry, "box");
}

TEST(CommonExtension, LoadsThroughSearchPathAndCountsReferences)
{
    auto state = [] {
        const char *value = getenv("TARVEX_TEST_EXT_STATE");
        return std::string(value == nullptr ? "unset" : value);
    };
    unsetenv("TARVEX_TEST_EXT_FAIL");
    tarvex_extension_set_search_path("/nonexistent/dir:" TARVEX_TEST_EXT_DIR);
    ASSERT_EQ(tarvex_extension_activate("tarvex_test_ext"), 0) << tarvex_extension_last_error();
    EXPECT_STREQ(tarvex_extension_last_error(), "");
    EXPECT_EQ(state(), "active");
    EXPECT_EQ(tarvex_extension_activate("tarvex_test_ext"), 0);
    EXPECT_EQ(tarvex_extension_deactivate("tarvex_test_ext"), 0);
    EXPECT_EQ(state(), "active");
    EXPECT_EQ(tarvex_extension_deactivate("tarvex_test_ext"), 0);
    EXPECT_EQ(state(), "inactive");
    EXPECT_NE(tarvex_extension_deactivate("tarvex_test_ext"), 0);

    // The environment variable is searched too.
    tarvex_extension_set_search_path(nullptr);
    setenv("TARVEX_EXTENSION_PATH", TARVEX_TEST_EXT_DIR, 1);
    EXPECT_EQ(tarvex_extension_activate("tarvex_test_ext"), 0) << tarvex_extension_last_error();
    EXPECT_EQ(tarvex_extension_deactivate("tarvex_test_ext"), 0);

    setenv("TARVEX_TEST_EXT_FAIL", "1", 1);
    EXPECT_EQ(tarvex_extension_activate("tarvex_test_ext"), 7);
    EXPECT_NE(std::string(tarvex_extension_last_error()).find("tarvex_test_ext"),
              std::string::npos);
    EXPECT_NE(tarvex_extension_deactivate("tarvex_test_ext"), 0);
    unsetenv("TARVEX_TEST_EXT_FAIL");
    unsetenv("TARVEX_EXTENSION_PATH");

    EXPECT_NE(tarvex_extension_activate("tarvex_no_such_ext"), 0);
    EXPECT_NE(std::string(tarvex_extension_last_error()).find("libtarvex_no_such_ext.so"),
              std::string::npos)
        << tarvex_extension_last_error();
}
