// A request is sent once, unless it is known to do no harm: a lost reply looks like a lost request,
// and a second one might restart the appliance again.

#include "client/special.h"

#include <algorithm>
#include <iterator>

#include "client/exchange.h"
#include "client/hints.h"

namespace acp {
namespace {

// Switches, and what only looks.
constexpr uint8_t REPEATABLE[] = {SPECIAL_CHECK_LOCK, SPECIAL_TRACE, SPECIAL_SET_LANGUAGE};

}  // namespace

Request MakeSpecialRequest(uint8_t code, uint32_t extra, Bytes text) {
  Request request = {ACP_SPECIAL, ACP_SPECIAL_REPLY, 0, BodyOf(SpecialRequest{code, {}, extra})};
  Append(request.body, text);
  request.body.push_back(0);
  request.repeatable =
      std::find(std::begin(REPEATABLE), std::end(REPEATABLE), code) != std::end(REPEATABLE);
  return request;
}

Outcome AskSpecial(const Scope &scope, const Session &session, const Request &request,
                   uint32_t &result) {
  Answer answer;
  Outcome outcome = AskOne(SessionScope(scope, session), request, answer);
  if (outcome.result == Result::NO_ANSWER && !request.repeatable) outcome.hint = MAYBE_DONE;
  result = answer.state;
  return outcome;
}

Request MakePasswordChangeRequest(Bytes hash, Bytes old_password) {
  std::vector<uint8_t> text(hash.begin(), hash.end());
  text.resize(sizeof(PasswordChange::new_password));
  text.insert(text.end(), old_password.begin(), old_password.end());
  return MakeSpecialRequest(SPECIAL_CHANGE_PASSWORD, PROOF_OLD_PASSWORD, text);
}

}  // namespace acp
