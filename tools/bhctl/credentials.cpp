// The appliance enables the command mode for one MAC address. So the request that needs it must
// come from the same session.

#include "tools/bhctl/credentials.h"

#include "tools/bhctl/client.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/refusal.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr Hint PASS_PHRASE_HINTS[] = {
    {ACP_STATE_PASSWORD_ERROR, "the pass phrase of the command mode is wrong"},
    {ACP_STATE_NO_KEY, KEY_EXPIRED},
};
constexpr Hint PASSWORD_HINTS[] = {
    {ACP_STATE_PASSWORD_ERROR, "the administrator's password is wrong"},
    {ACP_STATE_NO_KEY, KEY_EXPIRED},
};

int Send(const Options &chosen, const Session &session, uint8_t code, const Secret &secret,
         uint32_t &state) {
  const std::vector<uint8_t> encoded = EncodePassword(secret, session.key).value();
  Answer answer;
  const int status = AskOne(chosen, MakeSpecialRequest(code, 0, encoded), answer);
  state = answer.state;
  if (status != EXIT_DONE) return status;
  return answer.state == ACP_STATE_OK ? EXIT_DONE : EXIT_REFUSED;
}

}  // namespace

Request MakeSpecialRequest(uint8_t code, uint32_t extra, Bytes text) {
  Request request = {ACP_SPECIAL, ACP_SPECIAL_REPLY, 0, BodyOf(SpecialRequest{code, {}, extra})};
  Append(request.body, text);
  request.body.push_back(0);
  return request;
}

Secret PassPhrase(const std::string &text) {
  return {text, MAX_PASSWORD, "the pass phrase"};
}

Secret AdminPassword(const std::string &text) {
  return {text, MAX_PASSWORD, "the administrator's password"};
}

Credentials CredentialsOf(const Options &options) {
  Credentials credentials;
  if (!options.pass_phrase.empty()) credentials.pass_phrase = PassPhrase(options.pass_phrase);
  return credentials;
}

int ReadCredentials(const Options &options, Credentials &credentials) {
  std::optional<std::string> password;
  const int status = ReadPassword(options, password);
  credentials = CredentialsOf(options);
  if (password && (options.password || options.password_stdin || !password->empty()))
    credentials.password = AdminPassword(*password);
  return status;
}

std::vector<Secret> SecretsOf(const Credentials &credentials) {
  std::vector<Secret> secrets;
  if (credentials.pass_phrase) secrets.push_back(*credentials.pass_phrase);
  if (credentials.password) secrets.push_back(*credentials.password);
  return secrets;
}

int Authorize(const Options &chosen, const Session &session, const Credentials &credentials,
              Refusal &refusal) {
  if (credentials.pass_phrase) {
    const int status =
        Send(chosen, session, SPECIAL_COMMAND_MODE, *credentials.pass_phrase, refusal.state);
    refusal.hint = HintFor(PASS_PHRASE_HINTS, refusal.state);
    if (status != EXIT_DONE) return status;
  }
  if (!credentials.password) return EXIT_DONE;
  const int status =
      Send(chosen, session, SPECIAL_VERIFY_PASSWORD, *credentials.password, refusal.state);
  refusal.hint = refusal.state == ACP_STATE_NOT_PERMIT ? NotEnabledHint(session)
                                                       : HintFor(PASSWORD_HINTS, refusal.state);
  return status;
}

int AuthorizeOrReport(const Options &chosen, const Session &session,
                      const Credentials &credentials) {
  Refusal refusal;
  const int status = Authorize(chosen, session, credentials, refusal);
  if (status != EXIT_REFUSED) return status;
  return ShowRefusal(chosen, session.mac, refusal.state, refusal.hint);
}

std::string NotEnabledHint(const Session &session) {
  if (session.made_up_mac)
    return "the password cannot be encoded under this machine's key, so bhctl used the made-up "
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

}  // namespace bhctl
