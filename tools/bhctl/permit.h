// The permissions that an appliance asks for: its command mode enabled by the requester, the
// administrator's password verified.

#ifndef BH_BHCTL_PERMIT_H_
#define BH_BHCTL_PERMIT_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/bhctl/options.h"
#include "tools/bhctl/session.h"
#include "tools/bhctl/wire.h"

namespace bhctl {

// Codes of ACP_SPECIAL that permissions are got with.
constexpr uint8_t SPECIAL_LOGIN = 0x0C;
constexpr uint8_t SPECIAL_COMMAND_MODE = 0x0D;  // extra 0 enables, any other disables

// `text` follows the code and `extra`, with a NUL behind it.
Request SpecialRequest(uint8_t code, uint32_t extra, Bytes text);

// What is got before a request, as far as the secrets are known; without one an earlier permission
// may still hold.
struct Permit {
  std::optional<Secret> pass_phrase;  // enables the command mode
  std::optional<Secret> password;     // of the administrator, to be verified
};

Secret PassPhrase(const std::string &text);
Secret AdminPassword(const std::string &text);

// The options' pass phrase, if they give one.
Permit PermitOf(const Options &options);

// The same, and the administrator's password as ReadPassword gets it. A line that is left empty at
// the terminal is none: one verified before may do. Returns as ReadPassword.
int ReadPermit(const Options &options, Permit *permit);

// For OpenSession: what the permit sends.
std::vector<Secret> SecretsOf(const Permit &permit);

// What the appliance refused, and what may help.
struct Refusal {
  uint32_t state = 0;
  std::string hint;
};

// Gets the permissions, in a session that was opened with their secrets. Returns EXIT_DONE,
// EXIT_REFUSED with `refusal` told to nobody yet, or says what went wrong and returns another
// ExitStatus.
int Obtain(const Options &chosen, const Session &session, const Permit &permit, Refusal *refusal);

// The same, and tells the refusal.
int ObtainOrTell(const Options &chosen, const Session &session, const Permit &permit);

// What to do where the command mode is not enabled for the session's requester; or where either
// that or the verified password is missing.
std::string NotEnabledHint(const Session &session);
std::string NotVerifiedHint(const Session &session);

}  // namespace bhctl

#endif  // BH_BHCTL_PERMIT_H_
