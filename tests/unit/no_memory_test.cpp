/* Out of memory inside C entry points of the Box plug-in: each answers
 * with its failure value instead of letting std::bad_alloc unwind into its
 * C callers.  This program replaces the global operator new, which every
 * library it loads then uses too, and makes it throw while a test holds a
 * no_memory guard. */
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "config.h"
#include "destroy.h"
#include "path_cache.h"
#include "path_resolve.h"
#include "tarvex_box_common.h"
#include "tarvex_error.h"

namespace {

std::atomic<bool> out_of_memory{false};

struct no_memory {
    no_memory() { out_of_memory = true; }
    ~no_memory() { out_of_memory = false; }
    no_memory(const no_memory &) = delete;
    no_memory &operator=(const no_memory &) = delete;
};

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
