#include "tools/bhctl/wait.h"

#include <nlohmann/json.hpp>

#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

constexpr seconds MAX_WAIT{600};    // for each of silence and answer
constexpr seconds GOING_DOWN{120};  // an appliance that stays for longer does not restart
constexpr seconds ROUND{1};

Scope RoundScope(const Scope &scope) {
  Scope round = scope;
  round.timeout = ROUND;
  round.warn = {};  // the interface may go down with the appliance
  return round;
}

// A ping costs the appliance nothing.
bool Answers(const Scope &scope) {
  Answer answer;
  return AskOne(RoundScope(scope), MakePingRequest(), answer).IsDone();
}

bool WaitForSilence(const Scope &scope) {
  const Clock::time_point end = Clock::now() + GOING_DOWN;
  while (Clock::now() < end && !IsCancelled(scope.cancel)) {
    if (!Answers(scope)) return true;
    Pause(scope.cancel, std::chrono::milliseconds(100));
  }
  return false;
}

}  // namespace

Outcome WaitForAnswer(const Scope &scope, seconds most, Answer &answer) {
  const Clock::time_point end = Clock::now() + most;
  for (;;) {
    Outcome outcome = AskOne(RoundScope(scope), MakeDiscoverRequest(), answer);
    if (outcome.IsDone() || outcome.result == acp::Result::CANCELLED || Clock::now() >= end)
      return outcome;
    if (outcome.message != "no answer") Pause(scope.cancel, ROUND);
  }
}

int WaitForRestart(const Options &options, const Target &target) {
  const Clock::time_point begun = Clock::now();
  const bool silent = WaitForSilence(options.scope);
  if (IsCancelled(options.scope.cancel)) return Report(options, target.GetMac(), Cancelled());
  if (!silent)
    return Report(options, target.GetMac(),
                  Failure(acp::Result::NO_ANSWER, "the appliance accepted, but does not restart"));
  Answer answer;
  Outcome outcome = WaitForAnswer(options.scope, MAX_WAIT, answer);
  if (outcome.result == acp::Result::NO_ANSWER)
    outcome = Failure(acp::Result::NO_ANSWER, "the appliance does not come back");
  if (!outcome.IsDone()) return Report(options, target.GetMac(), outcome);
  const auto took = std::chrono::duration_cast<seconds>(Clock::now() - begun).count();
  if (options.json)
    PrintJson(
        {{"mac", MacText(target.GetMac())}, {"state", StateName(ACP_STATE_OK)}, {"seconds", took}});
  else
    PrintLine("done; it answers again after " + std::to_string(took) + " s");
  return EXIT_DONE;
}

}  // namespace bhctl
