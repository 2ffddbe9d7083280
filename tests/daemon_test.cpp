// Children, signals, pid file and trace of the daemon process, each forced into its worst order.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <tuple>

#include "acp/dispatch.h"
#include "board/client_end.h"
#include "daemon/pidfile.h"
#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "tests/files.h"

namespace {

using fixture::AwaitEnd;

constexpr char PID_FILE[] = "/var/run/bh_servd-eth0.pid";

class Daemon : public testing::Test {
 protected:
  void SetUp() override {
    daemon_state.ifname = "eth0";
    daemon_state.fw_updating = 0;
    set_mode_flags(0);
    InstallSignalHandlers();
    ASSERT_EQ(InstallChildHandler(), 0);
    ClaimServer();
    alarm(20);  // a wait for the wrong child would be one for ever
  }
};

bool Exists(const char *path) {
  return access(path, F_OK) == 0;
}

pid_t StartSleeper() {
  ChildSignalBlock block;
  const pid_t child = ForkChild();
  if (child == 0) {
    for (;;)
      pause();
  }
  block.Release();
  return child;
}

int StatusOf(pid_t child) {
  int status = -1;
  EXPECT_EQ(WaitForChild(child, &status), child);
  return status;
}

}  // namespace

TEST_F(Daemon, StatusOfAChildThatEndedFirstIsNotLost) {
  ChildSignalBlock block;
  const pid_t child = ForkChild();
  if (child == 0) {
    kill(getppid(), SIGUSR1);  // as a receiver whose set-up failed does
    _exit(42);
  }
  AwaitEnd(child);
  const int status = StatusOf(child);
  block.Release();
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 42);
  EXPECT_EQ(WaitForChild(child, nullptr), -1);
}

TEST_F(Daemon, PidStoredAfterTheEndIsForgottenAgain) {
  ChildSignalBlock block;
  pid_t children[3] = {};
  for (pid_t &child : children) {
    child = ForkChild();
    if (child == 0) _exit(0);
    AwaitEnd(child);
  }
  daemon_state.cmd_chpid = children[1];
  block.Release();  // one SIGCHLD is pending for the three of them
  EXPECT_EQ(daemon_state.cmd_chpid, 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
}

TEST_F(Daemon, WorkerLeavesTheServiceSocketToTheServer) {
  const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  daemon_state.sock = sock;
  ChildSignalBlock block;
  const pid_t worker = ForkWorker();
  if (worker == 0) _exit(fcntl(sock, F_GETFD) == -1 ? 0 : 1);
  EXPECT_EQ(StatusOf(worker), 0) << "the worker has it too";
  block.Release();
  EXPECT_EQ(close(sock), 0) << "the server has lost it";
  daemon_state.sock = -1;
}

TEST_F(Daemon, PingWaitsForItsOwnChildOnly) {
  const pid_t sleeper = StartSleeper();
  AcpRequest request = {};
  request.sock = -1;
  wire::Client nobody;
  for (int round = 0; round < 20; ++round) {
    wire::Deliver(nobody, wire::Request(0x8040), request);
    EXPECT_EQ(dispatch(request), 0);
  }
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), 0) << "the sleeper alone is left";
  kill(sleeper, SIGKILL);
}

TEST_F(Daemon, FailedReceiverIsReapedAndHasTheLockGivenBack) {
  const pid_t sleeper = StartSleeper();
  ASSERT_EQ(libbh_lock(), 0);
  ChildSignalBlock block;
  const pid_t receiver = ForkChild();
  if (receiver == 0) {
    raise(SIGUSR1);  // here nothing is held, and the server's lock is its own
    kill(getppid(), SIGUSR1);
    _exit(1);
  }
  AwaitEnd(receiver);
  EXPECT_EQ(libbh_checklock(), 0);
  block.Release();
  EXPECT_EQ(libbh_checklock(), 1);
  EXPECT_EQ(waitpid(receiver, nullptr, WNOHANG), -1);

  raise(SIGUSR1);  // from a process that is no child: returns at once
  EXPECT_EQ(waitpid(sleeper, nullptr, WNOHANG), 0);
  kill(sleeper, SIGKILL);
}

TEST_F(Daemon, TerminatedChildLeavesThePidFileAlone) {
  ASSERT_EQ(WritePidFile("eth0", getpid()), 0);
  for (const int signal_number : {SIGTERM, SIGHUP}) {
    const pid_t sleeper = StartSleeper();
    ChildSignalBlock block;
    kill(sleeper, signal_number);
    const int status = StatusOf(sleeper);
    block.Release();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_EQ(fixture::ReadFile(PID_FILE), std::to_string(getpid()));
  }
}

