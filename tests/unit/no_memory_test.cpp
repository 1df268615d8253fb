/* Out of memory inside C entry points of the runtime and of the Box
 * plug-in: each answers with its failure value instead of letting
 * std::bad_alloc unwind into its C callers.  This program replaces the
 * global operator new, which every library it loads then uses too, and
 * makes it throw while a test holds a no_memory guard. */
#include <gtest/gtest.h>

#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "box_wait.h"
#include "config.h"
#include "destroy.h"
#include "path_cache.h"
#include "path_resolve.h"
#include "tarvex_box_common.h"
#include "tarvex_debug.h"
#include "tarvex_error.h"
#include "tarvex_extension.h"
#include "tarvex_module.h"

namespace {

std::atomic<bool> out_of_memory{false};

struct no_memory {
    no_memory() { out_of_memory = true; }
    ~no_memory() { out_of_memory = false; }
    no_memory(const no_memory &) = delete;
    no_memory &operator=(const no_memory &) = delete;
};

/* Longer than any string kept without an allocation. */
constexpr const char *long_symbol = "a_symbol_name_well_beyond_the_small_string_size";

} // namespace

/* These are the replacements themselves: their blocks come from malloc, so
 * free is the matching release (GCC sees only the names and warns). */
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

void *operator new(size_t size)
{
    if (out_of_memory)
        throw std::bad_alloc();
    if (void *block = std::malloc(size != 0 ? size : 1))
        return block;
    throw std::bad_alloc();
}

/* The nothrow and array forms are replaced as well: the library's defaults
 * forward to the plain ones, but a sanitizer's runtime supplies its own, and
 * a block from its new freed by the free below is a mismatch it reports. */
void *operator new(size_t size, const std::nothrow_t &) noexcept
{
    if (out_of_memory)
        return nullptr;
    return std::malloc(size != 0 ? size : 1);
}

void *operator new[](size_t size)
{
    return ::operator new(size);
}

void *operator new[](size_t size, const std::nothrow_t &tag) noexcept
{
    return ::operator new(size, tag);
}

void operator delete(void *block) noexcept
{
    std::free(block);
}

void operator delete(void *block, size_t) noexcept
{
    std::free(block);
}

void operator delete(void *block, const std::nothrow_t &) noexcept
{
    std::free(block);
}

void operator delete[](void *block) noexcept
{
    std::free(block);
}

void operator delete[](void *block, size_t) noexcept
{
    std::free(block);
}

void operator delete[](void *block, const std::nothrow_t &) noexcept
{
    std::free(block);
}

#pragma GCC diagnostic pop

