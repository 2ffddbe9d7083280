// The help texts, in 80 columns.

#ifndef BH_TOOLS_BHCTL_HELP_H_
#define BH_TOOLS_BHCTL_HELP_H_

#include <string>

#include "tools/bhctl/commands.h"

namespace bhctl {

std::string MainHelp();
std::string CommandHelp(const Command &command);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_HELP_H_
