// The module descriptor of the REST client and the one-time start of
// libcurl.
#include <mutex>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

tarvex_debug_handle_t debug_handle{};

bool curl_ready()
{
    static std::once_flag once;
    static bool ready = false;
    std::call_once(once, [] { ready = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; });
    return ready;
}

} // namespace tarvex_dsi_rest_internal

namespace {

int start()
{
    int rc = tarvex_module_activate(&tarvex_i_common_module);
    if (rc != 0)
        return rc;
    if (!tarvex_dsi_rest_internal::curl_ready()) {
        tarvex_module_deactivate(&tarvex_i_common_module);
        return 1;
    }
    tarvex_debug_init("TARVEX_DSI_REST_DEBUG", "ERROR WARN INFO DEBUG TRACE",
                      &tarvex_dsi_rest_internal::debug_handle);
    return 0;
}

// libcurl stays initialised: easy handles of other threads may outlive the
// last deactivation, and curl_global_cleanup under them is not safe.
int stop()
{
    tarvex_debug_close(&tarvex_dsi_rest_internal::debug_handle);
    tarvex_module_deactivate(&tarvex_i_common_module);
    return 0;
}

// The runtime calls these through the descriptor.
int activate()
{
    return tarvex_dsi_rest_internal::guard_quiet("activating tarvex_dsi_rest", 1, start);
}

int deactivate()
{
    return tarvex_dsi_rest_internal::guard_quiet("deactivating tarvex_dsi_rest", 1, stop);
}

const tarvex_version_t version = {0, 26, 0, 0};

} // namespace

tarvex_module_descriptor_t tarvex_i_dsi_rest_module = {
    "tarvex_dsi_rest", activate, deactivate, nullptr, nullptr, &version, nullptr};
