// The options of the command line, and the program's exit status.

#ifndef BH_TOOLS_BHCTL_OPTIONS_H_
#define BH_TOOLS_BHCTL_OPTIONS_H_

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "tools/bhctl/datagram.h"

namespace bhctl {

enum ExitStatus : int {
  EXIT_DONE = 0,
  EXIT_REFUSED = 1,    // an appliance answered with a state other than ACP_STATE_OK
  EXIT_USAGE = 2,      // wrong command line
  EXIT_NO_ANSWER = 3,  // no answer, or an error on this machine
};

struct Options {
  std::string command;         // name
  std::string interface;       // empty: every interface that supports broadcast
  std::optional<Mac> mac;      // unset: every appliance
  std::optional<Mac> src_mac;  // requester's address; unset: the interface's own
  std::chrono::microseconds timeout{0};
  bool json = false;
  bool assume_yes = false;  // Confirm does not ask
  std::string pass_phrase;
  std::optional<std::string> password;           // the administrator's; unset: not given
  bool password_stdin = false;                   // the password is on standard input
  std::map<std::string, std::string> arguments;  // by name in the command table
};

// The argument of that name; null if not given.
const std::string *Given(const Options &options, const std::string &name);

// Prints the message and returns EXIT_USAGE.
int UsageFailure(const std::string &message);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_OPTIONS_H_
