// JSON bodies: the reader gathers the whole body and parses it once the
// exchange is over; the writer sends a document in its compact form.
#include <cstdlib>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

namespace {

// Far above any listing page or item; a body this large is not an answer
// of the API but something else, and is refused instead of buffered.
constexpr size_t max_json_body = 64u << 20;

class JsonReader : public Stream {
public:
    explicit JsonReader(json_t **target) : target_(target) {}

    tarvex_result_t append(RequestContext &ctx, const void *data, size_t length)
    {
        if (body_.size() + length > max_json_body)
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                         "JSON response body above %zu bytes: %s",
                                         max_json_body, ctx.url.c_str());
        body_.append(static_cast<const char *>(data), length);
        return TARVEX_SUCCESS;
    }

    tarvex_result_t finish(RequestContext &ctx, bool transferred) override
    {
        if (!transferred || body_.empty() || target_ == nullptr)
            return TARVEX_SUCCESS;
        json_error_t error;
        json_t *document = json_loadb(body_.data(), body_.size(), JSON_DECODE_ANY, &error);
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

    bool rewind() override
    {
        body_.clear();
        return true;
    }

private:
    json_t **target_;
    std::string body_;
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
                                          static_cast<json_t **>(arg));
                                  });
}

JsonWriter *json_writer(RequestContext &ctx, void *arg)
{
    return ctx.stream<JsonWriter>(reinterpret_cast<const void *>(&tarvex_dsi_rest_write_json),
                                  arg, [arg] {
                                      return std::make_unique<JsonWriter>(
                                          static_cast<const json_t *>(arg));
                                  });
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
    RequestContext *ctx = RequestContext::current();
    if (ctx == nullptr)
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                     "tarvex_dsi_rest_read_json called outside a request");
    return json_reader(*ctx, read_callback_arg)->append(*ctx, buffer, buffer_length);
}

extern "C" tarvex_result_t tarvex_dsi_rest_write_json(void *write_callback_arg, char *buffer,
                                                      size_t buffer_length,
                                                      size_t *bytes_written)
{
    *bytes_written = 0;
    RequestContext *ctx = RequestContext::current();
    if (ctx == nullptr)
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                     "tarvex_dsi_rest_write_json called outside a request");
    JsonWriter *writer = json_writer(*ctx, write_callback_arg);
    if (writer->failed())
        return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                     "Cannot serialise the JSON request body: %s",
                                     ctx->url.c_str());
    *bytes_written = writer->read(buffer, buffer_length);
    return TARVEX_SUCCESS;
}
