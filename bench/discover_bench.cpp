// Discovery over the wire: beside a bare server that reads the same files, with a long list of
// requesters' keys, and of 250 appliances at once.

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <set>

#include "access/keys.h"
#include "bench/round_trip.h"
#include "board/client_end.h"
#include "daemon/state.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char DISCOVER[] = "20 00 00 00 07 00 01 00 20 80 00 00 00 00 00 00";
constexpr uint32_t MANY_KEYS = 100'000;

void AddKey(const uint8_t *mac, uint32_t key) {
  auto *entry = static_cast<KeyEntry *>(calloc(1, sizeof(KeyEntry)));
  if (entry == nullptr) return;
  *entry = {daemon_state.key_list, key, {}, static_cast<uint32_t>(time(nullptr))};
  memcpy(entry->mac, mac, sizeof(entry->mac));
  daemon_state.key_list = entry;
}

// A list in which the client's key is the last that is looked at. Asked for over the wire, the
// first would have expired before the last is there.
void FillKeys() {
  AddKey(CLIENT_MAC, 1);
  for (uint32_t i = 1; i < MANY_KEYS; ++i) {
    uint8_t mac[6] = {0x02, 0xff};
    memcpy(mac + 2, &i, sizeof(i));
    AddKey(mac, i);
  }
}

int ServeWithManyKeys() {
  FillKeys();
  return ServeHere();
}

// What the list costs a request, without all the rest.
void LookUpKey(benchmark::State &state) {
  FillKeys();
  while (state.KeepRunning())
    benchmark::DoNotOptimize(IssueKey(CLIENT_MAC));
  CleanKey(static_cast<uint32_t>(time(nullptr)) + 1800);
}

constexpr int BOARDS = 250;

// Asks all at once. Returns the seconds until the last answered, nothing when one did not; returns
// when the wire is quiet again.
std::optional<double> AskAll(const wire::Client &client) {
  const Clock::time_point start = Clock::now();
  Clock::time_point last = start;
  std::set<std::string> macs;
  wire::Send(client, wire::Request(DISCOVER));
  while (const auto reply = wire::Receive(client, std::chrono::milliseconds(1000))) {
    if (reply->size() < 32) continue;
    if (macs.emplace(reply->begin() + 16, reply->begin() + 22).second) last = Clock::now();
  }
  if (macs.size() < size_t{BOARDS}) return std::nullopt;
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
  wire::Client client = wire::Open(board::BRIDGE);
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
  std::vector<board::Board> boards = board::BootAll(board::Network(BOARDS), why);
  state.counters["boot_s"] = std::chrono::duration<double>(Clock::now() - start).count();
  if (boards.empty()) return state.SkipWithError(why.c_str());
  MeasureNetwork(state, boards);
  board::HaltAll(boards);
}

void Discover(benchmark::State &state) {
  MeasureProgram(state, {"bh_servd", "--nofork"}, wire::Request(DISCOVER));
}

void BareDiscover(benchmark::State &state) {
  MeasureProgram(state, {BARE_SERVER_PATH, "discover"}, wire::Request(DISCOVER));
}

void DiscoverWithKeys(benchmark::State &state) {
  MeasureFunction(state, ServeWithManyKeys, wire::Request(DISCOVER));
}

BENCHMARK(Discover)->Name("discover")->UseRealTime()->MinTime(LEAST_SECONDS);
BENCHMARK(BareDiscover)->Name("discover/bare")->UseRealTime()->MinTime(LEAST_SECONDS);
BENCHMARK(DiscoverWithKeys)
    ->Name("discover with 100,000 keys")
    ->UseRealTime()
    ->MinTime(LEAST_SECONDS);
BENCHMARK(LookUpKey)->Name("look-up among 100,000 keys");
BENCHMARK(DiscoverNetwork)->Name("discover of 250 appliances")->UseManualTime()->Iterations(3);

}  // namespace
