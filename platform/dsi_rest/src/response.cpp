// The response head: collecting the status line and headers from curl, and
// handing them to the caller's response callback once they are complete.
#include <cstdlib>
#include <cstring>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

namespace {

int status_of(std::string_view line)
{
    // "HTTP/1.1 302 Found", "HTTP/2 200"
    size_t space = line.find(' ');
    if (space == std::string_view::npos)
        return 0;
    std::string_view rest = trim(line.substr(space + 1));
    int code = 0;
    for (size_t i = 0; i < rest.size() && i < 3; i++) {
        if (rest[i] < '0' || rest[i] > '9')
            return 0;
        code = code * 10 + (rest[i] - '0');
    }
    return code;
}

void add_header_line(RequestContext &ctx, std::string_view line)
{
    // A folded continuation line belongs to the previous header.
    if (line.front() == ' ' || line.front() == '\t') {
        if (!ctx.headers.empty()) {
            std::string &value = ctx.headers.back().second;
            value += ' ';
            value += trim(line);
        }
        return;
    }
    size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return;
    ctx.headers.emplace_back(std::string(trim(line.substr(0, colon))),
                             std::string(trim(line.substr(colon + 1))));
}

} // namespace

bool deliver_response(RequestContext &ctx)
{
    if (ctx.response_delivered)
        return ctx.failure == TARVEX_SUCCESS;
    ctx.response_delivered = true;
    if (ctx.callbacks.response_callback == nullptr)
        return true;
    std::vector<tarvex_dsi_rest_key_value_t> pairs;
    pairs.reserve(ctx.headers.size());
    for (const auto &[key, value] : ctx.headers)
        pairs.push_back({key.c_str(), value.c_str()});
    tarvex_dsi_rest_key_array_t array = {pairs.size(), pairs.empty() ? nullptr : pairs.data()};
    tarvex_result_t result = ctx.callbacks.response_callback(
        ctx.callbacks.response_callback_arg, ctx.status, ctx.status_line.c_str(), &array);
    if (result == TARVEX_SUCCESS)
        return true;
    ctx.fail(adopt_callback_error(result, "response", ctx.url));
    return false;
}

namespace {

size_t receive_header(RequestContext &ctx, char *data, size_t length)
{
    ctx.touch();
    std::string_view raw(data, length);
    std::string_view line = trim(raw);
    if (line.substr(0, 5) == "HTTP/") {
        // A new status line: an interim answer (100 Continue) came before,
        // or this is the first; either way collection starts over.
        ctx.status = status_of(line);
        ctx.status_line = std::string(line);
        ctx.headers.clear();
        ctx.headers_complete = false;
        return length;
    }
    if (ctx.headers_complete)
        return length; // trailers after a chunked body
    if (line.empty()) {
        if (ctx.status >= 100 && ctx.status < 200)
            return length; // the end of an interim answer
        ctx.headers_complete = true;
        return deliver_response(ctx) ? length : 0;
    }
    add_header_line(ctx, raw.front() == ' ' || raw.front() == '\t' ? raw : line);
    return length;
}

} // namespace

size_t header_callback(char *data, size_t size, size_t count, void *userdata)
{
    auto &ctx = *static_cast<RequestContext *>(userdata);
    return guard_callback(ctx, "the response callback", size_t{0},
                          [&] { return receive_header(ctx, data, size * count); });
}

namespace {

// The stock response callback's work: the code and each wanted header.
tarvex_result_t fill_record(tarvex_dsi_rest_response_arg_t *record, int response_code,
                            const tarvex_dsi_rest_key_array_t *response_headers)
{
    record->response_code = response_code;
    tarvex_dsi_rest_key_array_t &wanted = record->desired_headers;
    if (wanted.key_value == nullptr)
        return TARVEX_SUCCESS;
    for (size_t i = 0; i < wanted.count; i++) {
        tarvex_dsi_rest_key_value_t &slot = wanted.key_value[i];
        // A value left from an earlier attempt gives way to this answer's.
        free(const_cast<char *>(slot.value));
        slot.value = nullptr;
        if (slot.key == nullptr || response_headers == nullptr)
            continue;
        for (size_t j = 0; j < response_headers->count; j++) {
            const tarvex_dsi_rest_key_value_t &got = response_headers->key_value[j];
            if (got.key == nullptr || !header_name_equals(got.key, slot.key))
                continue;
            std::string_view value = trim(got.value ? got.value : "");
            slot.value = strndup(value.data(), value.size());
            if (slot.value == nullptr)
                return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                             "Out of memory copying header %s", slot.key);
            break; // the first occurrence counts
        }
    }
    return TARVEX_SUCCESS;
}

void clear_record(tarvex_dsi_rest_response_arg_t *arg)
{
    arg->response_code = 0;
    arg->request_bytes_uploaded = 0;
    arg->response_bytes_downloaded = 0;
    if (arg->desired_headers.key_value == nullptr)
        return;
    for (size_t i = 0; i < arg->desired_headers.count; i++) {
        free(const_cast<char *>(arg->desired_headers.key_value[i].value));
        arg->desired_headers.key_value[i].value = nullptr;
    }
}

} // namespace

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" tarvex_result_t tarvex_dsi_rest_response(
    void *response_callback_arg, int response_code, const char *response_status,
    const tarvex_dsi_rest_key_array_t *response_headers)
{
    (void)response_status;
    auto *record = static_cast<tarvex_dsi_rest_response_arg_t *>(response_callback_arg);
    if (record == nullptr)
        return TARVEX_SUCCESS;
    return guard_result(__func__,
                        [&] { return fill_record(record, response_code, response_headers); });
}

extern "C" void tarvex_dsi_rest_response_arg_clear(tarvex_dsi_rest_response_arg_t *arg)
{
    if (arg != nullptr)
        guard_quiet(__func__, [arg] { clear_record(arg); });
}
