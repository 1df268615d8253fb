/*
 * What every part of the credential helper throws when it cannot go on:
 * one line for the operator, printed by main() on standard error before a
 * non-zero exit.
 */
#ifndef TARVEX_BOX_CREDENTIAL_FAILURE_H
#define TARVEX_BOX_CREDENTIAL_FAILURE_H

#include <stdexcept>
#include <string>

namespace box_credential {

struct failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/* The token endpoint refused a grant with an OAuth 2.0 error ("error" is
 * its code, e.g. "invalid_grant"). */
struct grant_refused : failure {
    grant_refused(const std::string &text, std::string code)
        : failure(text), error(std::move(code)) {}
    std::string error;
};

} // namespace box_credential

#endif
