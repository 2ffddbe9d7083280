// Forking and waiting with the reaping handlers held back.

#include "daemon/process.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "daemon/signals.h"
#include "daemon/state.h"

ChildHold HoldChildren() {
  ChildHold hold = {};
  sigset_t children = {};
  sigemptyset(&children);
  sigaddset(&children, SIGCHLD);
  sigaddset(&children, SIGUSR1);
  sigprocmask(SIG_BLOCK, &children, &hold.previous);
  return hold;
}

void ReleaseChildren(const ChildHold &hold) {
  sigprocmask(SIG_SETMASK, &hold.previous, nullptr);
}

pid_t ForkChild(const ChildHold &hold) {
  fflush(nullptr);  // else both processes would write what is still buffered
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (daemon_state.server_pid != 0) daemon_state.exit_pending = 0;
  ReleaseChildren(hold);
  return 0;
}

pid_t WaitForChild(pid_t pid, int *status) {
  BeginWait();
  pid_t ended = waitpid(pid, status, 0);
  while (ended < 0 && errno == EINTR)
    ended = waitpid(pid, status, 0);
  EndWait();
  return ended;
}
