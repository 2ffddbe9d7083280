// Round trip of a ping over the board's wire, beside that of a bare server with the same system
// calls. Both wait twice for the kernel's packet socket, which is most of the time.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

#include "bench/benches.h"
#include "board/board.h"
#include "tests/system/wire.h"

namespace {

constexpr char kPing[] = "20 00 00 00 07 00 01 00 40 80 00 00 00 00 00 00";

bool Answers(const wire::Client &client, const wire::Bytes &ping) {
  wire::Send(client, ping);
  return wire::Receive(client, std::chrono::milliseconds(50)).has_value();
}

void PingRoundTrip(benchmark::State &state, const std::vector<std::string> &server) {
  std::string why;
  std::optional<board::Board> board = board::Boot({}, &why);
  if (!board) {
    state.SkipWithError(why.c_str());
    return;
  }
  wire::Client client = wire::Open(board->wires[0]);
  const wire::Bytes ping = wire::Request(kPing);
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  board::Spawn(*board, {.argv = server, .out = null});
  close(null);
  if (!board::WaitFor([&] { return Answers(client, ping); })) state.SkipWithError("no answer");
  while (state.KeepRunning()) {
    wire::Send(client, ping);
    if (!wire::Receive(client)) state.SkipWithError("no answer");
  }
  wire::Close(client);
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
