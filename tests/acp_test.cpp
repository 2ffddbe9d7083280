// What the system's tests cannot see of packets: sizes at their limits, and where replies go.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <numeric>
#include <vector>

#include "acp/convert.h"
#include "acp/frame.h"
#include "acp/reply.h"
#include "board/client_end.h"
#include "daemon/process.h"
#include "daemon/state.h"

using wire::Bytes;
using wire::Hex;

std::vector<size_t> Steps(size_t count, size_t step, size_t first = 0) {
  std::vector<size_t> offsets(count);
  for (size_t i = 0; i < count; ++i)
    offsets[i] = first + i * step;
  return offsets;
}

// Numbers of a body have their least significant byte first on the wire, and no other byte moves. A
// processor of that order has nothing to do.
TEST(Convert, BodyNumbersFollowTheTable) {
  std::vector<size_t> raid_numbers;
  for (size_t entry = 0; entry < 8; ++entry) {
    for (const size_t offset : Steps(7, 4, 92 * entry))
      raid_numbers.push_back(offset);
  }
  const struct {
    uint16_t command;
    std::vector<size_t> two_bytes;
    std::vector<size_t> four_bytes;
  } cases[] = {
      {ACP_DISCOVER, {0}, {}},
      {ACP_DISCOVER_REPLY,
       {112, 114, 124, 126, 128, 130, 132, 134},
       {0, 4, 8, 136, 140, 144, 148, 152, 160}},
      {ACP_CHANGE_IP, {0, 76, 78, 80, 82, 84, 86}, {12, 16, 20, 88, 92, 96, 100, 104, 108}},
      {ACP_CHANGE_IP_REPLY, {}, {}},
      {ACP_FIRMUP2, {}, {0, 4, 8, 12, 32}},
      {ACP_FIRMUP3, {}, {0, 4, 8, 12, 32}},
      {ACP_SPECIAL, {}, {4}},
      {ACP_CMD, {}, {0, 4}},
      {ACP_RESULT_REPLY, {}, {0, 4}},
      {ACP_INFO_HDD_REPLY, Steps(256, 2), {}},
      {ACP_INFO_RAID_REPLY, {}, raid_numbers},
      {ACP_PART_REPLY, {}, Steps(7, 4)},
  };
  for (const auto &each : cases) {
    Bytes body(800);
    std::iota(body.begin(), body.end(), uint8_t{1});
    const Bytes wire = wire::Request(each.command, body);
    Bytes packet = wire;
    SwapAcpHeader(packet, Conversion::TO_HOST);
    if constexpr (std::endian::native == std::endian::big) {
      for (const size_t offset : each.two_bytes)
        std::reverse(body.data() + offset, body.data() + offset + 2);
      for (const size_t offset : each.four_bytes)
        std::reverse(body.data() + offset, body.data() + offset + 4);
    }
    EXPECT_EQ(wire::Part(packet, ACP_HEADER_SIZE), body) << std::hex << each.command;
    SwapAcpHeader(packet, Conversion::TO_WIRE);
    EXPECT_EQ(packet, wire) << std::hex << each.command;
  }
}

// The bytes end where the packet does, for the sanitizer to see.
TEST(Convert, NothingOutsideOfThePacketIsTouched) {
  const Bytes whole = wire::Request(0x8080, Bytes(36));
  for (const size_t size : {31U, 33U, 38U, 67U}) {
    Bytes packet = wire::Part(whole, 0, size);
    SwapAcpHeader(packet, Conversion::TO_HOST);
    SwapAcpHeader(packet, Conversion::TO_WIRE);
    EXPECT_EQ(packet, wire::Part(whole, 0, size));
  }
}

TEST(Frame, HeadersOfAnOddPayloadAndOfAZeroChecksum) {
  const struct {
    const char *name;
    const char *payload;
    const char *headers;
  } cases[] = {
      {"odd payload", "41 42 43 44 45",
       "45 00 00 21 ff ff 00 00 40 11 92 22 c0 a8 28 02 ff ff ff ff 59 98 9c 40 00 0d 57 ca"},
      {"checksum of zero", "21 57",
       "45 00 00 1e ff ff 00 00 40 11 92 25 c0 a8 28 02 ff ff ff ff 59 98 9c 40 00 0a ff ff"},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    Bytes packet(28, 0xEE);
    wire::Append(packet, Hex(test.payload));
    const uint16_t total =
        MakeIpUdpHeader(packet.data(), inet_addr("192.168.40.2"), 0xFFFFFFFF, htons(22936),
                        htons(40000), static_cast<uint16_t>(packet.size() - 28), 0xFFFF);
    EXPECT_EQ(total, packet.size());
    EXPECT_EQ(wire::Part(packet, 0, 28), Hex(test.headers));
  }
}

TEST(SendPacket, RefusesWhatDoesNotFitAFrame) {
  const Bytes payload(7479);
  const uint8_t mac[6] = {};
  daemon_state.ifname = "eth0";
  EXPECT_EQ(SendPacket(-1, 0, payload.data(), 0, 0xFFFFFFFF, mac), -1);
  EXPECT_EQ(SendPacket(-1, 0, payload.data(), 7479, 0xFFFFFFFF, mac), -1);
  EXPECT_EQ(SendPacket(-1, 0, payload.data(), 7478, 0xFFFFFFFF, mac), 0) << "which is only logged";
}

TEST(SendPacket, IsAddressedByTheArpTable) {
  ASSERT_EQ(RunCommandLine("ip neigh add 192.168.40.77 lladdr 02:0b:4a:00:00:77 dev eth0 &&"
                           "ip neigh add 192.168.40.79 lladdr 02:0b:4a:00:00:79 dev eth0 &&"
                           "ip neigh change 192.168.40.79 dev eth0 nud incomplete"),
            0);
  const struct {
    const char *name;
    const char *address;
    const char *mac;
  } cases[] = {
      {"known", "192.168.40.77", "02 0b 4a 00 00 77"},
      {"unknown", "192.168.40.78", "ff ff ff ff ff ff"},
      {"known once, but no longer", "192.168.40.79", "ff ff ff ff ff ff"},
  };
  const uint8_t payload[1] = {};
  const uint8_t own_mac[6] = {};
  daemon_state.ifname = "eth0";
  wire::Client client = wire::Open("eth0");
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    client.frames.clear();
    EXPECT_EQ(SendPacket(-1, htons(client.port), payload, 1, inet_addr(test.address), own_mac), 0);
    const auto frames = wire::ReplyFrames(client);
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(wire::Part(frames[0], 0, 6), Hex(test.mac));
  }
  wire::Close(client);
}
