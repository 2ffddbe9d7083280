// An upload of 64 MiB over the wire, beside a bare receive loop into a shared segment; and the
// image's checksum beside a plain sum over the same memory.

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>
#include <vector>

#include "acp/packet.h"
#include "bench/round_trip.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "firmware/image.h"
#include "firmware/receiver.h"
#include "lib/descriptor.h"

namespace {

constexpr uint32_t IMAGE_SIZE = 64 << 20;  // bytes
constexpr size_t PIECE = 64 << 10;

struct sockaddr_in Address(const char *dotted) {
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(ACP_PORT);
  inet_pton(AF_INET, dotted, &address.sin_addr);
  return address;
}

// Each takes one upload, on the board, and gives the exit status.
int ReceiveAsDaemon() {
  daemon_state.ifname = "eth0";
  if (!CreateImage(IMAGE_SIZE) || InstallChildHandler() != 0) return 1;
  const pid_t receiver = firm_recive(IMAGE_SIZE);
  while (receiver > 0 && daemon_state.live_receivers[0] != 0)
    pause();
  return ReceivedImage().size == IMAGE_SIZE ? 0 : 1;
}

int ReceiveBare() {
  const int id = shmget(IPC_PRIVATE, IMAGE_SIZE, IPC_CREAT | 0600);
  auto *const segment = static_cast<uint8_t *>(shmat(id, nullptr, 0));
  shmctl(id, IPC_RMID, nullptr);
  memset(segment, 0, IMAGE_SIZE);
  const Descriptor server(socket(AF_INET, SOCK_STREAM, 0));
  const struct sockaddr_in address = Address("0.0.0.0");
  const int on = 1;
  setsockopt(server.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  const bool bound = bind(server.Get(), reinterpret_cast<const struct sockaddr *>(&address),
                          sizeof(address)) == 0 &&
                     listen(server.Get(), 1) == 0;
  const Descriptor peer(bound ? accept(server.Get(), nullptr, nullptr) : -1);
  size_t received = 0;
  ssize_t got = peer.IsOpen() ? 1 : 0;
  while (got > 0 && received < IMAGE_SIZE) {
    got = recv(peer.Get(), segment + received, IMAGE_SIZE - received, 0);
    if (got > 0) received += static_cast<size_t>(got);
  }
  return received == IMAGE_SIZE ? 0 : 1;
}

Descriptor Connect(const char *dotted) {
  const struct sockaddr_in address = Address(dotted);
  Descriptor peer;
  const auto connected = [&] {
    peer = Descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(peer.Get(), reinterpret_cast<const struct sockaddr *>(&address),
                   sizeof(address)) == 0;
  };
  if (!board::WaitFor(connected)) peer.Close();
  return peer;
}

void SendImage(const Descriptor &peer) {
  static const std::vector<uint8_t> piece(PIECE, 0xA5);
  ssize_t sent = 0;
  for (size_t left = IMAGE_SIZE; left > 0 && sent >= 0; left -= static_cast<size_t>(sent))
    sent = send(peer.Get(), piece.data(), std::min(left, piece.size()), MSG_NOSIGNAL);
}

// From the first byte until the receiver knows that it has all.
void Upload(benchmark::State &state, int (*receive)()) {
  std::optional<board::Board> board = BootFor(state);
  if (!board) return;
  const double before = ChildrenTime();
  while (state.KeepRunning()) {
    const pid_t server = board::Fork(*board);
    if (server == 0) _exit(receive());
    const Descriptor peer = Connect("192.168.40.2");
    const auto start = std::chrono::steady_clock::now();
    SendImage(peer);
    if (board::Wait(server).exit_code != 0) state.SkipWithError("the image did not arrive");
    const std::chrono::duration<double> time = std::chrono::steady_clock::now() - start;
    state.SetIterationTime(time.count());
  }
  state.counters["cpu_ms"] = (ChildrenTime() - before) / static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * int64_t{IMAGE_SIZE});
  board::Halt(*board);
}

void PlainSum(benchmark::State &state) {
  const std::vector<uint8_t> image(IMAGE_SIZE, 0x5A);
  while (state.KeepRunning()) {
    uint32_t sum = 0;
    for (size_t i = 0; i < image.size(); i += sizeof(sum)) {
      uint32_t word = 0;
      memcpy(&word, image.data() + i, sizeof(word));
      sum += word;
    }
    benchmark::DoNotOptimize(sum);
  }
  state.SetBytesProcessed(state.iterations() * int64_t{IMAGE_SIZE});
}

void Checksum(benchmark::State &state) {
  const std::vector<uint8_t> image(IMAGE_SIZE, 0x5A);
  while (state.KeepRunning())
    benchmark::DoNotOptimize(ImageChecksum(image));
  state.SetBytesProcessed(state.iterations() * int64_t{IMAGE_SIZE});
}

BENCHMARK_CAPTURE(Upload, daemon, ReceiveAsDaemon)->Name("upload")->UseManualTime();
BENCHMARK_CAPTURE(Upload, bare, ReceiveBare)->Name("upload/bare")->UseManualTime();
BENCHMARK(Checksum)->Name("checksum");
BENCHMARK(PlainSum)->Name("checksum/bare");

}  // namespace
