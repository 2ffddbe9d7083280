#include "client/outcome.h"

#include <cstring>

#include "client/format.h"

namespace acp {

Outcome Failure(Result result, const std::string &message, const std::string &hint) {
  return {result, message, hint, 0, ""};
}

Outcome SystemFailure(const std::string &what, int error) {
  return Failure(Result::NO_ANSWER, what + ": " + ErrorText(error));
}

Outcome Refusal(uint32_t state, const std::string &hint) {
  return {Result::REFUSED, "refused: " + StateName(state), hint, state, ""};
}

}  // namespace acp
