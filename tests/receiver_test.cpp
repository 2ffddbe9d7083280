// The image receiver: what it takes, and how it ends.

#include "firmware/receiver.h"

#include <filesystem>

#include "lib/libbh.h"
#include "tests/firmware_fixture.h"

using namespace fixture;

namespace {

class Receiver : public FirmwareTest {
 protected:
  // A receiver keeps the address that the appliance had: only so can several live. Starts one on
  // the address that ends with `host`.
  pid_t BeginOn(int host) {
    const char *move = "ip addr flush dev eth0; ip addr add 192.168.40.%d/24 brd + dev eth0";
    RunCommandLine(FormatText(move, host));
    EXPECT_EQ(Begin({}), STARTED);
    return daemon_state.firm_down_chpid;
  }
};

// Sends a byte each four seconds, from a child. Returns at once.
void SendSlowly(const string &data) {
  const int connection = Send("", Sender::STAYS);
  if (fork() == 0) {
    for (const char &byte : data) {
      sleep(4);
      send(connection, &byte, 1, MSG_NOSIGNAL);
    }
    _exit(0);
  }
  close(connection);
}

}  // namespace

TEST_F(Receiver, TakesOneUpload) {
  const struct {
    const char *name;
    size_t sent;
    Sender sender;
    bool behind_a_silent_one;
    size_t received;
  } cases[] = {
      {"whole image", 1000, Sender::STAYS, false, 1000},
      {"more than was asked for", 1500, Sender::STAYS, false, 1000},
      {"half of it", 500, Sender::CLOSES, false, 500},
      {"half of it behind a silent sender", 500, Sender::CLOSES, true, 500},
      {"reset", 500, Sender::RESETS, false, 0},
      {"nothing", 0, Sender::CLOSES, false, 0},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    EXPECT_EQ(Begin({.size = 1000}), STARTED);
    const int silent = test.behind_a_silent_one ? Send("", Sender::STAYS) : -1;
    const int connection = Send(string(test.sent, 'x'), test.sender);
    EXPECT_TRUE(AwaitNoReceiver());
    EXPECT_EQ(ReceivedImage().size, test.received);
    const size_t stored = std::min<size_t>(test.sent, 1000);
    EXPECT_EQ(Content(), string(stored, 'x') + string(1256 - stored, '\0'));
    close(silent);
    close(connection);
  }
  EXPECT_FALSE(IsListening());
}

TEST_F(Receiver, NoticesAClientThatVanished) {
  EXPECT_EQ(Begin({}), STARTED);
  const int connection = Send("some", Sender::STAYS);
  // The kernel's table of connections has a timer of kind 2, that of keep-alive.
  const string kept_alive = "grep -q '0228A8C0:5998 ........:.... 01 .* 02:' /proc/net/tcp";
  EXPECT_TRUE(board::WaitFor([&] { return RunCommandLine(kept_alive) == 0; }));
  EXPECT_EQ(GiveUp(), REFUSED);
  close(connection);
}

TEST_F(Receiver, KeepsNoEndOfItsStartersPipe) {
  EXPECT_EQ(Begin({}), STARTED);
  const string folder = FormatText("/proc/%d/fd", daemon_state.firm_down_chpid);
  const std::filesystem::directory_iterator files(folder);
  // It has a socket more than this process, which has two folders open to count.
  EXPECT_EQ(std::distance(begin(files), end(files)), OpenDescriptors() - 1);
  EXPECT_EQ(GiveUp(), REFUSED);
}

TEST_F(Receiver, OldestOfManyAbandonedOnesGoes) {
  std::vector<pid_t> begun;
  for (int host = 8; host > 2; --host)
    begun.push_back(BeginOn(host));
  EXPECT_EQ(Receivers(), std::vector<pid_t>(begun.end() - 4, begun.end()));

  ASSERT_FALSE(HasFailure()) << "no process to be killed";
  // When two have ended, the others move up.
  kill(begun[2], SIGKILL);
  kill(begun[3], SIGKILL);
  EXPECT_TRUE(board::WaitFor([] {
    const std::vector<pid_t> all = Receivers();
    return std::count(all.begin(), all.end(), 0) == 2;
  }));
  const pid_t last = BeginOn(2);
  EXPECT_EQ(Receivers(), (std::vector<pid_t>{begun[4], begun[5], last, 0}));
  EXPECT_EQ(GiveUp(), REFUSED);
  EXPECT_EQ(Receivers(), std::vector<pid_t>(4));
}

