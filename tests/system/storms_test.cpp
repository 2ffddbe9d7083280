// Signals while requests flood in: whoever ends the server does so at once and leaves nothing of it
// behind, at whatever moment; and no other signal, however often it comes, costs a reply.

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <random>

#include "tests/system/fixture.h"

using std::string;
using wire::Bytes;

namespace {

const int ROUNDS = getenv("BOARD_POWERPC") == nullptr ? 125 : 25;

Bytes Packet(const string &code, const string &body = "", const Bytes &secret = {}) {
  Bytes packet = wire::Request("2000000007000100" + code + "000000000000", wire::Hex(body));
  packet.insert(packet.end(), secret.begin(), secret.end());
  packet[10] = static_cast<uint8_t>(packet.size() - 32);
  packet[28] = 1;  // of an update, at its end: that it has failed
  return packet;
}

}  // namespace

class Storms : public SystemTest, public testing::WithParamInterface<int> {
 protected:
  void SetUp() override {
    BootBoard({.product_id = GetParam() % 2 == 0 ? "5" : "0x2001"});
    board::WriteFile(board, "/www/.htpasswd", "root:abcHKXPavTczo\n");  // "FernGate7"
    idle = Processes();
  }
  ptrdiff_t Processes() {
    return std::ssize(board::Processes(board));
  }
  std::vector<Bytes> Requests() {  // the first has the others accepted
    TakeKey();
    if (HasFatalFailure()) return std::vector<Bytes>(1);
    const Bytes update = Packet("80 80", "02000000 05000000 00020000 000000000000000000000000",
                                Encoded("FernGate7"));
    std::vector<Bytes> all = {Packet("A0 80", "0D000000 00000000", Encoded("FernGate")), update,
                              update, Packet("A0 80", "06"), Packet("A0 80", "11000000 04000000")};
    for (const char *code : {"40 80", "20 80", "70 80", "90 80", "20 8A"})
      all.push_back(Packet(code));
    for (const string type : {"00", "01", "02", "03"})  // with the command "true"
      all.push_back(Packet("10 8A", "04000000" + type + "000000 74727565 000000"));
    return all;
  }
  pid_t StartStorm(int number, bool once = false) {
    const pid_t server = ServerPid();
    const pid_t storm = server > 1 ? board::Fork(board) : -1;
    if (storm != 0) return storm;
    while (kill(server, number) == 0 && !once)
      usleep(10);  // else nothing but the handler might ever run
    _exit(0);
  }
  void End(int number, bool once) {
    const pid_t storm = StartStorm(number, once);
    EXPECT_TRUE(board::WaitFor([&] {
      return !board::Exists(board, PID_FILE) && Processes() == idle + 1;
    })) << Leftovers();
    board::Wait(storm);
    EXPECT_EQ(Trace().find("exit kv_servd."), Trace().rfind("exit kv_servd."));
  }
  ptrdiff_t idle = 0;
};

INSTANTIATE_TEST_SUITE_P(Boards, Storms, testing::Range(0, 4));

TEST_P(Storms, EndTheServerAtAnyMoment) {
  const unsigned seed = std::random_device()();
  std::mt19937 random(seed);
  for (int round = 0; round < ROUNDS && !HasFailure(); ++round) {
    SCOPED_TRACE("seed " + std::to_string(seed) + ", round " + std::to_string(round));
    const bool early = round % 8 == 7;  // before it is bound
    if (early) OnBoard({"bh_servd", "-d", "-a", "/var/log/trace"});
    if (!early) StartDaemon();
    std::vector<Bytes> requests = early ? std::vector<Bytes>(1) : Requests();
    std::shuffle(requests.begin() + 1, requests.end(), random);
    for (const Bytes &request : requests)
      wire::Send(client, request);
    usleep(static_cast<useconds_t>(random() % (early ? 2500 : 100'000)));  // all take a bit longer
    End(round % 3 == 0 ? SIGHUP : SIGTERM, round % 5 < 3);
    while (wire::Receive(client, wire::milliseconds(0)))
      continue;
  }
}

TEST_P(Storms, OfOtherSignalsCostNoReply) {
  StartDaemon();
  const pid_t storm = StartStorm(SIGUSR1);
  for (int round = 0; round < ROUNDS / 25; ++round) {
    for (const Bytes &request : Requests())
      EXPECT_GE(Ask(request).size(), 32U) << testing::PrintToString(request);
    const Bytes check = Packet("10 8A", "05000000 01000000 66616C7365 000000");
    EXPECT_TRUE(board::WaitFor([&] { return Ask(check).at(29) == 1; }));  // exit status of "false"
  }
  EXPECT_TRUE(board::WaitFor([this] { return Processes() == idle + 2; }));
  kill(storm, SIGKILL);
  board::Wait(storm);
  board::WriteFile(board, "/s", "while kill -USR1 $PPID; do :; done");
  Ask(Packet("10 8A", "05000000 00000000 7368202F73 000000"));  // "sh /s"
  ExpectAlive();
  End(SIGTERM, true);
}
