// The options of the command line, and the program's exit status.

#ifndef BH_TOOLS_BHCTL_OPTIONS_H_
#define BH_TOOLS_BHCTL_OPTIONS_H_

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/exchange.h"
#include "client/fleet.h"

namespace bhctl {

using namespace acp;

enum ExitStatus : int {
  EXIT_DONE = 0,
  EXIT_REFUSED = 1,    // an appliance answered with a state other than ACP_STATE_OK
  EXIT_USAGE = 2,      // wrong command line
  EXIT_NO_ANSWER = 3,  // no answer, or an error on this machine
  EXIT_INTERRUPTED = 130,
};

struct Options {
  std::string command;               // name
  Scope scope;                       // `mac` is set only for a command on one appliance
  std::vector<std::string> targets;  // --to and --mac
  bool all = false;                  // --all
  FleetLimits limits;
  bool timeout_given = false;
  bool json = false;
  bool assume_yes = false;  // Confirm does not ask
  std::string pass_phrase;
  std::optional<std::string> password;           // the administrator's; unset: not given
  bool password_stdin = false;                   // the password is on standard input
  std::map<std::string, std::string> arguments;  // by name in the command table
  std::vector<std::string> words;                // of a command that takes all that follows
};

// The argument of that name; null if not given.
const std::string *Given(const Options &options, const std::string &name);

// Prints the message and returns EXIT_USAGE.
int UsageFailure(const std::string &message);

int ExitStatusOf(Result result);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_OPTIONS_H_