TEST_F(Receiver, ListensEverywhereWithoutAnInterface) {
  daemon_state.ifname = "none";
  ASSERT_TRUE(CreateImage(9));
  const pid_t receiver = firm_recive(9);
  EXPECT_TRUE(IsListening("00000000"));
  StopReceiver(receiver);
  EXPECT_TRUE(AwaitNoReceiver());
}

TEST_F(Receiver, GivesTheLockBackWhenItCannotListen) {
  const struct {
    const char *failing_call;
    const char *trace;
  } cases[] = {
      {"*/socket=2:0:EMFILE", "could not open socket Too many open files\n"},
      {"*/bind:0:EADDRINUSE", "could not bind address to socket: Address already in use(98)\n"},
      {"*/listen:0:EIO", "could not turn listen state: Input/output error\nfirm_recive() error.\n"},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.failing_call);
    ASSERT_TRUE(CreateImage(9));
    EXPECT_EQ(libbh_lock(), 0);
    setenv("BOARD_FAIL", test.failing_call, 1);
    firm_recive(9);
    unsetenv("BOARD_FAIL");
    EXPECT_TRUE(AwaitNoReceiver());
    EXPECT_EQ(libbh_checklock(), 1) << "the lock is still held";
    EXPECT_EQ(Count(TRACE, test.trace), 1);
    EXPECT_EQ(Content(), "");
  }
  EXPECT_NE(Count("/var/log/syslog", "firm_recive() failed. exit(0)"), 0);
}

TEST_F(Receiver, EndsWithItsServer) {
  const pid_t server = ForkStopped([] { firm_recive(CreateImage(9) ? 9 : 0); });
  EXPECT_TRUE(IsListening());
  kill(server, SIGKILL);
  EXPECT_TRUE(board::WaitFor([] { return !IsListening(); }));
}

TEST_F(Receiver, IsStoppedWhenTheTransferIsGivenUp) {
  EXPECT_EQ(Begin({}), STARTED);
  EXPECT_EQ(GiveUp(), REFUSED);
  EXPECT_FALSE(IsListening());
  EXPECT_EQ(Content(), "");
  const string stopped = FormatText("kill(firm_down_chpid,SIGTERM). firm_down_chpid=%d\nwaitpid(",
                                    daemon_state.firm_down_chpid);
  EXPECT_EQ(Count(TRACE, stopped), 1);
  EXPECT_EQ(Count(TRACE, "verify_firmbinary() < 0 ACP_STATE_FAILURE result=5 verify=0\n"), 1);
}

TEST_F(Receiver, ProcessThatHasItsNumberByNowIsSpared) {
  const pid_t stranger = ForkStopped([] {});
  daemon_state.firm_down_chpid = stranger;
  EXPECT_EQ(GiveUp(), REFUSED);
  ChildSignalBlock block;
  kill(stranger, SIGCONT);
  EXPECT_EQ(AwaitEnd(stranger).si_status, 3);
  block.Release();
}

TEST_F(Receiver, IsStoppedAfterARefusedRequest) {
  EXPECT_EQ(Begin({}), STARTED);
  EXPECT_EQ(Begin({.type = 5}), "C080:FFFFFFFF ");
  EXPECT_EQ(GiveUp(), REFUSED);
  EXPECT_FALSE(IsListening());
}

TEST_F(Receiver, IsStoppedWhenItsUploadStandsStill) {
  EXPECT_EQ(Update({}, "image"), INSTALLED);
  EXPECT_EQ(Begin({}), STARTED);
  const int connection = Send("some", Sender::STAYS);
  EXPECT_EQ(End(), FAILED);
  close(connection);
}

TEST_F(Receiver, IsAwaitedWhileItsUploadFlows) {
  const string image = "12s";  // ten of them without a byte would end it
  EXPECT_EQ(Begin({}), STARTED);
  SendSlowly(image);
  EXPECT_EQ(End(), INSTALLED);
  EXPECT_EQ(ReadFile("/dev/mtdblock0"), image);
}
