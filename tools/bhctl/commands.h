// The table of commands. The command line, its help and its completion are generated from it.

#ifndef BH_TOOLS_BHCTL_COMMANDS_H_
#define BH_TOOLS_BHCTL_COMMANDS_H_

#include <chrono>
#include <string>
#include <vector>

#include "tools/bhctl/options.h"

namespace bhctl {

struct Argument {
  std::string name;   // "PATH" is positional, "--type" is an option
  std::string value;  // name of an option's value; empty: a flag
  std::string description;
  bool required = false;
  std::vector<std::string> words = {};  // that it takes; empty: any text
};

// What a command needs on the appliance.
enum class Rights { NONE, COMMAND_MODE, PASSWORD, PRODUCT };

struct Command {
  std::string name;
  std::string summary;
  std::vector<Argument> arguments;
  int (*run)(const Options &options);
  std::chrono::seconds timeout{2};  // default, in the help, too
  Rights rights = Rights::NONE;
  bool asks = false;         // for confirmation, always or for some arguments
  bool takes_words = false;  // all that follows its first word is its own
  std::vector<std::string> examples = {};
};

const std::vector<Command> &Commands();

// Null if there is none.
const Command *FindCommand(const std::string &name);

// Global options, as the commands' are.
const std::vector<Argument> &GlobalOptions();

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_COMMANDS_H_
