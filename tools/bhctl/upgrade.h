// The upgrade command: installs a firmware image.

#ifndef BH_TOOLS_BHCTL_UPGRADE_H_
#define BH_TOOLS_BHCTL_UPGRADE_H_

#include "tools/bhctl/options.h"

namespace bhctl {

// Arguments IMAGE, --type, --product, --zip-password, --dry-run and --wait. Returns the program's
// exit status.
int Upgrade(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_UPGRADE_H_
