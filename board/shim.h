// What the shim's calls share.

#ifndef BH_BOARD_SHIM_H_
#define BH_BOARD_SHIM_H_

#include <dlfcn.h>

#include <cstdint>
#include <cstring>

#include "board/failing.h"

#pragma GCC visibility push(hidden)

// The call behind the shim's own of that name.
template <typename Function>
Function *FindReal(Function *, const char *name) {
  void *symbol = dlsym(RTLD_NEXT, name);
  Function *real = nullptr;
  memcpy(&real, &symbol, sizeof(symbol));
  return real;
}

// A call that is the real one, unless it is to fail. The C library has it as `real_name`.
#define WRAP_AS(real_name, type, name, failure, parameters, arguments) \
  type name parameters {                                               \
    static auto *const real = FindReal(&(name), real_name);            \
    return Fails(#name) ? (failure) : real arguments;                  \
  }

// Sets errno and returns -1.
int Refusal(int error);

// Adds a line, its line feed included, to /var/log/calls.
void LogCall(const char *line);

// Nanoseconds from the machine's clock to the board's. Setting them says whether there is such a
// clock.
int64_t ClockOffset();
bool SetClockOffset(int64_t offset);

// Whether a driver of the board has answered an ioctl.
bool DriverAnswers(int fd, unsigned long request, void *argument, int *result);

#pragma GCC visibility pop

#endif  // BH_BOARD_SHIM_H_
