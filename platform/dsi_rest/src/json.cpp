// JSON bodies: the reader gathers the whole body within the limits on JSON
// answers and parses it once the exchange is over; the writer sends a
// document in its compact form.
#include <atomic>
#include <charconv>
#include <cstdlib>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

std::optional<size_t> parse_byte_count(std::string_view text)
{
    text = trim(text);
    size_t count = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), count);
    if (ec != std::errc() || count == 0)
        return std::nullopt;
    std::string_view unit = text.substr(static_cast<size_t>(end - text.data()));
    unsigned shift = 0;
    if (unit == "K" || unit == "k")
        shift = 10;
    else if (unit == "M" || unit == "m")
        shift = 20;
    else if (unit == "G" || unit == "g")
        shift = 30;
    else if (!unit.empty())
        return std::nullopt;
    if (count > (SIZE_MAX >> shift))
        return std::nullopt;
    return count << shift;
}

void JsonShape::feed(std::string_view text)
{
    for (char c : text) {
        if (in_string_) {
            if (escaped_)
                escaped_ = false;
            else if (c == '\\')
                escaped_ = true;
            else if (c == '"')
                in_string_ = false;
            continue;
        }
        switch (c) {
        case '"':
            in_string_ = true;
            in_word_ = false;
            weight_++;
            break;
        case '{':
        case '[':
            max_depth_ = std::max(max_depth_, ++depth_);
            weight_ += container_weight;
            in_word_ = false;
            break;
        case '}':
        case ']':
            depth_ -= depth_ > 0 ? 1 : 0;
            in_word_ = false;
            break;
        case ',':
        case ':':
        case ' ':
        case '\t':
        case '\r':
        case '\n':
            in_word_ = false;
            break;
        default: // a number, true, false or null begins or goes on
            if (!in_word_)
                weight_++;
            in_word_ = true;
            break;
        }
    }
}

namespace {

// A real answer holds about one value per 9 bytes; at one per 16 bytes of
// the limit, one of half the limit still fits, while the densest text
// (objects of 3 bytes) parses into at most about 7 times the limit.
constexpr size_t bytes_per_value = 16;

std::atomic<size_t> g_json_limit{0}; // 0: the environment's, or the default
std::atomic<bool> g_bad_limit_reported{false};

size_t current_json_limit()
{
    size_t set = g_json_limit.load();
    if (set != 0)
        return set;
    const char *env = std::getenv("TARVEX_DSI_REST_JSON_LIMIT");
    if (env == nullptr || env[0] == '\0')
        return TARVEX_DSI_REST_JSON_LIMIT_DEFAULT;
    std::optional<size_t> parsed = parse_byte_count(env);
    if (parsed)
        return *parsed;
    if (!g_bad_limit_reported.exchange(true))
        TARVEX_DSI_REST_LOG(WARN, "WARN",
                            "TARVEX_DSI_REST_JSON_LIMIT=\"%s\" is not a byte count (such as "
                            "4194304 or 16M); the default of %zu bytes applies\n",
                            env, static_cast<size_t>(TARVEX_DSI_REST_JSON_LIMIT_DEFAULT));
    return TARVEX_DSI_REST_JSON_LIMIT_DEFAULT;
}

// The "Content-Length" the answer announced, if any.
std::optional<uint64_t> announced_length(const RequestContext &ctx)
{
    for (const auto &[key, value] : ctx.headers) {
        if (!header_name_equals(key, "Content-Length"))
            continue;
        uint64_t length = 0;
        auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), length);
        if (ec == std::errc() && end == value.data() + value.size())
            return length;
    }
    return std::nullopt;
}

class JsonReader : public Stream {
public:
    JsonReader(json_t **target, size_t limit) : target_(target), limit_(limit) {}

    tarvex_result_t append(RequestContext &ctx, const void *data, size_t length)
    {
        if (body_.empty()) {
            std::optional<uint64_t> announced = announced_length(ctx);
            if (announced && *announced > limit_)
                return too_large(ctx, "announces " + std::to_string(*announced) +
                                          " bytes, above the limit of " +
                                          std::to_string(limit_));
            // One allocation of the right size, instead of doublings that
            // could hold twice the limit.
            if (announced)
                body_.reserve(static_cast<size_t>(*announced));
        }
        if (length > limit_ - body_.size())
            return too_large(ctx, "is longer than the limit of " + std::to_string(limit_) +
                                      " bytes");
        std::string_view piece(static_cast<const char *>(data), length);
        shape_.feed(piece);
        if (shape_.max_depth() > TARVEX_DSI_REST_JSON_MAX_DEPTH)
            return too_large(ctx, "nests deeper than " +
                                      std::to_string(TARVEX_DSI_REST_JSON_MAX_DEPTH) + " levels");
        if (shape_.weight() > limit_ / bytes_per_value)
            return too_large(ctx, "holds more values than a limit of " +
                                      std::to_string(limit_) + " bytes allows (" +
                                      std::to_string(limit_ / bytes_per_value) + ")");
        body_.append(piece);
        return TARVEX_SUCCESS;
    }

