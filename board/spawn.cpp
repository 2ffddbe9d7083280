// Processes on a board, started from outside it.
//
// A process cannot move into another pid namespace, only its children can be born there. So a
// helper enters the board's namespaces, has a child as if its own parent, the caller, had it, and
// is gone.

#include <fcntl.h>
#include <linux/close_range.h>
#include <linux/sched.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "board/internal.h"

namespace board {

static int OpenPid(pid_t process) {
  return static_cast<int>(syscall(SYS_pidfd_open, process, 0));
}

[[noreturn]] static void Fail(const std::string &what) {
  const std::string line = "board: " + Failure(what) + "\n";
  if (write(STDERR_FILENO, line.data(), line.size()) < 0) _exit(126);
  _exit(127);
}

static void EnterNamespaces(pid_t init) {
  const Descriptor target(OpenPid(init));
  if (target.fd < 0 || setns(target.fd, CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC | CLONE_NEWUTS |
                                            CLONE_NEWPID) != 0)
    Fail("cannot enter the board");
}

// Children on boards that have not been waited for. A board is gone only when they are collected:
// Halt does so, and keeps how they ended for a later Wait.
struct Child {
  pid_t process;
  pid_t init;
  int pidfd;
  std::optional<Result> end;
};
static std::vector<Child> children;

static Result Collect(idtype_t type, int id) {
  Result result;
  siginfo_t info{};
  while (waitid(type, static_cast<id_t>(id), &info, WEXITED) != 0)
    if (errno != EINTR) return result;
  (info.si_code == CLD_EXITED ? result.exit_code : result.signal) = info.si_status;
  return result;
}

void CollectChildren(pid_t init) {
  for (Child &child : children) {
    if (child.init != init || child.end) continue;
    child.end = Collect(P_PIDFD, child.pidfd);
    close(child.pidfd);
  }
}

Result Wait(pid_t process) {
  const auto child = std::find_if(children.begin(), children.end(),
                                  [&](const Child &one) { return one.process == process; });
  if (child == children.end()) return Collect(P_PID, process);
  Result result;
  if (child->end) {
    result = *child->end;
  } else {
    result = Collect(P_PIDFD, child->pidfd);
    close(child->pidfd);
  }
  children.erase(child);
  return result;
}

// Dies with the caller, also when that has died before this. A change of user undoes it.
static void DieWith(int caller) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  struct pollfd gone {
    caller, POLLIN, 0
  };
  if (poll(&gone, 1, 0) != 0) _exit(1);
}

// Returns 0 in the process on the board; its number is then written to `report`.
static pid_t BirthOnBoard(pid_t init, int report) {
  EnterNamespaces(init);
  struct clone_args arguments {};
  arguments.flags = CLONE_PARENT;
  const auto process = static_cast<pid_t>(syscall(SYS_clone3, &arguments, sizeof(arguments)));
  if (process == 0) return 0;
  if (process < 0) Fail("clone3");
  _exit(write(report, &process, sizeof(process)) == sizeof(process) ? 0 : 1);
}

static pid_t ForkFor(const Board &board, int *caller) {
  int pipe_fds[2];
  fflush(nullptr);
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return -1;
  const Descriptor read_end(pipe_fds[0]);
  *caller = OpenPid(getpid());
  const pid_t helper = fork();
  if (helper == 0) return BirthOnBoard(board.init, pipe_fds[1]);
  close(pipe_fds[1]);
  close(*caller);
  pid_t process = -1;
  if (read(read_end.fd, &process, sizeof(process)) != sizeof(process)) process = -1;
  if (helper > 0) waitpid(helper, nullptr, 0);
  if (process > 0) children.push_back({process, board.init, OpenPid(process), std::nullopt});
  return process;
}

pid_t Fork(const Board &board) {
  int caller = -1;
  const pid_t process = ForkFor(board, &caller);
  if (process == 0) DieWith(caller);
  return process;
}

static void SetEnvironment(const Board &board, const Command &command) {
  const char *options = getenv("ASAN_OPTIONS");
  const std::string asan =
      std::string(options == nullptr ? "" : options) + ":verify_asan_link_order=0:handle_segv=2";
  setenv("ASAN_OPTIONS", asan.c_str(), 1);
  setenv("PATH", "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", 1);
  setenv("HOME", "/root", 1);
  unsetenv("TZ");
  setenv("LD_PRELOAD", (board.config.products + "/libshim.so").c_str(), 1);
  unsetenv("BOARD_FAIL");
  if (!command.fail.empty()) setenv("BOARD_FAIL", command.fail.c_str(), 1);
  for (const std::string &variable : command.env) {
    const size_t sign = variable.find('=');
    setenv(variable.substr(0, sign).c_str(), variable.substr(sign + 1).c_str(), 1);
  }
}

