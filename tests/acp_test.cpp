// Packet conversion, bounded body readers, checksums and headers, against literal bytes.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <numeric>
#include <vector>

#include "acp/body.h"
#include "acp/convert.h"
#include "acp/frame.h"
#include "acp/reply.h"
#include "board/client_end.h"
#include "daemon/process.h"
#include "daemon/state.h"

using wire::Bytes;
using wire::Hex;
using wire::Part;
using wire::Request;

namespace {

AcpRequest RequestOf(const Bytes &bytes) {
  AcpRequest request = {};
  memset(request.packet, 0xEE, sizeof(request.packet));  // what earlier datagrams left
  memcpy(request.packet, bytes.data(), bytes.size());
  request.recvlen = static_cast<int32_t>(bytes.size());
  return request;
}

template <typename Number>
Number HostNumber(const Bytes &bytes, size_t offset) {
  Number number = 0;
  memcpy(&number, bytes.data() + offset, sizeof(number));
  return number;
}

}  // namespace

TEST(Convert, HeaderNumbersHaveTheirLeastSignificantByteFirst) {
  Bytes wire = Request("20 00 AA BB 07 00 01 00 20 C0 20 01 A1 A2 A3 A4");
  wire.resize(28);
  wire::Append(wire, 0x0A0B0C0D);
  Bytes packet = wire;
  SwapAcpHeader(packet, Conversion::TO_HOST);

  ACPHeader header = {};
  memcpy(&header, packet.data(), sizeof(header));
  EXPECT_EQ(header.header_size, 32);
  EXPECT_EQ(header.packet_version, 0x00010007U);
  EXPECT_EQ(header.command, ACP_DISCOVER_REPLY);
  EXPECT_EQ(header.option_size, 288);
  EXPECT_EQ(header.result, 0x0A0B0C0DU);
  EXPECT_EQ(Part(packet, 2, 2), Hex("AA BB"));
  EXPECT_EQ(Part(packet, 12, 16), Part(wire, 12, 16));

  SwapAcpHeader(packet, Conversion::TO_WIRE);
  EXPECT_EQ(packet, wire);
}

TEST(Convert, BodyNumbersFollowTheTable) {
  std::vector<size_t> disk_words, raid_numbers;
  for (size_t i = 0; i < 256; ++i)
    disk_words.push_back(2 * i);
  for (size_t i = 0; i < 56; ++i)
    raid_numbers.push_back(i / 7 * 92 + i % 7 * 4);
  const struct {
    uint16_t command;
    size_t body_size;
    std::vector<size_t> u16, u32;
  } cases[] = {
      {0x8020, 2, {0}, {}},
      {0xC020,
       288,
       {112, 114, 124, 126, 128, 130, 132, 134},
       {0, 4, 8, 136, 140, 144, 148, 152, 160}},
      {0x8030, 128, {0, 76, 78, 80, 82, 84, 86}, {12, 16, 20, 88, 92, 96, 100, 104, 108}},
      {0xC030, 16, {}, {}},
      {0x8080, 64, {}, {0, 4, 8, 12, 32}},
      {0x8081, 64, {}, {0, 4, 8, 12, 32}},
      {0x80A0, 32, {}, {4}},
      {0x8A10, 16, {}, {0, 4}},
      {0xCA20, 16, {}, {0, 4}},
      {0xC090, 512, disk_words, {}},
      {0xC0E0, 736, {}, raid_numbers},
      {0xC0D0, 92, {}, {0, 4, 8, 12, 16, 20, 24}},
  };
  for (const auto &test : cases) {
    Bytes body(test.body_size);
    std::iota(body.begin(), body.end(), uint8_t{1});
    const Bytes wire = Request(test.command, body);
    Bytes packet = wire, expected = wire;
    SwapAcpHeader(packet, Conversion::TO_HOST);
    if constexpr (std::endian::native == std::endian::big) {
      for (const size_t offset : test.u16)
        std::reverse(expected.data() + 32 + offset, expected.data() + 34 + offset);
      for (const size_t offset : test.u32)
        std::reverse(expected.data() + 32 + offset, expected.data() + 36 + offset);
    }
    EXPECT_EQ(Part(packet, 32), Part(expected, 32)) << std::hex << test.command;
    SwapAcpHeader(packet, Conversion::TO_WIRE);
    EXPECT_EQ(packet, wire) << std::hex << test.command;
  }
}

TEST(Convert, NothingOutsideOfThePacketIsTouched) {
  // A body cut inside its second number: the first is converted, the rest stays.
  Bytes cut = Request("20 00 00 00 07 00 01 00 80 80 40 00 00 00 00 00", Hex("01 00 00 00 02 00"));
  cut.shrink_to_fit();
  SwapAcpHeader(cut, Conversion::TO_HOST);
  EXPECT_EQ(HostNumber<uint32_t>(cut, 32), 1U);
  EXPECT_EQ(Part(cut, 36), Hex("02 00"));

  Bytes short_packet(31, 0x20);
  SwapAcpHeader(short_packet, Conversion::TO_HOST);
  EXPECT_EQ(short_packet, Bytes(31, 0x20));
}

