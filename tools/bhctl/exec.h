// Remote commands: exec runs one, result fetches its output. Both return the program's exit status.

#ifndef BH_TOOLS_BHCTL_EXEC_H_
#define BH_TOOLS_BHCTL_EXEC_H_

#include "tools/bhctl/options.h"

namespace bhctl {

// The command's words, and arguments --type and --full. The exit status is the command's own if the
// appliance sends it.
int Exec(const Options &options);

int ShowResult(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_EXEC_H_
