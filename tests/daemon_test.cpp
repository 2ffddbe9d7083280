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
#include <functional>

#include "daemon/pidfile.h"
#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/libbh.h"
#include "tests/files.h"

using fixture::AwaitEnd;
using fixture::ReadFile;
using fixture::WriteFile;
using std::string;

namespace {

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

int Sleep() {
  for (;;)
    pause();
}

// Runs `work` in a child, which exits with its result.
pid_t Start(const std::function<int()> &work) {
  ChildSignalBlock block;
  const pid_t child = ForkChild();
  if (child == 0) _exit(work());
  block.Release();
  return child;
}

// Ends it by `number`, unless that is 0. Its wait status.
int StatusOf(const std::function<int()> &work, int number = 0) {
  ChildSignalBlock block;
  const pid_t child = Start(work);
  if (number != 0) kill(child, number);
  int status = -1;
  EXPECT_EQ(WaitForChild(child, &status), child);
  block.Release();
  return status;
}

int WaitAgain() {
  BeginWait();
  return 2;
}

int ChildsWait() {
  static const ChildSignalBlock block;
  return AwaitEnd(Start(WaitAgain)).si_status;
}

}  // namespace

TEST_F(Daemon, NoHandlerRunsUnderAHold) {
  ASSERT_EQ(libbh_lock(), 0);
  ChildSignalBlock block;
  pid_t children[3] = {};
  for (pid_t &child : children) {
    child = Start([] { return kill(getppid(), SIGUSR1); });
    AwaitEnd(child);
  }
  daemon_state.cmd_chpid = children[1];
  EXPECT_EQ(libbh_checklock(), 0) << "SIGUSR1 has given the lock back already";
  block.Release();  // one signal of each kind is pending for the three of them
  EXPECT_EQ(libbh_checklock(), 1);
  EXPECT_EQ(daemon_state.cmd_chpid, 0);
  EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
}

TEST_F(Daemon, WorkerLeavesTheServiceSocketToTheServer) {
  const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  daemon_state.sock = sock;
  ChildSignalBlock block;
  const pid_t worker = ForkWorker();
  if (worker == 0) _exit(fcntl(sock, F_GETFD) == -1 ? 0 : 1);
  EXPECT_EQ(AwaitEnd(worker).si_status, 0) << "the worker has it too";
  block.Release();
  EXPECT_EQ(close(sock), 0) << "the server has lost it";
  daemon_state.sock = -1;
}

TEST_F(Daemon, TerminatedChildLeavesThePidFileAlone) {
  ASSERT_EQ(WritePidFile("eth0", getpid()), 0);
  for (const int number : {SIGTERM, SIGHUP}) {
    EXPECT_EQ(StatusOf(Sleep, number), 0) << number;
    EXPECT_EQ(ReadFile(PID_FILE), std::to_string(getpid())) << number;
  }
}

TEST_F(Daemon, ExitHappensAtTheNextWait) {
  const struct {
    const char *name;
    int (*work)();
    int status;
    bool pid_file_left;
  } cases[] = {
      {"no wait", [] { return 2; }, 2, true},
      {"wait", WaitAgain, 0, false},
      {"library's sleep", [] { return libbh_sleep(0) + 2; }, 0, false},
      {"child's wait", ChildsWait, 2, true},
  };
  for (const auto &test : cases) {
    const int status = StatusOf([&] {
      ClaimServer();
      WritePidFile("eth0", getpid());
      raise(SIGTERM);  // in the middle of work: noted only
      return test.work();
    });
    EXPECT_EQ(WEXITSTATUS(status), test.status) << test.name;
    EXPECT_EQ(Exists(PID_FILE), test.pid_file_left) << test.name;
  }
}

TEST_F(Daemon, PidFileIsRemovedUnlessItNamesALivingServer) {
  const pid_t living = Start(Sleep);
  ChildSignalBlock block;
  const pid_t ended = Start([] { return 0; });
  WaitForChild(ended, nullptr);
  block.Release();
  const struct {
    const char *name;
    string content;
    int32_t result;
  } cases[] = {
      {"a later server's", std::to_string(living), -1},
      {"this server's", std::to_string(getpid()), 0},
      {"a server's that has ended", std::to_string(ended), 0},
      {"damaged", "abc", 0},
      {"empty", "", 0},
  };
  for (const auto &test : cases) {
    WriteFile(PID_FILE, test.content);
    EXPECT_EQ(DeletePidfile(), test.result) << test.name;
    EXPECT_EQ(Exists(PID_FILE), test.result != 0) << test.name;
  }
  EXPECT_EQ(DeletePidfile(), -1) << "none";
  kill(living, SIGKILL);
}

