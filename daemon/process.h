// Children of the server: whoever forks one under a hold gets its status.
//
//   const ChildHold hold = HoldChildren();
//   const pid_t pid = ForkChild(hold);
//   if (pid == 0) { ...; _exit(0); }
//   ... store the pid, or WaitForChild(pid, &status) ...
//   ReleaseChildren(hold);

#ifndef BH_DAEMON_PROCESS_H_
#define BH_DAEMON_PROCESS_H_

#include <sys/types.h>

#include <csignal>
#include <cstdint>

struct ChildHold {
  sigset_t previous;
};

// Holds back SIGCHLD and SIGUSR1, so that their handlers cannot reap a child before its pid is
// stored or its status collected.
ChildHold HoldChildren();
void ReleaseChildren(const ChildHold &hold);

// Forks under `hold`. The child starts with the previous signal mask; a handler's child must leave
// with _exit. An exit that the server has been asked for is not the child's.
// Returns its pid, 0 in the child, -1 with errno set.
pid_t ForkChild(const ChildHold &hold);

// Waits until the child `pid` has ended and stores its status, if `status` is not null. Returns
// `pid`, or -1 when there is no such child (any more).
pid_t WaitForChild(pid_t pid, int *status);

#endif  // BH_DAEMON_PROCESS_H_
