#include "tests/system/lossy_wire.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <map>
#include <random>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;
using Frame = std::vector<uint8_t>;
using std::chrono::milliseconds;

constexpr char CLIENT_END[] = "user0";
constexpr char CARRIER_END[] = "carrier0";
constexpr size_t PROTOCOL = 23, CHECKSUM = 40, COMMAND = 50;  // offsets in a frame
constexpr uint8_t UDP = 17;

int OpenPacketSocket(const std::string &interface) {
  sockaddr_ll link = {};
  link.sll_family = AF_PACKET;
  link.sll_protocol = htons(ETH_P_ALL);
  link.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  const int opened = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL));
  return bind(opened, reinterpret_cast<sockaddr *>(&link), sizeof(link)) == 0 ? opened : -1;
}

// A virtual link leaves a UDP checksum to hardware that it does not have; zero is none.
void ClearChecksum(Frame &frame) {
  if (frame.size() > COMMAND && frame[PROTOCOL] == UDP) frame[CHECKSUM] = frame[CHECKSUM + 1] = 0;
}

bool HasCommand(const Frame &frame, uint16_t command) {
  return command != 0 && frame.size() > COMMAND + 1 && frame[PROTOCOL] == UDP &&
         (frame[COMMAND] | frame[COMMAND + 1] << 8) == command;
}

struct Carrier {
  Weather weather;
  int ends[2] = {-1, -1};
  std::mt19937 random;
  std::multimap<Clock::time_point, std::pair<int, Frame>> under_way;  // by arrival; the end
};

bool Chance(Carrier &carrier, int percent) {
  return std::uniform_int_distribution(1, 100)(carrier.random) <= percent;
}

void Take(Carrier &carrier, int from) {
  Frame frame(2048);
  sockaddr_ll source = {};
  socklen_t size = sizeof(source);
  const ssize_t length = recvfrom(carrier.ends[from], frame.data(), frame.size(), 0,
                                  reinterpret_cast<sockaddr *>(&source), &size);
  if (length <= 0 || source.sll_pkttype == PACKET_OUTGOING) return;
  frame.resize(static_cast<size_t>(length));
  ClearChecksum(frame);
  if (HasCommand(frame, carrier.weather.lost_command)) return;
  for (int copies = Chance(carrier, carrier.weather.duplicates) ? 2 : 1; copies > 0; --copies) {
    if (Chance(carrier, carrier.weather.loss)) continue;
    const auto jitter =
        std::uniform_int_distribution<int64_t>(0, carrier.weather.jitter.count())(carrier.random);
    const auto arrival = Clock::now() + carrier.weather.delay + milliseconds(jitter);
    carrier.under_way.emplace(arrival, std::pair(1 - from, frame));
  }
}

void Deliver(Carrier &carrier) {
  while (!carrier.under_way.empty() && carrier.under_way.begin()->first <= Clock::now()) {
    const auto &[to, frame] = carrier.under_way.begin()->second;
    if (write(carrier.ends[to], frame.data(), frame.size()) < 0) return;
    carrier.under_way.erase(carrier.under_way.begin());
  }
}

[[noreturn]] void Carry(Carrier &carrier) {
  for (;;) {
    pollfd watched[] = {{carrier.ends[0], POLLIN, 0}, {carrier.ends[1], POLLIN, 0}};
    poll(watched, 2, carrier.under_way.empty() ? -1 : 1);
    for (int end = 0; end < 2; ++end)
      if (watched[end].revents != 0) Take(carrier, end);
    Deliver(carrier);
  }
}

bool Shell(const std::string &script) {
  return system(("PATH=/usr/sbin:/sbin:$PATH; " + script).c_str()) == 0;
}

}  // namespace

LossyWire MakeLossy(const std::string &wire, const std::string &address, const Weather &weather) {
  const std::string user = CLIENT_END, carrier_end = CARRIER_END;
  if (!Shell("ip link add " + user + " type veth peer name " + carrier_end +
             " && ip address flush dev " + wire + " && ip address add " + address + " brd + dev " +
             user + " && ip link set " + user + " up && ip link set " + carrier_end +
             " up && ip link set " + wire + " promisc on"))
    return {};
  Carrier carrier = {.weather = weather, .random = {}, .under_way = {}};
  carrier.ends[0] = OpenPacketSocket(carrier_end);
  carrier.ends[1] = OpenPacketSocket(wire);
  const pid_t process = fork();
  if (process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    Carry(carrier);
  }
  for (const int end : carrier.ends)
    close(end);
  return {user, process};
}

void Remove(LossyWire &lossy) {
  if (lossy.process < 0) return;
  kill(lossy.process, SIGKILL);
  waitpid(lossy.process, nullptr, 0);
  Shell("ip link del " + std::string(CLIENT_END));
}
