// The set command: changes an appliance's network settings, names and clock in one request.

#ifndef BH_TOOLS_BHCTL_SET_H_
#define BH_TOOLS_BHCTL_SET_H_

#include "tools/bhctl/options.h"

namespace bhctl {

// Arguments --ip, --netmask, --dhcp, --hostname, --workgroup, --time, --gateway, --timezone,
// --initialized and --wait. Returns the program's exit status.
int Set(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_SET_H_
