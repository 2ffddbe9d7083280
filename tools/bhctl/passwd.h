// The passwd command: changes the administrator's password.

#ifndef BH_BHCTL_PASSWD_H_
#define BH_BHCTL_PASSWD_H_

#include "tools/bhctl/options.h"
#include "tools/bhctl/wire.h"

namespace bhctl {

// Argument --new-password. Returns the program's exit status.
int Passwd(const Options &options);

// Both encoded; `hash` has at most 16 bytes.
Request PasswordChangeRequest(Bytes hash, Bytes old_password);

}  // namespace bhctl

#endif  // BH_BHCTL_PASSWD_H_
