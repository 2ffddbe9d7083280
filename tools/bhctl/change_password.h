// The passwd command: changes the administrator's password.

#ifndef BH_TOOLS_BHCTL_CHANGE_PASSWORD_H_
#define BH_TOOLS_BHCTL_CHANGE_PASSWORD_H_

#include "tools/bhctl/options.h"

namespace bhctl {

// Argument --new-password. Returns the program's exit status.
int Passwd(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_CHANGE_PASSWORD_H_