// What a server does between SIGTERM and its next wait.
enum class Then { WAIT, WAIT_WHILE_UPDATING, WAIT_WHILE_INSTALLING, FORK, SHELL, SLEEP };

int ServerAfterSigterm(Then then) {
  ClaimServer();
  WritePidFile("eth0", getpid());
  raise(SIGTERM);  // in the middle of work: noted only
  if (!Exists(PID_FILE)) return 1;
  daemon_state.fw_updating = then == Then::WAIT_WHILE_UPDATING ? 1 : 0;
  daemon_state.installing = then == Then::WAIT_WHILE_INSTALLING ? 1 : 0;
  if (then == Then::FORK) {
    static const ChildSignalBlock block;
    const pid_t child = ForkChild();
    if (child == 0) {
      BeginWait();  // the server's exit is not the child's
      _exit(3);
    }
    AwaitEnd(child);
    int status = 0;
    waitpid(child, &status, WNOHANG);
    return WEXITSTATUS(status);
  }
  if (then == Then::SHELL) return RunShell("true");
  if (then == Then::SLEEP) return libbh_sleep(0);
  BeginWait();
  return 2;
}

TEST_F(Daemon, ExitHappensAtTheNextWait) {
  const std::tuple<Then, int, bool> cases[] = {{Then::WAIT, 0, false},
                                               {Then::WAIT_WHILE_UPDATING, 2, true},
                                               {Then::WAIT_WHILE_INSTALLING, 2, true},
                                               {Then::FORK, 3, true},
                                               {Then::SHELL, 0, false},
                                               {Then::SLEEP, 0, false}};
  for (const auto &[then, wanted, pid_file] : cases) {
    ChildSignalBlock block;
    const pid_t server = ForkChild();
    if (server == 0) _exit(ServerAfterSigterm(then));
    const int status = StatusOf(server);
    block.Release();
    EXPECT_EQ(WEXITSTATUS(status), wanted);
    EXPECT_EQ(Exists(PID_FILE), pid_file);
  }
}

TEST_F(Daemon, PidFileIsRemovedUnlessItNamesALivingServer) {
  const pid_t living = StartSleeper();
  ChildSignalBlock block;
  const pid_t ended = ForkChild();
  if (ended == 0) _exit(0);
  StatusOf(ended);
  block.Release();
  const struct {
    const char *what;
    std::string content;
    int32_t result;
  } cases[] = {
      {"a later server's", std::to_string(living), -1},
      {"this server's", std::to_string(getpid()), 0},
      {"a server's that has ended", std::to_string(ended), 0},
      {"damaged", "abc", 0},
      {"empty", "", 0},
  };
  for (const auto &test : cases) {
    fixture::WriteFile(PID_FILE, test.content);
    EXPECT_EQ(DeletePidfile(), test.result) << test.what;
    EXPECT_EQ(Exists(PID_FILE), test.result != 0) << test.what;
  }
  fixture::RemoveFile(PID_FILE);
  EXPECT_EQ(DeletePidfile(), -1);
  kill(living, SIGKILL);
}

TEST_F(Daemon, ServerThatEndsByTheLibraryLeavesALaterOnesPidFile) {
  ChildSignalBlock block;
  fixture::WriteFile(PID_FILE, std::to_string(getpid()));
  const pid_t server = ForkChild();
  if (server == 0) {
    ClaimServer();
    exit(0);
  }
  EXPECT_EQ(StatusOf(server), 0);
  block.Release();
  EXPECT_TRUE(Exists(PID_FILE));
}

TEST_F(Daemon, PidFileThatCannotBePutInPlaceLeavesNothing) {
  fixture::RemoveFile(PID_FILE);
  ASSERT_EQ(mkdir(PID_FILE, 0755), 0);
  EXPECT_EQ(WritePidFile("eth0", 77), -1);
  EXPECT_FALSE(Exists("/var/run/bh_servd-eth0.pid.77"));
  fixture::RemoveFile(PID_FILE);
}

TEST_F(Daemon, RefusedExitWaitsForNoReader) {
  int ends[2] = {};
  ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
  while (write(ends[1], "x", 1) == 1)
    continue;
  fcntl(ends[1], F_SETFL, 0);
  const int usual = dup(STDOUT_FILENO);
  dup2(ends[1], STDOUT_FILENO);
  daemon_state.fw_updating = 1;
  raise(SIGTERM);
  daemon_state.fw_updating = 0;
  dup2(usual, STDOUT_FILENO);
  EXPECT_EQ(daemon_state.exit_pending, 0);
  for (const int fd : {usual, ends[0], ends[1]})
    close(fd);
}

