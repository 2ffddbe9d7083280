// The passwd command: changes the administrator's password.

#ifndef BH_TOOLS_BHCTL_CHANGE_PASSWORD_H_
#define BH_TOOLS_BHCTL_CHANGE_PASSWORD_H_

#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"

namespace bhctl {

// Argument --new-password. Returns the program's exit status.
int Passwd(const Options &options);

// Both encoded; `hash` has at most 16 bytes.
Request MakePasswordChangeRequest(Bytes hash, Bytes old_password);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_CHANGE_PASSWORD_H_