TEST_F(Daemon, ServerThatEndsByTheLibraryLeavesALaterOnesPidFile) {
  WriteFile(PID_FILE, std::to_string(getpid()));
  const int status = StatusOf([]() -> int {
    ClaimServer();
    exit(0);
  });
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(Exists(PID_FILE));
}

TEST_F(Daemon, PidFileThatCannotBePutInPlaceLeavesNothing) {
  fixture::RemoveFile(PID_FILE);
  ASSERT_EQ(mkdir(PID_FILE, 0755), 0);
  EXPECT_EQ(WritePidFile("eth0", 77), -1);
  EXPECT_FALSE(Exists("/var/run/bh_servd-eth0.pid.77"));
  fixture::RemoveFile(PID_FILE);
}

TEST_F(Daemon, PidFileIsNeverSeenWithoutItsNumber) {
  WriteFile(PID_FILE, "1");
  const int before = open(PID_FILE, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(WritePidFile("eth0", 77), 0);
  char content = '\0';
  EXPECT_EQ(read(before, &content, 1), 1) << "the file was emptied before it was written";
  EXPECT_EQ(ReadFile(PID_FILE), "77");
  close(before);
}

TEST_F(Daemon, StopNeverSignalsFromADamagedPidFile) {
  signal(SIGTERM, SIG_DFL);  // a signal to the own group would end the test
  for (const char *text : {"", "0", "-1", "1", "abc", "99999999999999999999", "-4294967295"}) {
    WriteFile(PID_FILE, text);
    EXPECT_EQ(stop_daemon("eth0"), 0) << text;
    EXPECT_FALSE(Exists(PID_FILE)) << text;
  }
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
  dup2(usual, STDOUT_FILENO);
  EXPECT_EQ(daemon_state.exit_pending, 0);
  for (const int fd : {usual, ends[0], ends[1]})
    close(fd);
}

#if !defined(__SANITIZE_ADDRESS__)  // there a crash is the sanitizer's, and stays visible

namespace {

volatile bool enough = false;

int Recurse(int depth) {
  volatile char frame[4096] = {};
  frame[depth & 1] = 1;
  return enough ? 0 : Recurse(depth + 1) + frame[0];
}

}  // namespace

TEST_F(Daemon, CrashByAFullStackEndsTheServer) {
  const int status = StatusOf([] {
    ClaimServer();
    WritePidFile("eth0", getpid());
    return Recurse(0);
  });
  EXPECT_EQ(status, 0);
  EXPECT_FALSE(Exists(PID_FILE));
}

TEST_F(Daemon, CrashWithAStuckLogEndsTheServer) {
  const int log = socket(AF_UNIX, SOCK_DGRAM, 0);  // filled up, and read by nobody
  struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/dev/log"};
  closelog();  // it may be connected already
  EXPECT_EQ(unlink("/dev/log"), 0);
  EXPECT_EQ(bind(log, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)), 0);
  ChildSignalBlock block;
  const pid_t server = Start([]() -> int {
    ClaimServer();
    WritePidFile("eth0", getpid());
    for (;;)
      syslog(LOG_INFO, "once more");
  });
  char byte = '\0';
  recv(log, &byte, 1, MSG_PEEK);  // it is in syslog from here on
  kill(server, SIGSEGV);
  EXPECT_EQ(AwaitEnd(server).si_status, SIGALRM);
  block.Release();
  EXPECT_FALSE(Exists(PID_FILE));
  close(log);
}

#endif

TEST_F(Daemon, TraceGoesWhereTheModeSays) {
  EXPECT_EQ(open_trace_file("/tmp/first"), 0);
  EXPECT_EQ(open_trace_file("/tmp/second"), 0);
  EXPECT_EQ(DebugPrint("unseen"), 0);
  set_mode_flags(MODE_DEBUG);
  EXPECT_EQ(DebugPrint("%s %d\r\n", "line", 1), 8);
  EXPECT_EQ(ReadFile("/tmp/second"), "line 1\r\n");
  EXPECT_EQ(ReadFile("/tmp/first"), "");
  const string long_line(6000, 'x');  // more than a pipe takes at once
  EXPECT_EQ(DebugPrint("%s", long_line.c_str()), 6000);
  EXPECT_EQ(ReadFile("/tmp/second"), "line 1\r\n" + long_line);

  testing::internal::CaptureStdout();
  EXPECT_EQ(open_trace_file("/no/such/folder"), -1);
  DebugPrint("no file\n");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "no file\n");
}
