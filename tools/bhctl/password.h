// Where the administrator's password comes from.

#ifndef BH_BHCTL_PASSWORD_H_
#define BH_BHCTL_PASSWORD_H_

#include <string>

#include "tools/bhctl/options.h"

namespace bhctl {

// The one that the options give, or a line of standard input if they say so. Without either it is
// asked for when standard input is a terminal, and empty otherwise. What is typed does not show.
// Returns EXIT_DONE, or says what is wrong and returns EXIT_USAGE.
int ReadPassword(const Options &options, std::string *password);

}  // namespace bhctl

#endif  // BH_BHCTL_PASSWORD_H_