TEST(Body, ReadersStopAtTheReceivedBytes) {
  const Bytes body = Hex("01 02 03 04 41 42 00 43 44 45");
  AcpRequest request = RequestOf(Request("20 00 00 00 07 00 01 00 D0 80 0A 00 00 00 00 00", body));
  SwapAcpHeader(request.packet, Conversion::TO_HOST);
  const auto span = RequestBody(request);
  ASSERT_EQ(span.size(), 10U);

  EXPECT_EQ(BodyText(span, 4), "AB");
  EXPECT_EQ(BodyText(span, 7), "CDE");  // no NUL: up to the end, not into the leftovers
  EXPECT_EQ(BodyText(span, 10), "");
  EXPECT_EQ(BodyText(span, SIZE_MAX), "");
  EXPECT_EQ(BodyU32(span, 0), HostNumber<uint32_t>(body, 0));
  EXPECT_EQ(BodyU16(span, 8), HostNumber<uint16_t>(body, 8));
  for (const size_t offset : {size_t{7}, size_t{9}, size_t{10}, SIZE_MAX - 1}) {
    EXPECT_EQ(BodyU32(span, offset), 0U) << offset;
  }
  EXPECT_EQ(BodyU16(span, 9), 0);
}

TEST(Body, IsEmptyWithoutBytesOrBehindAnotherHeaderSize) {
  AcpRequest bare = RequestOf(Request("20 00 00 00 07 00 01 00 D0 80 00 00 00 00 00 00"));
  SwapAcpHeader(bare.packet, Conversion::TO_HOST);
  EXPECT_TRUE(RequestBody(bare).empty());
  bare.recvlen = 30;
  EXPECT_TRUE(RequestBody(bare).empty());

  AcpRequest odd = RequestOf(Request("22 00 00 00 07 00 01 00 D0 80 08 00 00 00 00 00",
                                     Hex("00 00 2F 74 6D 70 00 00 00 00")));
  SwapAcpHeader(odd.packet, Conversion::TO_HOST);
  EXPECT_TRUE(RequestBody(odd).empty());
}

TEST(Frame, HeadersOfAnOddPayloadAndOfAZeroChecksum) {
  const struct {
    const char *payload;
    uint16_t ip_id;
    const char *headers;
  } cases[] = {
      {"41 42 43 44 45", 0xFFFF,
       "45 00 00 21 ff ff 00 00 40 11 92 22 c0 a8 28 02 ff ff ff ff 59 98 9c 40 00 0d 57 ca"},
      {"21 57", 0,
       "45 00 00 1e 00 00 00 00 40 11 92 25 c0 a8 28 02 ff ff ff ff 59 98 9c 40 00 0a ff ff"},
  };
  for (const auto &test : cases) {
    Bytes packet(28, 0xEE);
    wire::Append(packet, Hex(test.payload));
    const uint16_t total =
        MakeIpUdpHeader(packet.data(), inet_addr("192.168.40.2"), 0xFFFFFFFF, htons(22936),
                        htons(40000), static_cast<uint16_t>(packet.size() - 28), test.ip_id);
    EXPECT_EQ(total, packet.size());
    EXPECT_EQ(Part(packet, 0, 28), Hex(test.headers));
  }
}

TEST(SendPacket, RefusesWhatDoesNotFitAFrame) {
  const uint8_t payload[1] = {};
  const uint8_t mac[6] = {};
  daemon_state.ifname = "eth0";
  EXPECT_EQ(SendPacket(-1, 0, payload, 0, 0xFFFFFFFF, mac), -1);
  EXPECT_EQ(SendPacket(-1, 0, payload, 7479, 0xFFFFFFFF, mac), -1);
  const Bytes largest(7478);  // over the wire's own limit: logged, not a failure of the call
  EXPECT_EQ(SendPacket(-1, 0, largest.data(), largest.size(), 0xFFFFFFFF, mac), 0);
}

TEST(SendPacket, IsAddressedByTheArpTable) {
  ASSERT_EQ(RunCommandLine("ip neigh add 192.168.40.77 lladdr 02:0b:4a:00:00:77 dev eth0 &&"
                           "ip neigh add 192.168.40.79 lladdr 02:0b:4a:00:00:79 dev eth0 &&"
                           "ip neigh change 192.168.40.79 dev eth0 nud incomplete"),
            0);
  const struct {
    const char *address;
    const char *mac;
  } cases[] = {
      {"192.168.40.77", "02 0b 4a 00 00 77"},
      {"192.168.40.78", "ff ff ff ff ff ff"},  // it has none
      {"192.168.40.79", "ff ff ff ff ff ff"},  // once known, asked for again, not answered yet
  };
  const uint8_t payload[1] = {};
  const uint8_t own_mac[6] = {};
  daemon_state.ifname = "eth0";
  wire::Client client = wire::Open("eth0");
  for (const auto &test : cases) {
    SCOPED_TRACE(test.address);
    client.frames.clear();
    EXPECT_EQ(SendPacket(-1, htons(client.port), payload, 1, inet_addr(test.address), own_mac), 0);
    const auto frames = wire::ReplyFrames(client);
    ASSERT_EQ(frames.size(), 1U);
    EXPECT_EQ(Part(frames[0], 0, 6), Hex(test.mac));
  }
  wire::Close(client);
}
