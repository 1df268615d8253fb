// The multipart/form-data writer.  Parts are framed with the boundary of
// the request's own Content-Type header, so that the body and the header
// the server reads it by can never disagree.
#include <cstring>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

namespace {

bool has_line_break(const char *text)
{
    return text != nullptr && strpbrk(text, "\r\n") != nullptr;
}

// A part header that holds a CR or LF would end its header block early or
// add header lines of its own (an upload's file name comes from the
// client), so it is never written and the writer refuses the body.
bool header_breaks_frame(const tarvex_dsi_rest_key_value_t &pair)
{
    return has_line_break(pair.key) || has_line_break(pair.value);
}

// The first part header that would break the framing, or nullptr.
const tarvex_dsi_rest_key_value_t *unframable_header(const tarvex_dsi_rest_multipart_arg_t *arg)
{
    if (arg == nullptr || arg->parts == nullptr)
        return nullptr;
    for (size_t index = 0; index < arg->num_parts; index++) {
        const tarvex_dsi_rest_key_array_t &headers = arg->parts[index].part_header;
        for (size_t i = 0; headers.key_value != nullptr && i < headers.count; i++)
            if (header_breaks_frame(headers.key_value[i]))
                return &headers.key_value[i];
    }
    return nullptr;
}

} // namespace

std::string multipart_delimiter(const std::string &boundary,
                                const tarvex_dsi_rest_multipart_arg_t *arg, size_t index)
{
    size_t parts = arg != nullptr ? arg->num_parts : 0;
    // The line break before a delimiter belongs to the delimiter: part
    // data ends exactly where its writer stops.
    std::string text = index == 0 ? "--" : "\r\n--";
    text += boundary;
    if (index == parts) {
        text += "--\r\n";
        return text;
    }
    text += "\r\n";
    if (arg->parts == nullptr) {
        text += "\r\n";
        return text;
    }
    const tarvex_dsi_rest_key_array_t &headers = arg->parts[index].part_header;
    for (size_t i = 0; headers.key_value != nullptr && i < headers.count; i++) {
        const tarvex_dsi_rest_key_value_t &pair = headers.key_value[i];
        if (pair.key == nullptr || header_breaks_frame(pair))
            continue;
        text += pair.key;
        text += ": ";
        text += pair.value != nullptr ? pair.value : "";
        text += "\r\n";
    }
    text += "\r\n";
    return text;
}

namespace {

class MultipartWriter : public Stream {
public:
    MultipartWriter(const tarvex_dsi_rest_multipart_arg_t *arg, std::string boundary)
        : arg_(arg), boundary_(std::move(boundary)), unframable_(unframable_header(arg)),
          text_(multipart_delimiter(boundary_, arg_, 0))
    {
    }

    const std::string &boundary() const { return boundary_; }
    size_t parts() const { return arg_ != nullptr ? arg_->num_parts : 0; }

    tarvex_result_t read(char *buffer, size_t length, size_t *produced)
    {
        if (unframable_ != nullptr)
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                         "Multipart part header %s with a line break",
                                         unframable_->key != nullptr ? unframable_->key
                                                                     : "(null)");
        size_t n = 0;
        while (n < length) {
            if (!in_data_) {
                if (position_ < text_.size()) {
                    size_t k = std::min(length - n, text_.size() - position_);
                    memcpy(buffer + n, text_.data() + position_, k);
                    position_ += k;
                    n += k;
                    continue;
                }
                if (index_ == parts())
                    break; // the closing delimiter is out
                in_data_ = true;
            }
            size_t k = 0;
            tarvex_result_t result = part_data(buffer + n, length - n, &k);
            if (result != TARVEX_SUCCESS)
                return result;
            if (k > 0) {
                // Hand what we have to curl rather than wait on the part
                // again (a streaming part may block for its next bytes).
                n += k;
                break;
            }
            index_++;
            text_ = multipart_delimiter(boundary_, arg_, index_);
            position_ = 0;
            in_data_ = false;
        }
        *produced = n;
        return TARVEX_SUCCESS;
    }

private:
    tarvex_result_t part_data(char *buffer, size_t length, size_t *produced)
    {
        if (arg_->parts == nullptr)
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                         "Multipart body with %zu parts but no part list",
                                         arg_->num_parts);
        const tarvex_dsi_rest_write_part_t &part = arg_->parts[index_];
        if (part.data_write_callback == nullptr)
            return TARVEX_SUCCESS;
        tarvex_result_t result =
            part.data_write_callback(part.data_write_callback_arg, buffer, length, produced);
        if (result == TARVEX_SUCCESS && *produced > length)
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_CALLBACK, nullptr,
                                         "A multipart part writer overran its buffer");
        return result;
    }

    const tarvex_dsi_rest_multipart_arg_t *arg_;
    std::string boundary_;
    const tarvex_dsi_rest_key_value_t *unframable_;
    size_t index_ = 0;
    std::string text_;
    size_t position_ = 0;
    bool in_data_ = false;
};

MultipartWriter *multipart_writer(RequestContext &ctx, void *arg)
{
    return ctx.stream<MultipartWriter>(
        reinterpret_cast<const void *>(&tarvex_dsi_rest_write_multipart), arg, [&ctx, arg] {
            return std::make_unique<MultipartWriter>(
                static_cast<const tarvex_dsi_rest_multipart_arg_t *>(arg),
                boundary_of(ctx.content_type));
        });
}

} // namespace

std::optional<uint64_t> multipart_length(RequestContext &ctx, void *arg)
{
    auto *multipart = static_cast<const tarvex_dsi_rest_multipart_arg_t *>(arg);
    MultipartWriter *writer = multipart_writer(ctx, arg);
    if (writer->boundary().empty() || (writer->parts() > 0 && multipart->parts == nullptr) ||
        unframable_header(multipart) != nullptr)
        return std::nullopt;
    uint64_t total = 0;
    for (size_t i = 0; i <= writer->parts(); i++) {
        total += multipart_delimiter(writer->boundary(), multipart, i).size();
        if (i == writer->parts())
            break;
        const tarvex_dsi_rest_write_part_t &part = multipart->parts[i];
        if (part.data_write_callback == nullptr)
            continue;
        auto length = known_body_length(ctx, part.data_write_callback,
                                        part.data_write_callback_arg);
        if (!length)
            return std::nullopt;
        total += *length;
    }
    return total;
}

} // namespace tarvex_dsi_rest_internal

using namespace tarvex_dsi_rest_internal;

extern "C" tarvex_result_t tarvex_dsi_rest_write_multipart(void *write_callback_arg,
                                                           char *buffer, size_t buffer_length,
                                                           size_t *bytes_written)
{
    *bytes_written = 0;
    return in_request(__func__, [&](RequestContext &ctx) {
        MultipartWriter *writer = multipart_writer(ctx, write_callback_arg);
        if (writer->boundary().empty())
            return TARVEX_DSI_REST_ERROR(TARVEX_DSI_REST_ERROR_ARGUMENT, nullptr,
                                         "Multipart body without a boundary in Content-Type: %s",
                                         ctx.url.c_str());
        return writer->read(buffer, buffer_length, bytes_written);
    });
}
