// Credentials, and the two requests that get them accepted: one enables the command mode, the other
// verifies the administrator's password.

#ifndef BH_CLIENT_CREDENTIALS_H_
#define BH_CLIENT_CREDENTIALS_H_

#include <optional>
#include <string>
#include <vector>

#include "client/datagram.h"
#include "client/session.h"

namespace acp {

// Sent before a request that needs them. Both are optional: the appliance may have accepted them
// earlier.
struct Credentials {
  std::optional<Secret> pass_phrase;  // enables the command mode
  std::optional<Secret> password;     // the administrator's
};

Secret PassPhrase(const std::string &text);
Secret AdminPassword(const std::string &text);

// For OpenSession: the secrets that Authorize sends.
std::vector<Secret> SecretsOf(const Credentials &credentials);

// Gets the credentials accepted. The session must have been opened with their secrets.
Outcome Authorize(const Scope &scope, const Session &session, const Credentials &credentials);

// Hints for ACP_STATE_NOT_PERMIT: the command mode is not enabled for the session's requester; and
// for ACP_STATE_PASSWORD_ERROR: that, or the password is not verified.
std::string NotEnabledHint(const Session &session);
std::string NotVerifiedHint(const Session &session);

}  // namespace acp

#endif  // BH_CLIENT_CREDENTIALS_H_
