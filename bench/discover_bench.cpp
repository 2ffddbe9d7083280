// Discovery over the wire: beside a bare server that reads the same files, with a long list of
// requesters' keys, and of 250 appliances at once.

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>
#include <utility>

#include "access/keys.h"
#include "bench/benches.h"
#include "bench/round_trip.h"
#include "daemon/server.h"
#include "daemon/state.h"
#include "tests/system/wire.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kDiscover[] = "20 00 00 00 07 00 01 00 20 80 00 00 00 00 00 00";
constexpr uint8_t kClientMac[6] = {0x02, 0x0b, 0x4a, 0, 0, 0x01};
constexpr uint32_t kManyKeys = 100'000;

void DiscoverRoundTrip(benchmark::State &state, const std::vector<std::string> &server) {
  std::optional<board::Board> board = BootFor(state);
  if (!board) return;
  MeasureRoundTrips(state, *board, StartQuietly(*board, server), wire::Request(kDiscover));
  board::Halt(*board);
}

void AddKey(const uint8_t *mac, uint32_t key) {
  auto *entry = static_cast<KeyEntry *>(calloc(1, sizeof(KeyEntry)));
  if (entry == nullptr) return;
  *entry = {daemon_state.key_list, key, {}, static_cast<uint32_t>(time(nullptr))};
  memcpy(entry->mac, mac, sizeof(entry->mac));
  daemon_state.key_list = entry;
}

// A list of `count` keys in which the client's is the last that is looked at. Asked for over the
// wire, the first of 100,000 would have expired before the last is there.
void FillKeys(uint32_t count) {
  AddKey(kClientMac, 1);
  for (uint32_t i = 1; i < count; ++i) {
    const uint8_t mac[6] = {0x02,
                            0xff,
                            static_cast<uint8_t>(i >> 24),
                            static_cast<uint8_t>(i >> 16),
                            static_cast<uint8_t>(i >> 8),
                            static_cast<uint8_t>(i)};
    AddKey(mac, i);
  }
}

// Serves in this process, which is on a board, until it is killed.
int ServeWithKeys(uint32_t count) {
  const int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null, STDOUT_FILENO);
  close(null);
  FillKeys(count);
  daemon_state.ifname = "eth0";
  set_mode_flags(MODE_NOFORK);
  return start_server("eth0", socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

void DiscoverWithKeys(benchmark::State &state, uint32_t count) {
  std::optional<board::Board> board = BootFor(state);
  if (!board) return;
  const pid_t server = board::Fork(*board);
  if (server == 0) _exit(ServeWithKeys(count));
  MeasureRoundTrips(state, *board, server, wire::Request(kDiscover));
  board::Halt(*board);
}

// What the list costs a request, without all the rest.
void LookUpKey(benchmark::State &state) {
  FillKeys(static_cast<uint32_t>(state.range(0)));
  while (state.KeepRunning())
    benchmark::DoNotOptimize(IssueKey(kClientMac));
  CleanKey(static_cast<uint32_t>(time(nullptr)) + 1800);
}

BENCHMARK(LookUpKey)->Name("keys/look_up")->Arg(1)->Arg(kManyKeys);

constexpr int kBoards = 250;

// Asks all at once. Returns the seconds until the last answered, nothing when one did not; returns
// when the wire is quiet again.
std::optional<double> AskAll(const wire::Client &client) {
  const Clock::time_point start = Clock::now();
  Clock::time_point last = start;
  std::set<std::string> macs;
  wire::Send(client, wire::Request(kDiscover));
  while (const auto reply = wire::Receive(client, std::chrono::milliseconds(1000))) {
    if (reply->size() < 32) continue;
    if (macs.emplace(reply->begin() + 16, reply->begin() + 22).second) last = Clock::now();
  }
  if (macs.size() < size_t{kBoards}) return std::nullopt;
  return std::chrono::duration<double>(last - start).count();
}

// A line of the process's memory map summary, in MiB.
double MemoryOf(pid_t process, const std::string &name) {
  std::ifstream summary("/proc/" + std::to_string(process) + "/smaps_rollup");
  double kilobytes = 0;
  for (std::string word; summary >> word;)
    if (word == name) summary >> kilobytes;
  return kilobytes / 1024;
}

void ReportMemory(benchmark::State &state, const std::vector<pid_t> &servers) {
  double rss = 0;
  double pss = 0;
  for (const pid_t server : servers) {
    rss += MemoryOf(server, "Rss:");
    pss += MemoryOf(server, "Pss:");
  }
  state.counters["rss_MiB"] = rss;
  state.counters["pss_MiB"] = pss;
}

void MeasureNetwork(benchmark::State &state, const std::vector<board::Board> &boards) {
  std::vector<pid_t> servers;
  servers.reserve(boards.size());
  for (const board::Board &board : boards)
    servers.push_back(StartQuietly(board, {"bh_servd", "--nofork"}));
  wire::Client client = wire::Open(board::kBridge);
  const auto all_answer = [&] { return AskAll(client).has_value(); };
  if (!board::WaitFor(all_answer, std::chrono::seconds(60))) state.SkipWithError("not all answer");
  while (state.KeepRunning()) {
    const std::optional<double> seconds = AskAll(client);
    if (!seconds) state.SkipWithError("not all answer");
    state.SetIterationTime(seconds.value_or(0));
  }
  ReportMemory(state, servers);
  wire::Close(client);
  for (const pid_t server : servers) {
    kill(server, SIGKILL);
    board::Wait(server);
  }
}

void DiscoverNetwork(benchmark::State &state) {
  std::string why;
  const Clock::time_point start = Clock::now();
  std::vector<board::Board> boards = board::BootAll(board::Network(kBoards), &why);
  state.counters["boot_s"] = std::chrono::duration<double>(Clock::now() - start).count();
  if (boards.empty()) return state.SkipWithError(why.c_str());
  MeasureNetwork(state, boards);
  board::HaltAll(boards);
}

}  // namespace

void RegisterDiscover() {
  using Server = std::vector<std::string>;
  for (const auto &[name, server] :
       {std::pair<const char *, Server>{"discover/bare", {BARE_DISCOVER_PATH}},
        {"discover/bh_servd", {"bh_servd", "--nofork"}}}) {
    benchmark::RegisterBenchmark(name, DiscoverRoundTrip, server)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond)
        ->MinTime(3.0);
  }
  benchmark::RegisterBenchmark("discover/100000_keys", DiscoverWithKeys, kManyKeys)
      ->UseRealTime()
      ->Unit(benchmark::kMillisecond)
      ->MinTime(3.0);
  benchmark::RegisterBenchmark("discover/250_boards", DiscoverNetwork)
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond)
      ->Iterations(3);
}
