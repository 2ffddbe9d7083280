// The complete command: words for a shell's completion.

#ifndef BH_TOOLS_BHCTL_COMPLETE_H_
#define BH_TOOLS_BHCTL_COMPLETE_H_

#include "tools/bhctl/options.h"

namespace bhctl {

// Arguments KIND and COMMAND. Prints a word a line. Returns the program's exit status.
int Complete(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_COMPLETE_H_
