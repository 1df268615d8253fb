/*
 * The origins of URLs (scheme, host, port): which requests may carry the
 * user's token, and how a URL is named where its path must not show.
 */
#ifndef TARVEX_BOX_ORIGIN_H
#define TARVEX_BOX_ORIGIN_H

#include <string>

/* "scheme://host:port" of an http or https URL, scheme and host in lower
 * case, the port always written (80 or 443 when the URL names none); ""
 * for anything else, and for a URL that names a user. */
std::string tarvex_box_origin(const char *url);

/* Whether `url` is on the API or the upload origin (scheme, host and port):
 * the only ones the user's token is sent to. */
extern "C" bool tarvex_box_url_on_box_origin(const char *url);

#endif