    tarvex_result_t finish(RequestContext &ctx, bool transferred) override
    {
        std::string body = std::move(body_); // released on the way out
        if (!transferred || body.empty() || target_ == nullptr)
            return TARVEX_SUCCESS;
        json_error_t error;
        json_t *document = json_loadb(body.data(), body.size(), JSON_DECODE_ANY, &error);
        if (document != nullptr) {
            *target_ = document;
            return TARVEX_SUCCESS;
        }
        // Error answers often come from proxies and gateways as HTML; their
        // status still reaches the caller, so only a success must parse.
        if (ctx.status >= 300) {
            TARVEX_DSI_REST_LOG(DEBUG, "DEBUG", "non-JSON body of a %d answer from %s\n",
                                ctx.status, ctx.url.c_str());
            return TARVEX_SUCCESS;
        }
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                     "Invalid JSON in response body (line %d: %s): %s",
                                     error.line, error.text, ctx.url.c_str());
    }

private:
    tarvex_result_t too_large(const RequestContext &ctx, const std::string &what)
    {
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_TOO_LARGE, nullptr,
                                     "The JSON answer of %s %s %s (TARVEX_DSI_REST_JSON_LIMIT)",
                                     ctx.method.c_str(), ctx.url.c_str(), what.c_str());
    }

    json_t **target_;
    size_t limit_;
    std::string body_;
    JsonShape shape_;
};

class JsonWriter : public MemoryBody {
public:
    explicit JsonWriter(const json_t *document)
    {
        if (document == nullptr)
            return;
        char *text = json_dumps(document, JSON_COMPACT | JSON_ENCODE_ANY);
        if (text == nullptr) {
            failed_ = true;
            return;
        }
        text_ = text;
        free(text);
        set_body(text_.data(), text_.size());
    }

    bool failed() const { return failed_; }

private:
    std::string text_;
    bool failed_ = false;
};

JsonReader *json_reader(RequestContext &ctx, void *arg)
{
    return ctx.stream<JsonReader>(reinterpret_cast<const void *>(&tarvex_dsi_rest_read_json),
                                  arg, [arg] {
                                      return std::make_unique<JsonReader>(
                                          static_cast<json_t **>(arg), current_json_limit());
                                  });
}

JsonWriter *json_writer(RequestContext &ctx, void *arg)
{
    return ctx.stream_of<JsonWriter, const json_t>(&tarvex_dsi_rest_write_json, arg);
}

} // namespace

void prepare_json_reader(RequestContext &ctx, void *arg)
{
    // The document of an earlier attempt is the caller's to release; this
    // request's answer starts from none.
    if (arg != nullptr)
        *static_cast<json_t **>(arg) = nullptr;
    json_reader(ctx, arg);
}

std::optional<uint64_t> json_length(RequestContext &ctx, void *arg)
{
    JsonWriter *writer = json_writer(ctx, arg);
    if (writer == nullptr || writer->failed())
        return std::nullopt;
    return writer->size();
}

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" tarvex_result_t tarvex_dsi_rest_read_json(void *read_callback_arg, void *buffer,
                                                     size_t buffer_length)
{
    return in_request(__func__, [&](RequestContext &ctx) {
        return json_reader(ctx, read_callback_arg)->append(ctx, buffer, buffer_length);
    });
}

extern "C" tarvex_result_t tarvex_dsi_rest_write_json(void *write_callback_arg, char *buffer,
                                                      size_t buffer_length,
                                                      size_t *bytes_written)
{
    *bytes_written = 0;
    return in_request(__func__, [&](RequestContext &ctx) {
        JsonWriter *writer = json_writer(ctx, write_callback_arg);
        if (writer->failed())
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                         "Cannot serialise the JSON request body: %s",
                                         ctx.url.c_str());
        *bytes_written = writer->read(buffer, buffer_length);
        return TARVEX_SUCCESS;
    });
}

extern "C" void tarvex_dsi_rest_set_json_limit(size_t bytes)
{
    guard_quiet(__func__, [bytes] { g_json_limit.store(bytes); });
}

extern "C" size_t tarvex_dsi_rest_json_limit(void)
{
    return guard_quiet(__func__, static_cast<size_t>(TARVEX_DSI_REST_JSON_LIMIT_DEFAULT),
                       [] { return current_json_limit(); });
}