// Without a descriptor the place keeps what it has.
static void Place(int fd, int place) {
  if (fd >= 0 && dup2(fd, place) < 0) Fail("dup2");
}

static void PlaceDescriptors(const Command &command) {
  const int in = command.in >= 0 ? command.in : open("/dev/null", O_RDONLY);
  const int err = command.err >= 0 ? fcntl(command.err, F_DUPFD_CLOEXEC, 3) : -1;
  const int out = command.out >= 0 ? fcntl(command.out, F_DUPFD_CLOEXEC, 3) : -1;
  Place(in, STDIN_FILENO);
  Place(out, STDOUT_FILENO);
  Place(err, STDERR_FILENO);
  close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
}

// Job control wants a process group that has a number on the board.
static void TakeTerminal() {
  setpgid(0, 0);
  signal(SIGTTOU, SIG_IGN);
  tcsetpgrp(STDIN_FILENO, getpgrp());
  signal(SIGTTOU, SIG_DFL);
}

[[noreturn]] static void Exec(const Board &board, const Command &command, int caller) {
  if (command.uid != 0 && (setresgid(command.uid, command.uid, command.uid) != 0 ||
                           setresuid(command.uid, command.uid, command.uid) != 0))
    Fail("setresuid");
  DieWith(caller);
  SetEnvironment(board, command);
  PlaceDescriptors(command);
  if (command.foreground && isatty(STDIN_FILENO) != 0) TakeTerminal();
  if (chdir(command.directory.c_str()) != 0) Fail(command.directory);
  std::vector<char *> argv;
  argv.reserve(command.argv.size() + 1);
  for (const std::string &argument : command.argv)
    argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  execvp(argv[0], argv.data());
  Fail("cannot run " + command.argv[0]);
}

pid_t Spawn(const Board &board, const Command &command) {
  int caller = -1;
  const pid_t process = ForkFor(board, &caller);
  if (process == 0) Exec(board, command, caller);
  return process;
}

// Reads what is there; false at the end of the pipe.
static bool Drain(int pipe_end, std::string *output) {
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t size = read(pipe_end, buffer.data(), buffer.size());
    if (size < 0) return errno == EAGAIN || errno == EINTR;
    if (size == 0) return false;
    output->append(buffer.data(), static_cast<size_t>(size));
  }
}

Result Run(const Board &board, const Command &command) {
  int pipe_fds[2];
  if (pipe2(pipe_fds, O_CLOEXEC) != 0) return {};
  const Descriptor read_end(pipe_fds[0]);
  fcntl(read_end.fd, F_SETFL, O_NONBLOCK);
  Command captured = command;
  captured.out = captured.err = pipe_fds[1];
  const pid_t process = Spawn(board, captured);
  close(pipe_fds[1]);
  const Descriptor running(OpenPid(process));
  std::string output;
  std::array<struct pollfd, 2> ready{{{running.fd, POLLIN, 0}, {read_end.fd, POLLIN, 0}}};
  while (process > 0 && ready[0].revents == 0) {
    poll(ready.data(), ready.size(), -1);
    if (!Drain(read_end.fd, &output)) ready[1].fd = -1;
  }
  Drain(read_end.fd, &output);
  Result result = Wait(process);
  result.output = output;
  return result;
}

int RunItself(const std::vector<std::string> &arguments) {
  std::string why;
  std::optional<Board> board;
  if (EnterNamespaces(&why)) board = Boot({}, &why);
  if (!board) {
    fprintf(stderr, "%s: %s\n", arguments[0].c_str(), why.c_str());
    return 1;
  }
  Command command;
  command.argv = arguments;
  command.argv[0] = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string here = std::filesystem::current_path().string();
  if (Exists(*board, here)) command.directory = here;
  const Result result = Wait(Spawn(*board, command));
  if (result.exit_code >= 0) return result.exit_code;
  fprintf(stderr, "%s: killed by signal %d\n", arguments[0].c_str(), result.signal);
  return 128 + result.signal;
}

bool RunsOnBoard() {
  return access("/run/board-clock", F_OK) == 0;
}

bool Kill(const Board &board, pid_t inner, int signal) {
  return RunInside(board, [&] { return kill(inner, signal) == 0 ? 0 : 1; }).exit_code == 0;
}

}  // namespace board
