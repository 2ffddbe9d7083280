// What the command line asks for, and what the program's exit status tells.

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
  EXIT_REFUSED = 1,    // an appliance answered with another state than ACP_STATE_OK
  EXIT_USAGE = 2,      // wrong command line
  EXIT_NO_ANSWER = 3,  // none came, or this machine could not ask or show
};

struct Options {
  std::string command;         // its name
  std::string interface;       // empty: every interface that can broadcast
  std::optional<Mac> mac;      // unset: every appliance
  std::optional<Mac> src_mac;  // named as the requester; unset: the interface's own address
  std::chrono::microseconds timeout{0};
  bool json = false;
  bool assume_yes = false;  // to whatever a command would ask about
  std::string pass_phrase;
  std::optional<std::string> password;  // the administrator's; unset: none is given
  bool password_stdin = false;  // a command that needs the password reads it from standard input
  std::map<std::string, std::string> arguments;  // those given, by their names in the command table
};

// The command's argument of that name; null when it is not given.
const std::string *Given(const Options &options, const std::string &name);

// Says what is wrong with the command line. Returns EXIT_USAGE.
int UsageFailure(const std::string &message);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_OPTIONS_H_
