// The TRACE level's view of an exchange: libcurl's informational text and
// the header lines each way, one debug line each.  libcurl's own verbose
// dump would print "Authorization: Bearer <token>" as sent, so the header
// lines pass through here and the values of credential headers are
// replaced, as is the request target of a URL sent without a credential
// (a pre-signed link is one); bodies are never printed (a token endpoint's
// answer is all secrets).
#include <strings.h>

#include <cstring>
#include <string>
#include <string_view>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

namespace {

// Headers whose value is a credential, each way.  A redirect's target can
// be one: Box answers a file's content with a signed download link.
constexpr const char *secret_headers[] = {"Authorization", "Proxy-Authorization", "Cookie",
                                          "Set-Cookie", "Location", "Content-Location"};

bool is_secret_header(std::string_view line)
{
    size_t colon = line.find(':');
    if (colon == std::string_view::npos)
        return false;
    std::string_view name = line.substr(0, colon);
    for (const char *secret : secret_headers)
        if (name.size() == std::strlen(secret) &&
            strncasecmp(name.data(), secret, name.size()) == 0)
            return true;
    return false;
}

// Control bytes would let a header forge lines of the debug stream.
std::string printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (c < 0x20 || c == 0x7f) {
            static const char hex[] = "0123456789abcdef";
            out += "\\x";
            out += hex[c >> 4];
            out += hex[c & 15];
        } else {
            out += static_cast<char>(c);
        }
    }
    return out;
}

// A line with the request's secret URL parts (RequestContext::hidden)
// replaced.
std::string without_secrets(std::string text)
{
    const RequestContext *ctx = RequestContext::current();
    if (ctx == nullptr)
        return text;
    for (const std::string &secret : ctx->hidden)
        for (size_t at = text.find(secret); at != std::string::npos;
             at = text.find(secret, at + 8))
            text.replace(at, secret.size(), "<hidden>");
    return text;
}

void trace_lines(const char *marker, std::string_view block)
{
    while (!block.empty()) {
        size_t end = block.find('\n');
        std::string_view line = block.substr(0, end);
        block = end == std::string_view::npos ? std::string_view{} : block.substr(end + 1);
        if (!line.empty() && line.back() == '\r')
            line.remove_suffix(1);
        if (line.empty())
            continue;
        std::string text = is_secret_header(line)
                               ? std::string(line.substr(0, line.find(':'))) + ": <hidden>"
                               : without_secrets(printable(line));
        TARVEX_DSI_REST_LOG(TRACE, "TRACE", "%s %s", marker, text.c_str());
    }
}

int debug_callback(CURL *, curl_infotype type, char *data, size_t size, void *) noexcept
{
    try {
        std::string_view block(data, size);
        switch (type) {
        case CURLINFO_TEXT:
            trace_lines("*", block);
            break;
        case CURLINFO_HEADER_OUT:
            trace_lines(">", block);
            break;
        case CURLINFO_HEADER_IN:
            trace_lines("<", block);
            break;
        default:
            break;
        }
    } catch (...) {
        // A line lost from the trace is no reason to fail the exchange.
    }
    return 0;
}

} // namespace

void set_trace(CURL *curl)
{
    if ((debug_handle.levels & DEBUG_TRACE) == 0 || debug_handle.file == nullptr)
        return;
    curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, debug_callback);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
}

} // namespace tarvex_dsi_rest_internal
