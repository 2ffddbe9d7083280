// Signal handlers that do only what is safe at the instruction they interrupted.
//
// The exit needs syslog, stdio and the allocator. It therefore runs inside the handler only while
// the server waits in a system call, which the flag `waiting` tells; otherwise the handler leaves a
// note that the next wait finds.

#include "daemon/signals.h"

#include <sys/resource.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <new>

#include "daemon/pidfile.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/hooks.h"
#include "lib/libbh.h"

namespace {

constexpr unsigned CRASH_DEADLINE = 2;      // seconds that a crashed process may spend on its log
constexpr unsigned EXIT_DEADLINE = 1;       // seconds that log and trace may hold up the end
constexpr time_t FAILED_RECEIVER_WAIT = 1;  // seconds

alignas(16) char crash_stack[32 * 1024];

char pid_file[64];  // its path, ready for a process that can no longer allocate

bool IsForkedChild() {
  return daemon_state.server_pid != 0 && daemon_state.server_pid != getpid();
}

bool IsServer() {
  return daemon_state.server_pid == getpid();
}

// An exit that was asked for meanwhile comes after the client's last answer.
bool IsInstalling() {
  return daemon_state.installing != 0 || is_fw_updating() != 0;
}

void LogExit(int code) {
  syslog(LOG_EMERG, "kv_serv_exit() exit kv_servd. code=%d\n", code);
  DebugPrint("kv_serv_exit() exit kv_servd. code=%d\n", code);
}

// However the server ends, a later start must not find its pid file. Not a child's to do.
void RemovePidFile() {
  if (IsServer() && IsOwnPidFile(pid_file)) unlink(pid_file);
}

void EndNow(int) {
  RemovePidFile();
  _exit(0);
}

void EndServer(int code) {
  // A second signal must not start the exit within the exit, and nothing may hold it up.
  daemon_state.waiting = 0;
  daemon_state.exit_pending = code;
  signal(SIGALRM, EndNow);
  alarm(EXIT_DEADLINE);
  if (IsServer()) DeletePidfile();
  if (daemon_state.sock != -1) close(daemon_state.sock);
  daemon_state.ifname.clear();
  LogExit(code);
  if (!TakesMore(STDOUT_FILENO)) _exit(0);  // nobody reads what stdio would still write there
  exit(0);
}

// After a crash any lock may be held and any memory damaged: the pid file goes first, then the log
// is tried. A second fault ends the process, since SIGSEGV is blocked here, and a deadlock is ended
// by the alarm.
void EndAfterCrash(int code) {
  signal(SIGALRM, SIG_DFL);
  alarm(CRASH_DEADLINE);
  daemon_state.exit_pending = code;
  RemovePidFile();
  syslog(LOG_NOTICE, "DeletePidfile()");
  LogExit(code);
  _exit(0);
}

// Without memory nothing can be answered any more; a later start must not find the pid file.
void EndWithoutMemory() {
  EndAfterCrash(SIGABRT);
}

// Installed instead of SIG_IGN, which the programs that the daemon starts would inherit.
void ignore_signal(int) {}

// The signal may have come just before a write to a trace that nobody reads. The alarm's signal
// then interrupts that write.
void NoteExit(int code) {
  struct sigaction interrupt = {};
  sigemptyset(&interrupt.sa_mask);
  interrupt.sa_handler = ignore_signal;
  sigaction(SIGALRM, &interrupt, nullptr);
  daemon_state.exit_pending = code;
  if ((get_mode_flags() & MODE_DEBUG) != 0) alarm(EXIT_DEADLINE);
}

void TellUpdating() {
  static const char text[] = "now F/W updating.\n";
  if (!TakesMore(STDOUT_FILENO)) return;  // the installation must not wait for a reader
  const ssize_t written = write(STDOUT_FILENO, text, sizeof(text) - 1);
  (void)written;  // nobody may be listening
}

void ForgetChild(pid_t pid) {
  if (pid == daemon_state.cmd_chpid) daemon_state.cmd_chpid = 0;
  if (pid == daemon_state.live_led) daemon_state.live_led = 0;
  for (volatile pid_t &receiver : daemon_state.live_receivers) {
    if (pid == receiver) receiver = 0;
  }
}

bool IsReceiver(pid_t pid) {
  const auto &live = daemon_state.live_receivers;
  return pid > 0 && std::find(std::begin(live), std::end(live), pid) != std::end(live);
}

void sigchld_handler(int) {
  const int saved_errno = errno;
  int status = 0;
  for (pid_t pid = wait3(&status, WNOHANG, nullptr); pid > 0;
       pid = wait3(&status, WNOHANG, nullptr)) {
    ForgetChild(pid);
  }
  errno = saved_errno;
}

// The image receiver raises SIGUSR1 just before it ends, when it cannot start. The configuration
// lock that was taken for the update is then released. The handler waits for a receiver that
// SIGCHLD has not reaped yet, for a second at most, and not once the server is to end. It waits for
// no other sender: that may live long, and send again.
void sigusr1_handler(int, siginfo_t *info, void *) {
  const int saved_errno = errno;
  const struct timespec pause = {.tv_sec = 0, .tv_nsec = 1'000'000};
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const time_t deadline = now.tv_sec + FAILED_RECEIVER_WAIT;
  pid_t ended = IsReceiver(info->si_pid) ? 0 : -1;
  while (ended == 0 && daemon_state.exit_pending == 0 && now.tv_sec <= deadline) {
    ended = waitpid(info->si_pid, nullptr, WNOHANG);
    if (ended == 0) nanosleep(&pause, nullptr);
    clock_gettime(CLOCK_MONOTONIC, &now);
  }
  if (ended > 0) ForgetChild(ended);
  libbh_unlock();
  errno = saved_errno;
}

}  // namespace

