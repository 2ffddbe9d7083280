// The appliance enables the command mode for one MAC address. So the request that needs it must
// come from the same session.

#include "client/credentials.h"

#include "client/format.h"
#include "client/hints.h"
#include "client/special.h"

namespace acp {
namespace {

constexpr Hint PASS_PHRASE_HINTS[] = {
    {ACP_STATE_PASSWORD_ERROR, "the pass phrase of the command mode is wrong"},
    {ACP_STATE_NO_KEY, KEY_EXPIRED},
};
constexpr Hint PASSWORD_HINTS[] = {
    {ACP_STATE_PASSWORD_ERROR, "the administrator's password is wrong"},
    {ACP_STATE_NO_KEY, KEY_EXPIRED},
};

// Repeated until it is answered: to verify a password twice does no harm.
Outcome Send(const Scope &scope, const Session &session, uint8_t code, const Secret &secret,
             uint32_t &state) {
  const std::optional<std::vector<uint8_t>> encoded = EncodePassword(secret, session.key);
  if (!encoded) return Failure(Result::INVALID, std::string(secret.name) + " cannot be encoded");
  Request request = MakeSpecialRequest(code, 0, *encoded);
  request.repeatable = true;
  Answer answer;
  Outcome outcome = AskOne(scope, request, answer);
  state = answer.state;
  return outcome;
}

}  // namespace

Secret PassPhrase(const std::string &text) {
  return {text, MAX_PASSWORD, "the pass phrase"};
}

Secret AdminPassword(const std::string &text) {
  return {text, MAX_PASSWORD, "the administrator's password"};
}

std::vector<Secret> SecretsOf(const Credentials &credentials) {
  std::vector<Secret> secrets;
  if (credentials.pass_phrase) secrets.push_back(*credentials.pass_phrase);
  if (credentials.password) secrets.push_back(*credentials.password);
  return secrets;
}

Outcome Authorize(const Scope &scope, const Session &session, const Credentials &credentials) {
  uint32_t state = ACP_STATE_OK;
  if (credentials.pass_phrase) {
    Outcome outcome = Send(scope, session, SPECIAL_COMMAND_MODE, *credentials.pass_phrase, state);
    if (!outcome.IsDone()) return outcome;
    if (state != ACP_STATE_OK) return Refusal(state, HintFor(PASS_PHRASE_HINTS, state));
  }
  if (!credentials.password) return {};
  Outcome outcome = Send(scope, session, SPECIAL_VERIFY_PASSWORD, *credentials.password, state);
  if (!outcome.IsDone() || state == ACP_STATE_OK) return outcome;
  return Refusal(state, state == ACP_STATE_NOT_PERMIT ? NotEnabledHint(session)
                                                      : HintFor(PASSWORD_HINTS, state));
}

std::string NotEnabledHint(const Session &session) {
  if (session.made_up_mac)
    return "the password cannot be encoded under this machine's key, so the client used the "
           "made-up "
           "MAC address " +
           MacText(session.src_mac) +
           "; the command mode is not enabled for it: give --pass-phrase";
  return "the command mode is not enabled for this machine (" + MacText(session.src_mac) +
         "): give --pass-phrase or run 'bhctl enable'";
}

std::string NotVerifiedHint(const Session &session) {
  if (session.made_up_mac) return NotEnabledHint(session);
  return "the command mode is not enabled for this machine, or the administrator's password is not "
         "verified: give --pass-phrase and --password, or run 'bhctl enable' and 'bhctl login'";
}

}  // namespace acp
