/*
 * URL origins (origin.h).  The user's token goes only to the two origins
 * of Box's API that the settings name; a redirect can point anywhere.
 */
#include "origin.h"

#include <ctype.h>
#include <string.h>
#include <strings.h>

#include "config.h"
#include "tarvex_box_common.h"

namespace {

std::string lower(std::string text)
{
    for (char &c : text)
        c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

} // namespace

std::string tarvex_box_origin(const char *url)
{
    if (url == nullptr)
        return "";
    const char *scheme = strncasecmp(url, "https://", 8) == 0  ? "https"
                         : strncasecmp(url, "http://", 7) == 0 ? "http"
                                                                : nullptr;
    if (scheme == nullptr)
        return "";
    std::string rest = url + strlen(scheme) + 3;
    std::string authority = rest.substr(0, rest.find_first_of("/?#"));
    if (authority.empty() || authority.find('@') != std::string::npos)
        return "";
    /* The port follows the last ':' outside an IPv6 literal's brackets. */
    size_t bracket = authority.rfind(']');
    size_t colon = authority.rfind(':');
    std::string host = authority, port = strcmp(scheme, "https") == 0 ? "443" : "80";
    if (colon != std::string::npos && (bracket == std::string::npos || colon > bracket)) {
        host = authority.substr(0, colon);
        if (colon + 1 < authority.size())
            port = authority.substr(colon + 1);
    }
    return std::string(scheme) + "://" + lower(host) + ":" + port;
}

extern "C" bool tarvex_box_url_on_box_origin(const char *url)
{
    try {
        std::string origin = tarvex_box_origin(url);
        return !origin.empty() && (origin == tarvex_box_origin(tarvex_box_api_base()) ||
                                   origin == tarvex_box_origin(tarvex_box_upload_base()));
    } catch (...) {
        return false;
    }
}
