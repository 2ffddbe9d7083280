// The hash travels, not the new password.

#include "tools/bhctl/change_password.h"

#include <cstdlib>

#include "client/hints.h"
#include "client/password_hash.h"
#include "client/special.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/targets.h"

namespace bhctl {
namespace {

constexpr Hint HINTS[] = {
    {ACP_STATE_PASSWORD_ERROR, "the old password is wrong"},
    {ACP_STATE_NO_KEY, KEY_EXPIRED},
    {ACP_STATE_BAD_PRODUCT, OTHER_PRODUCTS},
};

int ReadPasswords(const Options &options, Secret &old_password, Secret &hash) {
  std::string text;
  int status = NeedPassword(options, text);
  old_password = AdminPassword(text);
  std::optional<std::string> new_password;
  if (const char *value = getenv("BHCTL_NEW_PASSWORD"); value != nullptr) new_password = value;
  if (const std::string *given = Given(options, "--new-password"); given != nullptr)
    new_password = *given;
  if (status == EXIT_DONE) status = NeedNewPassword(options, new_password, text);
  if (status != EXIT_DONE) return status;
  hash = {HashPassword(text, RandomSalt()), sizeof(PasswordChange::new_password), "the hash"};
  if (!hash.text.empty()) return EXIT_DONE;
  PrintError("this machine cannot hash the new password");
  return EXIT_NO_ANSWER;
}

Outcome Change(const Options &options, const Target &target, const Secret &old_password,
               const Secret &hash) {
  const Credentials credentials = CredentialsOf(options);
  std::vector<Secret> secrets = SecretsOf(credentials);
  secrets.insert(secrets.end(), {old_password, hash});
  Session session;
  Outcome outcome = OpenSession(options.scope, *target.discovered, secrets, session);
  if (outcome.IsDone())
    outcome = Authorize(SessionScope(options.scope, session), session, credentials);
  if (!outcome.IsDone()) return outcome;
  const Request request = MakePasswordChangeRequest(
      EncodePassword(hash, session.key).value(), EncodePassword(old_password, session.key).value());
  uint32_t state = ACP_STATE_OK;
  outcome = AskSpecial(options.scope, session, request, state);
  if (!outcome.IsDone() || state == ACP_STATE_OK) return outcome;
  return Refusal(state,
                 state == ACP_STATE_NOT_PERMIT ? NotEnabledHint(session) : HintFor(HINTS, state));
}

}  // namespace

int Passwd(const Options &options) {
  Secret old_password;
  Secret hash;
  const int status = ReadPasswords(options, old_password, hash);
  if (status != EXIT_DONE) return status;
  return RunOnChosen(options, [&](const Options &chosen, const Target &target) {
    Outcome outcome = Change(chosen, target, old_password, hash);
    return outcome.IsDone() ? ReportDone(chosen, target.GetMac(), "done")
                            : Report(chosen, target.GetMac(), outcome);
  });
}

}  // namespace bhctl
