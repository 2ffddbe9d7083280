// Forking, waiting and running with the reaping handlers held back.

#include "daemon/process.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "daemon/signals.h"
#include "daemon/state.h"
#include "lib/descriptor.h"

namespace {

constexpr size_t MAX_COMMAND = 511;  // characters
constexpr size_t MAX_WORDS = 31;
constexpr int EXEC_FAILED = 255;

// In a child: a command that wants input must not wait for somebody at the server's, or ask at its
// terminal.
void ReadNothing() {
  setsid();
  const Descriptor null(open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (null.IsOpen()) dup2(null.Get(), STDIN_FILENO);
}

[[noreturn]] void ExecShell(const char *command) {
  ReadNothing();
  execl("/bin/sh", "sh", "-c", command, static_cast<char *>(nullptr));
  _exit(127);  // as shells tell that a command is missing
}

// Spaces that follow each other part empty words; at the end they part nothing.
std::vector<std::string> SplitWords(const std::string &command) {
  std::vector<std::string> words;
  size_t start = 0;
  while (start < command.size()) {
    const size_t space = command.find(' ', start);
    words.push_back(command.substr(start, space - start));
    start = space == command.npos ? command.size() : space + 1;
  }
  return words;
}

std::string FileCommand(const std::string &command, const char *outfile) {
  return command + " > " + outfile;
}

// All words but one that no space follows.
std::string FinishedWords(const std::string &command) {
  std::string finished = command.substr(0, command.rfind(' ') + 1);
  std::replace(finished.begin(), finished.end(), ' ', '\n');
  return finished;
}

void ShowWords(const std::string &command) {
  const std::string shown = FinishedWords(command);
  const ssize_t written = write(STDOUT_FILENO, shown.data(), shown.size());
  (void)written;  // nobody may be listening
}

// Returns when there is no such program.
void ExecProgram(std::vector<std::string> &words) {
  std::vector<char *> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string &word : words)
    arguments.push_back(word.data());
  arguments.push_back(nullptr);
  if (arguments[0] != nullptr) execvp(arguments[0], arguments.data());
}

[[noreturn]] void ExecWords(const std::string &command, std::vector<std::string> &words) {
  ReadNothing();
  ShowWords(command);
  ExecProgram(words);
  _exit(EXEC_FAILED);
}

// What exec1 and exec2 give back for the child that they have forked.
int32_t FinishExec(pid_t child, int32_t wait, int32_t *status) {
  if (child < 0) return -1;
  *status = -1;
  if (wait == 0) return child;
  return WaitForChild(child, status) < 0 ? -1 : 0;
}

[[noreturn]] void RunToFile(const std::string &line) {
  ReadNothing();
  _exit(system(line.c_str()));
}

// Reads until the end of the pipe, or until the buffer is full.
void ReadPipe(int pipe, char *buffer, size_t size) {
  size_t length = 0;
  while (length < size) {
    BeginWait();
    const ssize_t got = read(pipe, buffer + length, size - length);
    EndWait();
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    length += static_cast<size_t>(got);
  }
}

}  // namespace

ChildSignalBlock::ChildSignalBlock() {
  sigset_t children = {};
  sigemptyset(&children);
  sigaddset(&children, SIGCHLD);
  sigaddset(&children, SIGUSR1);
  sigprocmask(SIG_BLOCK, &children, &previous_);
}

void ChildSignalBlock::Release() {
  if (active_) sigprocmask(SIG_SETMASK, &previous_, nullptr);
  active_ = false;
}

pid_t ForkChild() {
  fflush(nullptr);  // else both processes would write what is still buffered
  const pid_t pid = fork();
  if (pid != 0) return pid;
  if (daemon_state.server_pid != 0) daemon_state.exit_pending = 0;
  sigset_t none = {};
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  return 0;
}

pid_t ForkWorker() {
  const pid_t child = ForkChild();
  if (child == 0 && daemon_state.sock != -1) close(daemon_state.sock);
  return child;
}

pid_t WaitForChild(pid_t pid, int *status) {
  BeginWait();
  pid_t ended = waitpid(pid, status, 0);
  while (ended < 0 && errno == EINTR)
    ended = waitpid(pid, status, 0);
  EndWait();
  return ended;
}

int RunCommandLine(const std::string &command) {
  const ChildSignalBlock block;
  const pid_t child = ForkChild();
  if (child == 0) ExecShell(command.c_str());
  int status = -1;
  if (child > 0) WaitForChild(child, &status);
  return status;
}

pid_t ForkUnlessStopping() {
  sigset_t events = {};
  sigset_t previous = {};
  sigemptyset(&events);
  for (const int number : {SIGCHLD, SIGTERM, SIGHUP})
    sigaddset(&events, number);
  sigprocmask(SIG_BLOCK, &events, &previous);
  const pid_t child = ForkWorker();
  if (child == 0) return 0;
  while (child > 0 && daemon_state.exit_pending == 0 && waitpid(child, nullptr, WNOHANG) == 0) {
    const int number = sigwaitinfo(&events, nullptr);
    if (number == SIGTERM || number == SIGHUP) daemon_state.exit_pending = number;
  }
  raise(SIGCHLD);  // other children's ends came by the same signals
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  return child;
}

void RunUnlessStopping(const std::string &command) {
  if (ForkUnlessStopping() == 0) ExecShell(command.c_str());
}

bool FitsExec1(const std::string &command) {
  return command.size() <= MAX_COMMAND && SplitWords(command).size() <= MAX_WORDS;
}

bool FitsExec2(const std::string &command, const char *outfile) {
  return FileCommand(command, outfile).size() <= MAX_COMMAND;
}

int32_t exec1(const char *command, int32_t wait, int32_t *status) {
  if (status == nullptr) return -1;
  const std::string line = command;
  std::vector<std::string> words = SplitWords(line);
  if (line.size() > MAX_COMMAND || words.size() > MAX_WORDS) {
    *status = -1;
    return -1;
  }
  const ChildSignalBlock block;
  const pid_t child = ForkWorker();
  if (child == 0) ExecWords(line, words);
  return FinishExec(child, wait, status);
}

int32_t exec2(const char *command, int32_t wait, const char *outfile, int32_t *status) {
  if (status == nullptr) return -1;
  if (!FitsExec2(command, outfile)) {
    *status = -1;
    return -1;
  }
  const ChildSignalBlock block;
  const pid_t child = ForkWorker();
  if (child == 0) RunToFile(FileCommand(command, outfile));
  const int32_t result = FinishExec(child, wait, status);
  return child > 0 && wait != 0 ? 0 : result;
}

int32_t exec_capture(const char *command, char *buffer, size_t size) {
  memset(buffer, 0, size);
  Pipe output;
  if (size == 0 || !OpenPipe(output)) return -1;
  const ChildSignalBlock block;
  const pid_t child = ForkChild();
  if (child == 0) {
    dup2(output.writer.Get(), STDOUT_FILENO);
    ExecShell(command);
  }
  output.writer.Close();
  if (child > 0) ReadPipe(output.reader.Get(), buffer, size - 1);
  output.reader.Close();  // a command that prints more than fits ends by it
  if (child > 0) WaitForChild(child, nullptr);
  return child < 0 ? -1 : 0;
}
