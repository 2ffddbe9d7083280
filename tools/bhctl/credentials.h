// Credentials, and the two requests that get them accepted: one enables the command mode, the other
// verifies the administrator's password.

#ifndef BH_TOOLS_BHCTL_CREDENTIALS_H_
#define BH_TOOLS_BHCTL_CREDENTIALS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"
#include "tools/bhctl/session.h"

namespace bhctl {

// The body: code, `extra`, `text`, NUL.
Request MakeSpecialRequest(uint8_t code, uint32_t extra, Bytes text);

// Sent before a request that needs them. Both are optional: the appliance may have accepted them
// earlier.
struct Credentials {
  std::optional<Secret> pass_phrase;  // enables the command mode
  std::optional<Secret> password;     // the administrator's
};

Secret PassPhrase(const std::string &text);
Secret AdminPassword(const std::string &text);

// Only the pass phrase, if the options have one.
Credentials CredentialsOf(const Options &options);

// The pass phrase, and the administrator's password from ReadPassword. An empty line on the
// terminal means no password: the appliance may have verified it earlier. Returns like
// ReadPassword.
int ReadCredentials(const Options &options, Credentials &credentials);

// For OpenSession: the secrets that Authorize sends.
std::vector<Secret> SecretsOf(const Credentials &credentials);

// What the appliance refused, and what may help.
struct Refusal {
  uint32_t state = 0;
  std::string hint;
};

// Gets the credentials accepted. The session must have been opened with their secrets. Returns
// EXIT_DONE; or EXIT_REFUSED, with `refusal` filled and nothing printed; or prints an error and
// returns another ExitStatus.
int Authorize(const Options &chosen, const Session &session, const Credentials &credentials,
              Refusal &refusal);

// The same, but prints the refusal.
int AuthorizeOrReport(const Options &chosen, const Session &session,
                      const Credentials &credentials);

// Hints for ACP_STATE_NOT_PERMIT: the command mode is not enabled for the session's requester; and
// for ACP_STATE_PASSWORD_ERROR: that, or the password is not verified.
std::string NotEnabledHint(const Session &session);
std::string NotVerifiedHint(const Session &session);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_CREDENTIALS_H_
