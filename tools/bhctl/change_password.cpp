// The request carries the hash that the account database will store, and the old password as proof.
// It has 16 bytes for the hash, so only the traditional DES form of crypt(3) fits.

#include "tools/bhctl/change_password.h"

#include <cstdlib>
#include <nlohmann/json.hpp>

#include "tools/bhctl/client.h"
#include "tools/bhctl/credentials.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/refusal.h"
#include "tools/bhctl/session.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr size_t HASH_CAPACITY = sizeof(PasswordChange::new_password);

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
  if (status == EXIT_DONE) status = NeedNewPassword(new_password, text);
  if (status != EXIT_DONE) return status;
  hash = {HashPassword(text, RandomSalt()), HASH_CAPACITY, "the hash"};
  if (!hash.text.empty()) return EXIT_DONE;
  PrintError("this machine cannot hash the new password");
  return EXIT_NO_ANSWER;
}

int ShowChange(const Options &options, const Session &session, uint32_t state) {
  if (state == ACP_STATE_NOT_PERMIT)
    return ShowRefusal(options, session.mac, state, NotEnabledHint(session));
  if (state != ACP_STATE_OK) return ShowRefusal(options, session.mac, state, HintFor(HINTS, state));
  if (options.json)
    PrintJson({{"mac", MacText(session.mac)}, {"state", StateName(state)}});
  else
    PrintLine("done");
  return EXIT_DONE;
}

}  // namespace

Request MakePasswordChangeRequest(Bytes hash, Bytes old_password) {
  std::vector<uint8_t> text(hash.begin(), hash.end());
  text.resize(HASH_CAPACITY);
  text.insert(text.end(), old_password.begin(), old_password.end());
  return MakeSpecialRequest(SPECIAL_CHANGE_PASSWORD, PROOF_OLD_PASSWORD, text);
}

int Passwd(const Options &options) {
  Secret old_password;
  Secret hash;
  int status = ReadPasswords(options, old_password, hash);
  if (status != EXIT_DONE) return status;
  const Credentials credentials = CredentialsOf(options);
  std::vector<Secret> secrets = SecretsOf(credentials);
  secrets.insert(secrets.end(), {old_password, hash});
  Session session;
  status = OpenSession(options, secrets, session);
  if (status != EXIT_DONE) return status;
  const Options chosen = SessionOptions(options, session);
  status = AuthorizeOrReport(chosen, session, credentials);
  if (status != EXIT_DONE) return status;
  Answer answer;
  const Request request = MakePasswordChangeRequest(
      EncodePassword(hash, session.key).value(), EncodePassword(old_password, session.key).value());
  status = AskOne(chosen, request, answer);
  if (status == EXIT_NO_ANSWER) PrintError(MAYBE_DONE);
  return status == EXIT_DONE ? ShowChange(chosen, session, answer.state) : status;
}

}  // namespace bhctl
