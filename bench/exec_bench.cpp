// A remote command whose output comes in the reply, to be set beside popen of the same command plus
// a ping.

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "bench/round_trip.h"
#include "daemon/server.h"
#include "daemon/signals.h"
#include "daemon/state.h"

namespace {

// `true`, captured: its length, its type, the text, its NUL and the two bytes behind it.
constexpr char kHead[] = "20 00 00 00 07 00 01 00 10 8A 0F 00 00 00 00 00";
constexpr char kBody[] = "04 00 00 00 03 00 00 00 74 72 75 65 00 00 00";
constexpr uint8_t kClientMac[6] = {0x02, 0x0b, 0x4a, 0, 0, 0x01};

// Serves in this process, which is on a board, until it is killed.
int ServeEnabled() {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  close(null);
  daemon_state.ifname = "eth0";
  daemon_state.enable_state = 0;
  memcpy(daemon_state.enable_mac, kClientMac, sizeof(kClientMac));
  set_mode_flags(MODE_NOFORK | MODE_COMMAND_ENABLED);
  return start_server("eth0", socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

void ExecRoundTrip(benchmark::State &state) {
  std::optional<board::Board> board = BootFor(state);
  if (!board) return;
  const pid_t server = board::Fork(*board);
  if (server == 0) _exit(ServeEnabled());
  MeasureRoundTrips(state, *board, server, wire::Request(kHead, wire::Hex(kBody)));
  board::Halt(*board);
}

void Popen(benchmark::State &state) {
  while (state.KeepRunning()) {
    FILE *command = popen("true", "re");
    if (command == nullptr) return state.SkipWithError("popen");
    char output[8];
    while (fread(output, 1, sizeof(output), command) > 0)
      benchmark::DoNotOptimize(output);
    pclose(command);
  }
}

BENCHMARK(Popen)->Name("exec/popen")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(ExecRoundTrip)
    ->Name("exec/bh_servd")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond)
    ->MinTime(3.0);

}  // namespace
