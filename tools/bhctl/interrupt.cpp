#include "tools/bhctl/interrupt.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdint>
#include <initializer_list>

namespace bhctl {
namespace {

volatile sig_atomic_t event = -1;

void Note(int /*signal*/) {
  const uint64_t one = 1;
  const ssize_t written = write(event, &one, sizeof(one));
  (void)written;
}

}  // namespace

// SA_RESETHAND: the next signal of that kind acts as usual. Without SA_RESTART, a read of the
// terminal ends.
int CatchInterrupts() {
  event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event < 0) return -1;
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler == SIG_IGN) continue;
    action.sa_handler = Note;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(signal, &action, nullptr);
  }
  return event;
}

}  // namespace bhctl
