// The points at which the program that the library is linked into may end meanwhile.

#ifndef BH_LIB_WAIT_H_
#define BH_LIB_WAIT_H_

// Bracket the library's waits for a shell command and its sleep. There only in the daemon, whose
// own waits have them too.
void BeginWait() __attribute__((weak));
void EndWait() __attribute__((weak));

#endif  // BH_LIB_WAIT_H_
