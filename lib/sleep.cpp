// A sleep that the program may end in.

#include <sys/select.h>

#include "lib/hooks.h"
#include "lib/libbh.h"

int32_t libbh_sleep(int32_t seconds) {
  timeval time = {};
  time.tv_sec = seconds;
  if (libbh_begin_wait != nullptr) libbh_begin_wait();
  const int32_t result = select(0, nullptr, nullptr, nullptr, &time);
  if (libbh_end_wait != nullptr) libbh_end_wait();
  return result;
}
