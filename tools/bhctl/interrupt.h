// The signals that end the program (SIGINT, SIGTERM, SIGHUP) first let it clean up.

#ifndef BH_TOOLS_BHCTL_INTERRUPT_H_
#define BH_TOOLS_BHCTL_INTERRUPT_H_

namespace bhctl {

// From now on the first such signal only makes the returned descriptor readable; a second one ends
// the program at once. Ignored signals stay ignored. Returns -1, and changes nothing, if no
// descriptor is free.
int CatchInterrupts();

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_INTERRUPT_H_
