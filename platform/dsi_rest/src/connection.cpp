// The connection cache: one curl easy handle per thread, kept for the
// thread's life so that its connections and TLS sessions are reused by the
// thread's next requests.
#include <atomic>
#include <cstdlib>
#include <mutex>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

namespace {

struct ThreadHandle {
    CURL *handle = nullptr;
    ~ThreadHandle()
    {
        if (handle != nullptr)
            curl_easy_cleanup(handle);
    }
};

thread_local ThreadHandle t_handle;
std::atomic<uint64_t> g_connections{0};

std::mutex g_ca_mutex;
std::string g_ca_file;
bool g_ca_set = false;

} // namespace

CURL *thread_handle()
{
    if (t_handle.handle == nullptr && curl_ready())
        t_handle.handle = curl_easy_init();
    return t_handle.handle;
}

void count_connections(CURL *handle)
{
    long connects = 0;
    if (curl_easy_getinfo(handle, CURLINFO_NUM_CONNECTS, &connects) == CURLE_OK && connects > 0)
        g_connections += static_cast<uint64_t>(connects);
}

std::string ca_file()
{
    {
        std::lock_guard<std::mutex> lock(g_ca_mutex);
        if (g_ca_set)
            return g_ca_file;
    }
    const char *env = std::getenv("TARVEX_DSI_REST_CA_FILE");
    return env != nullptr ? std::string(env) : std::string();
}

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" void tarvex_dsi_rest_set_ca_file(const char *path)
{
    guard_quiet(__func__, [path] {
        std::string file = path != nullptr ? path : "";
        std::lock_guard<std::mutex> lock(g_ca_mutex);
        g_ca_set = path != nullptr;
        g_ca_file.swap(file);
    });
}

extern "C" void tarvex_dsi_rest_close_connections(void)
{
    guard_quiet(__func__, [] {
        if (RequestContext::current() != nullptr)
            return; // the handle is in use by the request that called us
        if (t_handle.handle != nullptr) {
            curl_easy_cleanup(t_handle.handle);
            t_handle.handle = nullptr;
        }
    });
}

extern "C" uint64_t tarvex_dsi_rest_connections_opened(void)
{
    return guard_quiet(__func__, uint64_t{0}, [] { return g_connections.load(); });
}
