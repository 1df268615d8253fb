/*
 * Box's answers of status 400 and more: the status, the Retry-After header
 * and the body, turned into the error a client reads and the retry hints.
 *
 * Input: "STATUS\nRETRY-AFTER\nBODY".  An empty second line means no
 * Retry-After header; a body that is not JSON is read as none, as the
 * REST client reads error answers.
 */
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "tarvex_box_common.h"
#include "translate_response.h"

using namespace tarvex_fuzz;

namespace {

/* The next line of `rest` (without its LF); `rest` keeps what follows. */
std::string take_line(std::string &rest)
{
    size_t end = rest.find('\n');
    std::string line = rest.substr(0, end);
    rest.erase(0, end == std::string::npos ? rest.size() : end + 1);
    return line;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    activate_runtime();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string rest(reinterpret_cast<const char *>(data), size);
    std::string status_line = take_line(rest);
    // Header values are C strings: a NUL ends one.
    std::string retry_after = take_line(rest);
    retry_after.resize(retry_after.find('\0') == std::string::npos ? retry_after.size()
                                                                    : retry_after.find('\0'));

    tarvex_dsi_rest_key_value_t wanted[1] = {
        {"Retry-After", retry_after.empty() ? nullptr : retry_after.c_str()}};
    tarvex_dsi_rest_response_arg_t response = {};
    response.response_code = static_cast<int>(strtol(status_line.c_str(), nullptr, 10) % 100000);
    response.desired_headers = {1, wanted};

    json_error_t error;
    json_t *json = rest.empty() ? nullptr
                                : json_loadb(rest.data(), rest.size(), JSON_DECODE_ANY, &error);

    bool retry = false;
    unsigned long seconds = 0;
    tarvex_result_t result = tarvex_box_translate_response(&response, json, &retry, &seconds);
    // An error body always names a failure, whatever it holds.
    check(json == nullptr || result != TARVEX_SUCCESS, "an error body taken as success");
    release(result);
    // Callers that want no hints pass no pointers.
    release(tarvex_box_translate_response(&response, json, nullptr, nullptr));

    json_decref(json);
    check_error_table_empty();
    return 0;
}
