// Reads lines and passwords, and asks for confirmation.

#ifndef BH_TOOLS_BHCTL_TERMINAL_H_
#define BH_TOOLS_BHCTL_TERMINAL_H_

#include <string>
#include <vector>

#include "tools/bhctl/options.h"
#include "tools/bhctl/targets.h"

namespace bhctl {

// Whether standard input is a terminal.
bool IsTerminal();

// Reads a line of standard input without its line feed. Returns EXIT_DONE, EXIT_USAGE at the end of
// input, or EXIT_INTERRUPTED when `cancel` becomes readable.
int ReadLine(int cancel, std::string &line);

// Prompts and reads a line from the terminal without echo. Returns like ReadLine.
int ReadHidden(int cancel, const char *prompt, std::string &line);

// Whether Confirm can work: on a terminal, or with options.assume_yes. Returns EXIT_DONE, or prints
// an error and returns EXIT_USAGE. `what` names the command.
int CheckConfirmable(const Options &options, const std::string &what);

// Explains the command and asks whether to run it on these appliances. Returns EXIT_DONE for yes,
// and with options.assume_yes without asking. Otherwise prints that nothing was done and returns
// EXIT_USAGE or EXIT_INTERRUPTED.
int Confirm(const Options &options, const std::vector<Target> &targets, const std::string &what,
            const std::string &explanation);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_TERMINAL_H_
