// With a signalfd instead of a handler, one poll waits for a signal and a socket, and no signal is
// lost between a check and a wait.

#include "tools/bhctl/interrupt.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <csignal>

namespace bhctl {
namespace {

sigset_t Interrupts() {
  sigset_t set;
  sigemptyset(&set);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action = {};
    if (sigaction(signal, nullptr, &action) == 0 && action.sa_handler != SIG_IGN)
      sigaddset(&set, signal);
  }
  return set;
}

}  // namespace

Descriptor HoldInterrupts() {
  const sigset_t set = Interrupts();
  Descriptor held(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
  if (held.IsOpen()) sigprocmask(SIG_BLOCK, &set, nullptr);
  return held;
}

bool Interrupted(const Descriptor &held) {
  pollfd readable = {held.Get(), POLLIN, 0};
  return held.IsOpen() && poll(&readable, 1, 0) > 0;
}

void DropInterrupts(const Descriptor &held) {
  signalfd_siginfo info = {};
  while (held.IsOpen() && read(held.Get(), &info, sizeof(info)) > 0)
    ;
}

void ReleaseInterrupts() {
  const sigset_t set = Interrupts();
  sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

}  // namespace bhctl
