// Packets of every size from wire order to host order and back, beside a copy of the same bytes
// there and back, which looks at each of them once. On a processor of the wire's own order the
// conversion moves none: what remains is the search of the table, and the bounds.

#include <benchmark/benchmark.h>

#include <cstring>
#include <vector>

#include "acp/convert.h"
#include "acp/packet.h"
#include "board/client_end.h"

namespace {

// Ping, change of identity, and the replies with identity, drive, arrays and file system.
constexpr struct {
  const char *head;
  size_t body;
} PACKETS[] = {
    {"20 00 00 00 07 00 01 00 40 80 00 00 00 00 00 00", 0},
    {"20 00 00 00 07 00 01 00 30 80 70 00 00 00 00 00", sizeof(ChangeIpRequest)},
    {"20 00 00 00 07 00 01 00 20 C0 20 01 00 00 00 00", sizeof(DiscoverInfo)},
    {"20 00 00 00 07 00 01 00 90 C0 00 02 00 00 00 00", sizeof(DiskInfo)},
    {"20 00 00 00 07 00 01 00 E0 C0 E0 02 00 00 00 00", sizeof(RaidInfo)},
    {"20 00 00 00 07 00 01 00 D0 C0 5C 00 00 00 00 00", sizeof(PartitionInfo)},
};

uint8_t copy[MAX_REPLY];

void Measure(benchmark::State &state, void (*there)(wire::Bytes &), void (*back)(wire::Bytes &)) {
  std::vector<wire::Bytes> packets;
  int64_t size = 0;
  for (const auto &[head, body] : PACKETS) {
    packets.push_back(wire::Request(head, wire::Bytes(body, 0x5A)));
    size += static_cast<int64_t>(packets.back().size());
  }
  while (state.KeepRunning()) {
    for (wire::Bytes &packet : packets) {
      there(packet);
      benchmark::ClobberMemory();
      back(packet);
      benchmark::ClobberMemory();
    }
  }
  state.SetBytesProcessed(state.iterations() * 2 * size);
}

void Convert(benchmark::State &state) {
  Measure(
      state, [](wire::Bytes &packet) { SwapAcpHeader(packet, Conversion::TO_HOST); },
      [](wire::Bytes &packet) { SwapAcpHeader(packet, Conversion::TO_WIRE); });
}

void Copy(benchmark::State &state) {
  Measure(
      state, [](wire::Bytes &packet) { memcpy(copy, packet.data(), packet.size()); },
      [](wire::Bytes &packet) { memcpy(packet.data(), copy, packet.size()); });
}

BENCHMARK(Convert)->Name("conversion");
BENCHMARK(Copy)->Name("conversion/bare");

}  // namespace
