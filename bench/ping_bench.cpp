// Round trip of a ping over the board's wire, beside that of a bare server with the same system
// calls. Both wait twice for the kernel's packet socket, which is most of the time.

#include "bench/round_trip.h"

namespace {

constexpr char PING[] = "20 00 00 00 07 00 01 00 40 80 00 00 00 00 00 00";

void Ping(benchmark::State &state) {
  MeasureProgram(state, {"bh_servd", "--nofork"}, wire::Request(PING));
}

void BarePing(benchmark::State &state) {
  MeasureProgram(state, {BARE_SERVER_PATH, "ping"}, wire::Request(PING));
}

BENCHMARK(Ping)->Name("ping")->UseRealTime()->MinTime(LEAST_SECONDS);
BENCHMARK(BarePing)->Name("ping/bare")->UseRealTime()->MinTime(LEAST_SECONDS);

}  // namespace
