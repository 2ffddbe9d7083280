// The measuring loop that all servers share.

#include "bench/round_trip.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>

namespace {

bool Answers(const wire::Client &client, const wire::Bytes &request) {
  wire::Send(client, request);
  return wire::Receive(client, std::chrono::milliseconds(50)).has_value();
}

double Milliseconds(const struct timeval &time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

// Of all children that have been waited for, and of theirs.
double ChildrenTime() {
  struct rusage usage = {};
  getrusage(RUSAGE_CHILDREN, &usage);
  return Milliseconds(usage.ru_utime) + Milliseconds(usage.ru_stime);
}

}  // namespace

std::optional<board::Board> BootFor(benchmark::State &state) {
  std::string why;
  std::optional<board::Board> board = board::Boot({}, &why);
  if (!board) state.SkipWithError(why.c_str());
  return board;
}

pid_t StartQuietly(const board::Board &board, const std::vector<std::string> &argv) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  const pid_t server = board::Spawn(board, {.argv = argv, .out = null});
  close(null);
  return server;
}

void MeasureRoundTrips(benchmark::State &state, const board::Board &board, pid_t server,
                       const wire::Bytes &request) {
  const double before = ChildrenTime();
  wire::Client client = wire::Open(board.wires[0]);
  if (!board::WaitFor([&] { return Answers(client, request); })) state.SkipWithError("no answer");
  while (wire::Receive(client, std::chrono::milliseconds(100))) {
    // answers to what was sent while the server started
  }
  while (state.KeepRunning()) {
    wire::Send(client, request);
    if (!wire::Receive(client)) state.SkipWithError("no answer");
  }
  wire::Close(client);
  kill(server, SIGKILL);
  board::Wait(server);
  const double used = ChildrenTime() - before;
  state.counters["cpu_ms"] = used / static_cast<double>(state.iterations() + 1);
}
