// The measuring loop that all servers share.

#include "bench/round_trip.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>

#include "daemon/server.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "lib/descriptor.h"

namespace {

bool Answers(const wire::Client &client, const wire::Bytes &request) {
  wire::Send(client, request);
  return wire::Receive(client, std::chrono::milliseconds(50)).has_value();
}

double Milliseconds(const struct timeval &time) {
  return static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
}

// Asks the server, a child of this process, one request after the other; then ends it and the
// board.
void Measure(benchmark::State &state, board::Board &board, pid_t server,
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
  board::Halt(board);
}

}  // namespace

double ChildrenTime() {
  struct rusage usage = {};
  getrusage(RUSAGE_CHILDREN, &usage);
  return Milliseconds(usage.ru_utime) + Milliseconds(usage.ru_stime);
}

std::optional<board::Board> BootFor(benchmark::State &state) {
  std::string why;
  std::optional<board::Board> board = board::Boot({}, why);
  if (!board) state.SkipWithError(why.c_str());
  return board;
}

pid_t StartQuietly(const board::Board &board, const std::vector<std::string> &argv) {
  const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  return board::Spawn(board, {.argv = argv, .out = null.Get()});
}

int ServeHere() {
  const Descriptor null(open("/dev/null", O_WRONLY | O_CLOEXEC));
  dup2(null.Get(), STDOUT_FILENO);
  daemon_state.ifname = "eth0";
  set_mode_flags(get_mode_flags() | MODE_NOFORK);
  return start_server("eth0", socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

void MeasureProgram(benchmark::State &state, const std::vector<std::string> &server,
                    const wire::Bytes &request) {
  std::optional<board::Board> board = BootFor(state);
  if (board) Measure(state, *board, StartQuietly(*board, server), request);
}

void MeasureFunction(benchmark::State &state, int (*serve)(), const wire::Bytes &request) {
  std::optional<board::Board> board = BootFor(state);
  if (!board) return;
  const pid_t server = board::Fork(*board);
  if (server == 0) _exit(serve());
  Measure(state, *board, server, request);
}