namespace {

TEST(NoMemory, DebugSettingsTurnNothingOn)
{
    {
        no_memory guard;
        EXPECT_EQ(tarvex_debug_parse_levels("ERROR|WARN", "ERROR WARN"), 0u);
    }
    EXPECT_EQ(tarvex_debug_parse_levels("ERROR|WARN", "ERROR WARN"), 3u);

    setenv("TARVEX_NO_MEMORY_DEBUG", "ERROR,-,ERROR,1", 1);
    tarvex_debug_handle_t handle{};
    {
        no_memory guard;
        EXPECT_NE(tarvex_debug_init("TARVEX_NO_MEMORY_DEBUG", "ERROR WARN", &handle), 0);
    }
    EXPECT_EQ(handle.levels, 0u);
    EXPECT_EQ(handle.file, nullptr);
    EXPECT_EQ(tarvex_debug_init("TARVEX_NO_MEMORY_DEBUG", "ERROR WARN", &handle), 0);
    EXPECT_EQ(handle.levels, 1u);
    tarvex_debug_close(&handle);
}

int activations = 0;
int count_activation()
{
    ++activations;
    return 0;
}

TEST(NoMemory, AModuleThatCannotBeRecordedIsNotActivated)
{
    tarvex_module_descriptor_t module = {"no_memory", count_activation, nullptr,
                                         nullptr,     nullptr,          nullptr, nullptr};
    {
        no_memory guard;
        EXPECT_EQ(tarvex_module_activate(&module), -1);
    }
    EXPECT_EQ(activations, 0);
    EXPECT_EQ(tarvex_module_activation_count(&module), 0);
    EXPECT_EQ(tarvex_module_activate(&module), 0);
    EXPECT_EQ(activations, 1);
    EXPECT_EQ(tarvex_module_deactivate(&module), 0);
}

TEST(NoMemory, RegistriesAndExtensionsAnswerWithoutAllocating)
{
    tarvex_extension_registry_t registry{};
    int datum = 0;
    ASSERT_EQ(tarvex_extension_registry_add(&registry, long_symbol, nullptr, &datum), 0);
    {
        no_memory guard;
        /* A lookup compares the name as it comes: found without a copy. */
        EXPECT_EQ(tarvex_extension_lookup(&registry, long_symbol), &datum);
        EXPECT_EQ(tarvex_extension_registry_module(&registry, long_symbol), nullptr);
        EXPECT_EQ(tarvex_extension_lookup(&registry, "an_other_name_beyond_the_small_size"),
                  nullptr);
        EXPECT_EQ(tarvex_extension_deactivate(long_symbol), -1);
        tarvex_extension_set_search_path("/a/search/path/beyond/the/small/string/size");
        EXPECT_EQ(tarvex_extension_activate(long_symbol), -1);
        EXPECT_STREQ(tarvex_extension_last_error(), "out of memory");
    }
    EXPECT_EQ(tarvex_extension_registry_remove(&registry, long_symbol), &datum);
    tarvex_extension_set_search_path(nullptr);
}

/* The table is made on its first use: in a fresh copy of this program,
 * which has not used it, a put without memory fails and frees the error
 * it was given. */
TEST(NoMemory, AnErrorTableThatCannotBeMadeRefusesTheError)
{
    if (getenv("TARVEX_NO_MEMORY_FRESH") != nullptr) {
        tarvex_object_t *error = tarvex_error_construct_error(nullptr, nullptr, 1, "test",
                                                              "fresh", 1, "%s", "lost");
        tarvex_result_t result;
        {
            no_memory guard;
            result = tarvex_error_put(error);
        }
        bool refused = error != nullptr && result == TARVEX_FAILURE &&
                       tarvex_error_peek(result) == nullptr;
        _exit(refused ? 0 : 1);
    }
    tarvex_test::child fresh([] {
        setenv("TARVEX_NO_MEMORY_FRESH", "1", 1);
        execl("/proc/self/exe", "tarvex_no_memory_tests",
              "--gtest_filter=NoMemory.AnErrorTableThatCannotBeMadeRefusesTheError",
              static_cast<char *>(nullptr));
        return 127;
    });
    EXPECT_EQ(fresh.status(), 0);
}

TEST(NoMemory, BoxPolicyAndPathWalkFailWithAnError)
{
    int rate = 16;
    tarvex_result_t result;
    {
        no_memory guard;
        result = tarvex_box_config_parse_json(
            R"({"box_api_base": "https://api.example.test/a/longer/base"})", &rate);
    }
    EXPECT_NE(result, TARVEX_SUCCESS);
    tarvex_error_discard(result);
    /* No base the policy did not name is left in force. */
    EXPECT_STREQ(tarvex_box_api_base(), "");
    tarvex_box_set_bases("https://api.box.com", "https://upload.box.com");

    auto *box = static_cast<tarvex_box_session_t *>(calloc(1, sizeof(tarvex_box_session_t)));
    ASSERT_EQ(tarvex_box_path_cache_init(&box->cache), TARVEX_SUCCESS);
    tarvex_box_path_info_t *entry = nullptr;
    {
        no_memory guard;
        result = tarvex_box_path_resolve(box, "/a/path/beyond/the/small/string/size", &entry,
                                         nullptr);
    }
    EXPECT_NE(result, TARVEX_SUCCESS);
    tarvex_error_discard(result);
    tarvex_i_box_destroy(box);
}

} // namespace