TEST_F(Daemon, PidFileIsNeverSeenWithoutItsNumber) {
  const pid_t living = StartSleeper();
  fixture::WriteFile(PID_FILE, "1");
  const int before = open(PID_FILE, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(WritePidFile("eth0", living), 0);
  char content[8] = "";
  EXPECT_EQ(read(before, content, sizeof(content) - 1), 1);
  EXPECT_STREQ(content, "1") << "the file was emptied before it was written";
  close(before);
  EXPECT_EQ(fixture::ReadFile(PID_FILE), std::to_string(living));
  kill(living, SIGKILL);
}

#if !defined(__SANITIZE_ADDRESS__)  // there a crash is the sanitizer's, and stays visible

volatile bool enough = false;

int Recurse(int depth) {
  volatile char frame[4096] = {};
  frame[depth & 1] = 1;
  return enough ? 0 : Recurse(depth + 1) + frame[0];
}

TEST_F(Daemon, CrashEndsTheServerWithAFullStackAndWithAStuckLog) {
  const int log = socket(AF_UNIX, SOCK_DGRAM, 0);  // filled up, and read by nobody
  struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/dev/log"};
  closelog();  // it may be connected already
  EXPECT_EQ(unlink("/dev/log"), 0);
  EXPECT_EQ(bind(log, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)), 0);

  for (const bool stuck_log : {false, true}) {
    ChildSignalBlock block;
    const pid_t server = ForkChild();
    if (server == 0) {
      ClaimServer();
      WritePidFile("eth0", getpid());
      if (!stuck_log) _exit(Recurse(0));
      for (;;)
        syslog(LOG_INFO, "once more");
    }
    char line[256];
    if (stuck_log) recv(log, line, sizeof(line), MSG_PEEK);  // it is in syslog from here on
    if (stuck_log) kill(server, SIGSEGV);
    const int status = StatusOf(server);
    block.Release();
    const bool ended_by_alarm = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM;
    EXPECT_TRUE(stuck_log ? ended_by_alarm : status == 0) << status;
    EXPECT_FALSE(Exists(PID_FILE));
    while (recv(log, line, sizeof(line), MSG_DONTWAIT) > 0)
      continue;
  }
  close(log);
}

#endif

TEST_F(Daemon, StopNeverSignalsFromADamagedPidFile) {
  signal(SIGTERM, SIG_DFL);  // a signal to the own group would end the test
  set_mode_flags(MODE_DEBUG);
  testing::internal::CaptureStdout();
  for (const char *text : {"", "0", "-1", "1", "abc", "99999999999999999999", "-4294967295"}) {
    fixture::WriteFile(PID_FILE, text);
    EXPECT_EQ(stop_daemon("eth0"), 0) << text;
    EXPECT_FALSE(Exists(PID_FILE)) << text;
  }
  std::string lines;
  for (int i = 0; i < 7; ++i)
    lines += "stop_daemon() exit kv_servd.\n";
  EXPECT_EQ(testing::internal::GetCapturedStdout(), lines);
  set_mode_flags(0);
  EXPECT_EQ(stop_daemon("eth9"), -1);
}

TEST_F(Daemon, TraceGoesWhereTheModeSays) {
  EXPECT_EQ(open_trace_file(nullptr), -1);
  EXPECT_EQ(open_trace_file(""), -1);
  EXPECT_EQ(open_trace_file("/tmp/first"), 0);
  EXPECT_EQ(open_trace_file("/tmp/second"), 0);
  EXPECT_EQ(DebugPrint("unseen"), 0);
  set_mode_flags(MODE_DEBUG);
  EXPECT_EQ(DebugPrint("%s %d\r\n", "line", 1), 8);
  EXPECT_EQ(fixture::ReadFile("/tmp/second"), "line 1\r\n");
  EXPECT_EQ(fixture::ReadFile("/tmp/first"), "");
  const std::string long_line(6000, 'x');  // more than a pipe takes at once
  EXPECT_EQ(DebugPrint("%s", long_line.c_str()), 6000);
  EXPECT_EQ(fixture::ReadFile("/tmp/second"), "line 1\r\n" + long_line);

  testing::internal::CaptureStdout();
  EXPECT_EQ(open_trace_file("/no/such/folder"), -1);
  DebugPrint("no file\n");
  set_mode_flags(0);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "no file\n");
}
