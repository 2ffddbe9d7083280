// Signals that ask the program to end (SIGINT, SIGTERM, SIGHUP), held back while something must be
// undone first.

#ifndef BH_TOOLS_BHCTL_INTERRUPT_H_
#define BH_TOOLS_BHCTL_INTERRUPT_H_

#include "lib/descriptor.h"

namespace bhctl {

// From now on such a signal does nothing but make the result readable; one that was ignored stays
// so. Without a descriptor to spare they go on ending the program.
Descriptor HoldInterrupts();

// Whether one has come since; never without a descriptor.
bool Interrupted(const Descriptor &held);

// Forgets those that have come.
void DropInterrupts(const Descriptor &held);

// They end the program again, at once if one has come that was not dropped.
void ReleaseInterrupts();

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_INTERRUPT_H_
