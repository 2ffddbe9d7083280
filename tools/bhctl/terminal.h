// What is asked of whoever sits at the terminal.

#ifndef BH_TOOLS_BHCTL_TERMINAL_H_
#define BH_TOOLS_BHCTL_TERMINAL_H_

#include <string>

#include "tools/bhctl/options.h"
#include "tools/bhctl/session.h"

namespace bhctl {

// Whether standard input is one.
bool IsTerminal();

// A line of standard input without its line feed. False when not even an empty one is there.
bool ReadLine(std::string &line);

// The same from the terminal, after the prompt; what is typed does not show.
bool ReadHidden(const char *prompt, std::string &line);

// Whether Confirm can be asked for: on a terminal, or not at all with options.assume_yes. Returns
// EXIT_DONE, or says so and returns EXIT_USAGE; `what` names the command.
int CheckConfirmable(const Options &options, const std::string &what);

// Tells what the command does and asks whether to do it on this appliance. Returns EXIT_DONE for
// yes, or without asking with options.assume_yes; else says that nothing was done and returns
// EXIT_USAGE.
int Confirm(const Options &options, const Session &session, const std::string &what,
            const std::string &explanation);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_TERMINAL_H_
