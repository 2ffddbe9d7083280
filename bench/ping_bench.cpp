// Round trip of a ping over the board's wire, beside that of a bare server with the same system
// calls. Both wait twice for the kernel's packet socket, which is most of the time.

#include <utility>

#include "bench/benches.h"
#include "bench/round_trip.h"

namespace {

constexpr char kPing[] = "20 00 00 00 07 00 01 00 40 80 00 00 00 00 00 00";

void PingRoundTrip(benchmark::State &state, const std::vector<std::string> &server) {
  std::optional<board::Board> board = BootFor(state);
  if (!board) return;
  MeasureRoundTrips(state, *board, StartQuietly(*board, server), wire::Request(kPing));
  board::Halt(*board);
}

}  // namespace

void RegisterPing() {
  using Server = std::vector<std::string>;
  for (const auto &[name, server] : {std::pair<const char *, Server>{"ping/bare", {BARE_PING_PATH}},
                                     {"ping/bh_servd", {"bh_servd", "--nofork"}}}) {
    benchmark::RegisterBenchmark(name, PingRoundTrip, server)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond)
        ->MinTime(3.0);
  }
}
