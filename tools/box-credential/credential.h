/*
 * What the helper does for a user: hand out a valid credential (renewing
 * it when near expiry), renew it for a session whose token is running out,
 * and enrol the user in the first place.
 */
#ifndef TARVEX_BOX_CREDENTIAL_CREDENTIAL_H
#define TARVEX_BOX_CREDENTIAL_CREDENTIAL_H

#include <cstdint>
#include <string>

#include "credential_store.h"
#include "settings.h"

namespace box_credential {

/* The plug-in asks for a new token when fewer than 100 s remain; a token
 * is handed out only with more than this left, the 5 s above that margin
 * covering the time the session takes to read it and the whole seconds
 * the expiry is written in. */
inline constexpr int64_t handout_margin = 105;
/* A renewal asked within this many seconds of another one takes the
 * token that one obtained: sessions running out together renew once. */
inline constexpr int64_t just_renewed = 60;

enum class call { credential, renewal };

/* The credential JSON the plug-in takes, for a credential that is valid. */
std::string plugin_credential(const credential &c);

/* The normal call (call::credential) or the renewal call: prints nothing,
 * returns the plug-in's credential text. */
std::string obtain(const settings &s, const credential_store &store, call kind);

/* Makes the first grant for a user and stores the credential.  `c` holds
 * the grant, the client and the refresh token or Box user id.  Returns a
 * one-line summary without secrets. */
std::string enrol(const settings &s, const credential_store &store, credential c);

} // namespace box_credential

#endif