void kv_serv_exit(int code) {
  const int saved_errno = errno;
  if (code == SIGSEGV) {
    EndAfterCrash(code);
  } else if (is_fw_updating() != 0) {
    TellUpdating();
  } else if (IsForkedChild()) {
    _exit(0);  // the pid file, the log line and the lock are the living server's
  } else if (daemon_state.waiting != 0 && !IsInstalling()) {
    EndServer(code);
  } else {
    NoteExit(code);
  }
  errno = saved_errno;
}

void BeginWait() {
  daemon_state.waiting = 1;
  if (daemon_state.exit_pending != 0 && !IsInstalling()) EndServer(daemon_state.exit_pending);
}

void EndWait() {
  daemon_state.waiting = 0;
}

void libbh_begin_wait() {
  BeginWait();
}

void libbh_end_wait() {
  EndWait();
}

void ClaimServer() {
  snprintf(pid_file, sizeof(pid_file), "%s", PidFilePath(daemon_state.ifname).c_str());
  daemon_state.server_pid = getpid();
  atexit(RemovePidFile);  // the library ends the process when it cannot make the lock
}

void InstallSignalHandlers() {
  stack_t stack = {};
  stack.ss_sp = crash_stack;
  stack.ss_size = sizeof(crash_stack);
  sigaltstack(&stack, nullptr);

  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = kv_serv_exit;
  sigaction(SIGHUP, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  action.sa_flags = SA_ONSTACK;  // the fault may be a full stack
  sigaction(SIGSEGV, &action, nullptr);

  action.sa_flags = SA_SIGINFO;
  action.sa_sigaction = sigusr1_handler;
  sigaction(SIGUSR1, &action, nullptr);

  // A trace that goes to a closed pipe is a write error, and those are ignored.
  signal(SIGPIPE, ignore_signal);

  std::set_new_handler(EndWithoutMemory);
  sigprocmask(SIG_SETMASK, &action.sa_mask, nullptr);  // whoever started us may have held some back
}

int32_t InstallChildHandler() {
  return signal(SIGCHLD, sigchld_handler) == SIG_ERR ? -1 : 0;
}
