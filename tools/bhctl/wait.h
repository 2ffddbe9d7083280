// Waits for an appliance to come back.

#ifndef BH_TOOLS_BHCTL_WAIT_H_
#define BH_TOOLS_BHCTL_WAIT_H_

#include "tools/bhctl/options.h"
#include "tools/bhctl/targets.h"

namespace bhctl {

// Waits until the appliance is silent, then until it answers again, each for --wait's seconds at
// most. Prints how long it took. Returns the exit status.
int WaitForRestart(const Options &options, const Target &target);

// Waits until the appliance answers a discovery. Stores the answer. Done if it does.
Outcome WaitForAnswer(const Scope &scope, std::chrono::seconds most, Answer &answer);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_WAIT_H_
