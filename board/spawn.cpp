// Processes on a board, started from outside it.
//
// A process cannot move into another pid namespace; only its children can start there. So a helper
// enters the board's namespaces, starts a child whose parent is the caller, and exits.

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

namespace {

Descriptor OpenPid(pid_t process) {
  return Descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
}

[[noreturn]] void Fail(const std::string &what) {
  const std::string line = "board: " + Failure(what) + "\n";
  if (write(STDERR_FILENO, line.data(), line.size()) < 0) _exit(126);
  _exit(127);
}

void EnterBoard(pid_t init) {
  const Descriptor target = OpenPid(init);
  if (!target.IsOpen() || setns(target.Get(), CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWIPC |
                                                  CLONE_NEWUTS | CLONE_NEWPID) != 0)
    Fail("cannot enter the board");
}

// Children on boards that Wait has not been called for. A board is gone only when they are reaped.
// Halt does so and keeps how they ended for a later Wait.
struct Child {
  pid_t process;
  pid_t init;
  Descriptor pidfd;
  std::optional<Result> end;
};
std::vector<Child> children;

Result Reap(idtype_t type, int id) {
  Result result;
  siginfo_t info{};
  while (waitid(type, static_cast<id_t>(id), &info, WEXITED) != 0)
    if (errno != EINTR) return result;
  (info.si_code == CLD_EXITED ? result.exit_code : result.signal) = info.si_status;
  return result;
}

}  // namespace

void ReapChildren(pid_t init) {
  for (Child &child : children) {
    if (child.init != init || child.end) continue;
    child.end = Reap(P_PIDFD, child.pidfd.Get());
    child.pidfd.Close();
  }
}

Result Wait(pid_t process) {
  const auto child = std::find_if(children.begin(), children.end(),
                                  [&](const Child &one) { return one.process == process; });
  if (child == children.end()) return Reap(P_PID, process);
  Result result = child->end ? *child->end : Reap(P_PIDFD, child->pidfd.Get());
  children.erase(child);
  return result;
}

namespace {

// Has the kernel kill this process when the caller ends. A change of user undoes it.
void DieWithCaller(const Descriptor &caller) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  struct pollfd gone {
    caller.Get(), POLLIN, 0
  };
  if (poll(&gone, 1, 0) != 0) _exit(1);
}

// Returns 0 in the process on the board; its number is then written to `report`.
pid_t CloneOntoBoard(pid_t init, int report) {
  EnterBoard(init);
  struct clone_args arguments {};
  arguments.flags = CLONE_PARENT;
  const auto process = static_cast<pid_t>(syscall(SYS_clone3, &arguments, sizeof(arguments)));
  if (process == 0) return 0;
  if (process < 0) Fail("clone3");
  _exit(write(report, &process, sizeof(process)) == sizeof(process) ? 0 : 1);
}

// As Fork. `caller` becomes the calling process, for DieWithCaller.
pid_t ForkOntoBoard(const Board &board, Descriptor &caller) {
  Pipe report;
  fflush(nullptr);
  if (!OpenPipe(report)) return -1;
  caller = OpenPid(getpid());
  const pid_t helper = fork();
  if (helper == 0) return CloneOntoBoard(board.init, report.writer.Get());
  report.writer.Close();
  pid_t process = -1;
  if (read(report.reader.Get(), &process, sizeof(process)) != sizeof(process)) process = -1;
  if (helper > 0) waitpid(helper, nullptr, 0);
  if (process > 0) children.push_back({process, board.init, OpenPid(process), std::nullopt});
  return process;
}

}  // namespace

pid_t Fork(const Board &board) {
  Descriptor caller;
  const pid_t process = ForkOntoBoard(board, caller);
  if (process == 0) DieWithCaller(caller);
  return process;
}

namespace {

void SetEnvironment(const Board &board, const Command &command) {
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

// Without a descriptor the number keeps what it has.
void Duplicate(int fd, int number) {
  if (fd >= 0 && dup2(fd, number) < 0) Fail("dup2");
}

void RedirectStandardStreams(const Command &command) {
  const int in = command.in >= 0 ? command.in : open("/dev/null", O_RDONLY);
  const int err = command.err >= 0 ? fcntl(command.err, F_DUPFD_CLOEXEC, 3) : -1;
  const int out = command.out >= 0 ? fcntl(command.out, F_DUPFD_CLOEXEC, 3) : -1;
  Duplicate(in, STDIN_FILENO);
  Duplicate(out, STDOUT_FILENO);
  Duplicate(err, STDERR_FILENO);
  close_range(3, ~0U, CLOSE_RANGE_CLOEXEC);
}

// Job control needs a process group that has a number on the board.
void TakeTerminal() {
  setpgid(0, 0);
  signal(SIGTTOU, SIG_IGN);
  tcsetpgrp(STDIN_FILENO, getpgrp());
  signal(SIGTTOU, SIG_DFL);
}

[[noreturn]] void Exec(const Board &board, const Command &command, const Descriptor &caller) {
  if (command.uid != 0 && (setresgid(command.uid, command.uid, command.uid) != 0 ||
                           setresuid(command.uid, command.uid, command.uid) != 0))
    Fail("setresuid");
  DieWithCaller(caller);
  SetEnvironment(board, command);
  RedirectStandardStreams(command);
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

}  // namespace

pid_t Spawn(const Board &board, const Command &command) {
  Descriptor caller;
  const pid_t process = ForkOntoBoard(board, caller);
  if (process == 0) Exec(board, command, caller);
  return process;
}

namespace {

// Reads what is there; false at the end of the pipe.
bool Drain(const Descriptor &pipe_end, std::string &output) {
  std::array<char, 4096> buffer{};
  for (;;) {
    const ssize_t size = read(pipe_end.Get(), buffer.data(), buffer.size());
    if (size < 0) return errno == EAGAIN || errno == EINTR;
    if (size == 0) return false;
    output.append(buffer.data(), static_cast<size_t>(size));
  }
}

}  // namespace

Result Run(const Board &board, const Command &command) {
  Pipe pipe;
  if (!OpenPipe(pipe)) return {};
  fcntl(pipe.reader.Get(), F_SETFL, O_NONBLOCK);
  Command captured = command;
  captured.out = pipe.writer.Get();
  captured.err = pipe.writer.Get();
  const pid_t process = Spawn(board, captured);
  pipe.writer.Close();
  const Descriptor running = OpenPid(process);
  std::string output;
  std::array<struct pollfd, 2> ready{{{running.Get(), POLLIN, 0}, {pipe.reader.Get(), POLLIN, 0}}};
  while (process > 0 && ready[0].revents == 0) {
    poll(ready.data(), ready.size(), -1);
    if (!Drain(pipe.reader, output)) ready[1].fd = -1;
  }
  Drain(pipe.reader, output);
  Result result = Wait(process);
  result.output = output;
  return result;
}

int RunItself(const std::vector<std::string> &arguments) {
  std::string why;
  std::optional<Board> board;
  if (EnterNamespaces(why)) board = Boot({}, why);
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
