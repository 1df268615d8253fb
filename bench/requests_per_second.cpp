// Small-request rate of the REST client: 2,000 JSON GETs of a folder
// listing against the Box emulator, one after another on one thread, with
// the response record and JSON reader the plug-in uses.  Prints
//   requests_per_second: rps=<n> connections=<m>
// where m is the number of connections the client opened for them (and
// one warm-up request before them).
#include <cstdio>
#include <stdexcept>
#include <string>

#include "box_emulator.h"
#include "tarvex_dsi_rest.h"

namespace {

constexpr int request_count = 2000;

void list_root(const std::string &url)
{
    tarvex_dsi_rest_key_value_t auth[] = {{"Authorization", "Bearer test-token"}};
    tarvex_dsi_rest_key_array_t headers = {1, auth};
    tarvex_dsi_rest_key_value_t query_pairs[] = {{"fields", "type,id,name,size"},
                                                 {"usemarker", "true"},
                                                 {"marker", nullptr},
                                                 {"limit", "300"}};
    tarvex_dsi_rest_key_array_t query = {4, query_pairs};
    tarvex_dsi_rest_key_value_t wanted[] = {{"Retry-After", nullptr}};
    tarvex_dsi_rest_response_arg_t record{};
    record.desired_headers = {1, wanted};
    json_t *document = nullptr;
    tarvex_dsi_rest_callbacks_t callbacks{};
    callbacks.response_callback = tarvex_dsi_rest_response;
    callbacks.response_callback_arg = &record;
    callbacks.data_read_callback = tarvex_dsi_rest_read_json;
    callbacks.data_read_callback_arg = &document;
    callbacks.progress_callback = tarvex_dsi_rest_progress_idle_timeout;
    callbacks.progress_callback_arg = reinterpret_cast<void *>(uintptr_t{30000});
    tarvex_result_t result =
        tarvex_dsi_rest_request("GET", url.c_str(), &query, &headers, &callbacks);
    bool ok = result == TARVEX_SUCCESS && record.response_code == 200 && document != nullptr;
    json_decref(document);
    tarvex_dsi_rest_response_arg_clear(&record);
    if (!ok)
        throw std::runtime_error("listing request failed");
}

} // namespace

int main()
{
    try {
        tarvex_module_activate(&tarvex_i_dsi_rest_module);
        tarvex_test::BoxEmulator emulator;
        emulator.seed(R"({"entries":[{"path":"/a","type":"folder"},)"
                      R"({"path":"/b.txt","type":"file","content":"hello"}]})");
        std::string url = emulator.api_base() + "/2.0/folders/0/items";
        // The warm-up request opens the connection the timed ones reuse.
        uint64_t connections = tarvex_dsi_rest_connections_opened();
        list_root(url);
        int64_t start = tarvex_time_monotonic_usec();
        for (int i = 0; i < request_count; i++)
            list_root(url);
        double elapsed = (tarvex_time_monotonic_usec() - start) / 1e6;
        connections = tarvex_dsi_rest_connections_opened() - connections;
        printf("requests_per_second: rps=%.0f connections=%llu\n", request_count / elapsed,
               static_cast<unsigned long long>(connections));
        tarvex_module_deactivate(&tarvex_i_dsi_rest_module);
        return 0;
    } catch (const std::exception &e) {
        fprintf(stderr, "requests_per_second: %s\n", e.what());
        return 1;
    }
}
