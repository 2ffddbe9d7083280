// Children of the server, and the ways to run a command. Code that forks under a ChildSignalBlock
// gets its child's status.
//
//   const ChildSignalBlock block;
//   const pid_t pid = ForkChild();
//   if (pid == 0) { ...; _exit(0); }
//   ... store the pid, or WaitForChild(pid, &status) ...

#ifndef BH_DAEMON_PROCESS_H_
#define BH_DAEMON_PROCESS_H_

#include <sys/types.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <string>

// Blocks SIGCHLD and SIGUSR1 to the end of its scope, so that their handlers cannot reap a child
// before its pid is stored or its status collected. Blocks nest.
class ChildSignalBlock {
 public:
  ChildSignalBlock();
  ~ChildSignalBlock() {
    Release();
  }
  ChildSignalBlock(const ChildSignalBlock &) = delete;
  ChildSignalBlock &operator=(const ChildSignalBlock &) = delete;

  // Ends it before its scope does.
  void Release();

  // The signal mask from before it.
  const sigset_t &Previous() const {
    return previous_;
  }

 private:
  sigset_t previous_ = {};
  bool active_ = true;
};

// Forks under a ChildSignalBlock. The child starts with no signal blocked; a handler's child must
// leave with _exit. An exit that the server has been asked for is not the child's.
// Returns its pid, 0 in the child, -1 with errno set.
pid_t ForkChild();

// The same, but the child closes the service socket: it would keep the port after the server's end.
pid_t ForkWorker();

// Waits until the child `pid` has ended and stores its status, if `status` is not null. Returns
// `pid`, or -1 when there is no such child (any more).
pid_t WaitForChild(pid_t pid, int *status);

// Runs a command line in a shell and waits for it. Its wait status, -1 when it cannot be started.
int RunCommandLine(const std::string &command);

// Forks a worker that may end this server, such as a power-off script, and waits for it. The wait
// ends early when the server is asked to end, so that the client still gets its answer. Returns as
// ForkChild does.
pid_t ForkUnlessStopping();

// The same with a command line in a shell as the worker.
void RunUnlessStopping(const std::string &command);

// Whether exec1 and exec2 take the command: they have room for 511 characters (exec2: with " > "
// and the file's name) and exec1 for 31 words.
bool FitsExec1(const std::string &command);
bool FitsExec2(const std::string &command, const char *outfile);

// Runs the command's words, which single spaces separate, without a shell. The fork sets the status
// word to -1. Without `wait` the result is the child's pid; the caller blocks the child signals
// until it has stored that. With `wait` the status word becomes the wait status, and the result is
// 0, or -1 when the wait failed. Other failures give -1 too: a failed fork leaves the status word
// as it is, a command that does not fit sets it to -1, and a null `status` does nothing.
int32_t exec1(const char *command, int32_t wait, int32_t *status);

// The same through a shell, with the output in `outfile`. The child's exit status is the low 8 bits
// of the shell's own wait status. 0 after waiting, also when the wait failed.
int32_t exec2(const char *command, int32_t wait, const char *outfile, int32_t *status);

// Runs a command line in a shell and fills `buffer` (`size` bytes, all zeroed first) with the first
// size - 1 bytes of its output. Waits for its end. 0, or -1 when it cannot be started.
int32_t exec_capture(const char *command, char *buffer, size_t size);

#endif  // BH_DAEMON_PROCESS_H_
