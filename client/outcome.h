// How a call of the library ended.

#ifndef BH_CLIENT_OUTCOME_H_
#define BH_CLIENT_OUTCOME_H_

#include <cstdint>
#include <string>

namespace acp {

enum class Result {
  DONE,
  REFUSED,    // the appliance answered with a state other than ACP_STATE_OK
  INVALID,    // wrong arguments; nothing was sent
  NO_ANSWER,  // no answer, or an error on this machine
  CANCELLED,  // by Scope::cancel
};

struct Outcome {
  Result result = Result::DONE;
  std::string message;  // one line without a line feed; empty if done
  std::string hint;     // what may help; may be empty
  uint32_t state = 0;   // AcpState of the refusal, else 0
  std::string step;     // of an update, where it ended

  bool IsDone() const {
    return result == Result::DONE;
  }
};

// A call that ended without success.
Outcome Failure(Result result, const std::string &message, const std::string &hint = "");

// A failed system call. `error` is an errno value.
Outcome SystemFailure(const std::string &what, int error);

// The appliance refused with `state`.
Outcome Refusal(uint32_t state, const std::string &hint);

}  // namespace acp

#endif  // BH_CLIENT_OUTCOME_H_
