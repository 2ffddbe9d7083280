// The points at which the program that the library is linked into may end meanwhile.

#ifndef BH_LIB_WAIT_H_
#define BH_LIB_WAIT_H_

// Bracket the library's waits for a shell command and its sleep. Only the daemon has them.
extern "C" {
void libbh_begin_wait() __attribute__((weak));
void libbh_end_wait() __attribute__((weak));
}

#endif  // BH_LIB_WAIT_H_
