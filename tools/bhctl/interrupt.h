// Holds back the signals that end the program (SIGINT, SIGTERM, SIGHUP) while there is something to
// clean up first.

#ifndef BH_TOOLS_BHCTL_INTERRUPT_H_
#define BH_TOOLS_BHCTL_INTERRUPT_H_

#include "lib/descriptor.h"

namespace bhctl {

// From now on such a signal only makes the result readable. Ignored signals stay ignored. If no
// descriptor is free, signals still end the program.
Descriptor HoldInterrupts();

// Whether a signal is pending. Always false without a descriptor.
bool Interrupted(const Descriptor &held);

// Discards pending signals.
void DropInterrupts(const Descriptor &held);

// Signals end the program again; a pending one does so at once.
void ReleaseInterrupts();

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_INTERRUPT_H_
