// What the program that the library is linked into may provide. Only the daemon does; all names are
// the library's own, so that no function of another program is called by chance.

#ifndef BH_LIB_HOOKS_H_
#define BH_LIB_HOOKS_H_

#include <cstdint>

extern "C" {
// Bracket the library's waits: for a shell command, for its output, and its sleep. The program may
// end in them.
void libbh_begin_wait() __attribute__((weak));
void libbh_end_wait() __attribute__((weak));

// Writes a line of the debug trace.
int32_t libbh_debug_print(const char *format, ...) __attribute__((weak, format(printf, 1, 2)));
}

#endif  // BH_LIB_HOOKS_H_
