// Key arrays: query strings, request header lists, header name matching.
#include <cctype>
#include <charconv>

#include "dsi_rest_internal.h"

namespace tarvex_dsi_rest_internal {

bool header_name_equals(std::string_view a, std::string_view b)
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); i++)
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

std::string_view trim(std::string_view text)
{
    auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && blank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && blank(text.back()))
        text.remove_suffix(1);
    return text;
}

std::string url_encode(std::string_view text)
{
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
            continue;
        }
        out += '%';
        out += hex[c >> 4];
        out += hex[c & 15];
    }
    return out;
}

std::string url_with_query(const char *url, const tarvex_dsi_rest_key_array_t *query)
{
    std::string out(url);
    if (query == nullptr || query->key_value == nullptr)
        return out;
    char separator = out.find('?') == std::string::npos ? '?' : '&';
    for (size_t i = 0; i < query->count; i++) {
        const tarvex_dsi_rest_key_value_t &pair = query->key_value[i];
        if (pair.key == nullptr || pair.value == nullptr)
            continue;
        out += separator;
        out += url_encode(pair.key);
        out += '=';
        out += url_encode(pair.value);
        separator = '&';
    }
    return out;
}

std::string url_for_messages(const char *url, bool with_path)
{
    std::string_view text(url != nullptr ? url : "");
    text = text.substr(0, text.find_first_of("?#"));
    size_t scheme_end = text.find("://");
    if (scheme_end == std::string_view::npos)
        return with_path ? std::string(text) : std::string();
    size_t host_start = scheme_end + 3;
    size_t path_start = std::min(text.find('/', host_start), text.size());
    std::string_view authority = text.substr(host_start, path_start - host_start);
    // "user:password@" is a credential too.
    size_t at = authority.rfind('@');
    if (at != std::string_view::npos)
        authority.remove_prefix(at + 1);
    std::string out(text.substr(0, host_start));
    out += authority;
    if (with_path)
        out += text.substr(path_start);
    return out;
}

bool carries_credential(const tarvex_dsi_rest_key_array_t *headers)
{
    if (headers == nullptr || headers->key_value == nullptr)
        return false;
    for (size_t i = 0; i < headers->count; i++) {
        const tarvex_dsi_rest_key_value_t &pair = headers->key_value[i];
        if (pair.key != nullptr && header_name_equals(pair.key, "Authorization") &&
            pair.value != nullptr && pair.value[0] != '\0')
            return true;
    }
    return false;
}

std::string boundary_of(std::string_view content_type)
{
    // Parameters follow the media type, separated by ';'.
    size_t start = content_type.find(';');
    while (start != std::string_view::npos) {
        std::string_view rest = content_type.substr(start + 1);
        size_t end = rest.find(';');
        std::string_view param = trim(rest.substr(0, end));
        size_t eq = param.find('=');
        if (eq != std::string_view::npos &&
            header_name_equals(trim(param.substr(0, eq)), "boundary")) {
            std::string_view value = trim(param.substr(eq + 1));
            if (value.size() >= 2 && value.front() == '"' && value.back() == '"')
                value = value.substr(1, value.size() - 2);
            return std::string(value);
        }
        start = end == std::string_view::npos ? end : start + 1 + end;
    }
    return std::string();
}

bool plan_headers(const tarvex_dsi_rest_key_array_t *headers, HeaderPlan *plan)
{
    if (headers == nullptr || headers->key_value == nullptr)
        return true;
    for (size_t i = 0; i < headers->count; i++) {
        const tarvex_dsi_rest_key_value_t &pair = headers->key_value[i];
        if (pair.key == nullptr || pair.key[0] == '\0')
            continue;
        std::string_view key(pair.key);
        std::string_view value = trim(pair.value != nullptr ? pair.value : "");
        // A line break inside a header would smuggle in headers of its own.
        if (key.find_first_of("\r\n:") != std::string_view::npos ||
            value.find_first_of("\r\n") != std::string_view::npos)
            return false;
        if (header_name_equals(key, "Expect"))
            plan->has_expect = true;
        if (header_name_equals(key, "Content-Type")) {
            plan->has_content_type = true;
            plan->content_type = std::string(value);
        }
        if (header_name_equals(key, "Content-Length") && !value.empty()) {
            uint64_t length = 0;
            auto [end, ec] = std::from_chars(value.data(), value.data() + value.size(), length);
            if (ec != std::errc() || end != value.data() + value.size())
                return false;
            plan->content_length = length;
        }
        // "Key:" is curl's way of saying "do not send your own Key header".
        std::string line(key);
        line += ':';
        if (!value.empty()) {
            line += ' ';
            line += value;
        }
        plan->lines.push_back(std::move(line));
    }
    return true;
}

} // namespace tarvex_dsi_rest_internal
