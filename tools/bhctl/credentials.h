// The permissions that an appliance asks for: its command mode enabled by the requester, the
// administrator's password verified.

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

// `text` follows the code and `extra`, with a NUL behind it.
Request MakeSpecialRequest(uint8_t code, uint32_t extra, Bytes text);

// What is got before a request, as far as the secrets are known; without one an earlier permission
// may still hold.
struct Credentials {
  std::optional<Secret> pass_phrase;  // enables the command mode
  std::optional<Secret> password;     // of the administrator, to be verified
};

Secret PassPhrase(const std::string &text);
Secret AdminPassword(const std::string &text);

// The options' pass phrase, if they give one.
Credentials CredentialsOf(const Options &options);

// The same, and the administrator's password as ReadPassword gets it. A line that is left empty at
// the terminal is none: one verified before may do. Returns as ReadPassword.
int ReadCredentials(const Options &options, Credentials &credentials);

// For OpenSession: what the credentials sends.
std::vector<Secret> SecretsOf(const Credentials &credentials);

// What the appliance refused, and what may help.
struct Refusal {
  uint32_t state = 0;
  std::string hint;
};

// Gets the permissions, in a session that was opened with their secrets. Returns EXIT_DONE,
// EXIT_REFUSED with `refusal` told to nobody yet, or says what went wrong and returns another
// ExitStatus.
int Authorize(const Options &chosen, const Session &session, const Credentials &credentials,
              Refusal &refusal);

// The same, and tells the refusal.
int AuthorizeOrTell(const Options &chosen, const Session &session, const Credentials &credentials);

// What to do where the command mode is not enabled for the session's requester; or where either
// that or the verified password is missing.
std::string NotEnabledHint(const Session &session);
std::string NotVerifiedHint(const Session &session);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_CREDENTIALS_H_
