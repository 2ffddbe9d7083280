// The table of commands. The command line and its help are generated from it.

#ifndef BH_TOOLS_BHCTL_COMMANDS_H_
#define BH_TOOLS_BHCTL_COMMANDS_H_

#include <chrono>
#include <string>
#include <vector>

#include "tools/bhctl/options.h"

namespace bhctl {

struct Argument {
  std::string name;  // "PATH" is positional, "--type" is an option
  std::string description;
  bool required;
  bool flag = false;  // has no value
};

// For a command that chooses its own default timeout.
constexpr std::chrono::seconds OWN_TIMEOUT{0};

struct SubCommand {
  std::string name;
  std::string description;
  std::vector<Argument> arguments;
  int (*run)(const Options &options);
  std::chrono::seconds timeout{2};  // default
};

const std::vector<SubCommand> &Commands();

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_COMMANDS_H_
