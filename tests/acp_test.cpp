// Packet conversion, bounded body readers, checksums and headers, against literal bytes.

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "acp/body.h"
#include "acp/convert.h"
#include "acp/frame.h"
#include "acp/reply.h"
#include "daemon/state.h"
#include "tests/system/wire.h"

using wire::Bytes;
using wire::Hex;

namespace {

AcpRequest RequestOf(const Bytes &bytes) {
  AcpRequest request = {};
  memset(request.packet, 0xEE, sizeof(request.packet));  // what earlier datagrams left
  memcpy(request.packet, bytes.data(), bytes.size());
  request.recvlen = static_cast<int32_t>(bytes.size());
  return request;
}

// A header in wire order with MACs of 0x11 and 0x22, result 0x0A0B0C0D, and `body`.
Bytes Packet(std::string_view head, const Bytes &body) {
  Bytes bytes = Hex(head);
  for (const char *part : {"11 11 11 11 11 11", "22 22 22 22 22 22", "0D 0C 0B 0A"}) {
    const Bytes more = Hex(part);
    bytes.insert(bytes.end(), more.begin(), more.end());
  }
  bytes.insert(bytes.end(), body.begin(), body.end());
  return bytes;
}

template <typename Number>
Number HostNumber(const Bytes &bytes, size_t offset) {
  Number number = 0;
  memcpy(&number, bytes.data() + offset, sizeof(number));
  return number;
}

}  // namespace

TEST(Convert, HeaderNumbersHaveTheirLeastSignificantByteFirst) {
  const Bytes wire = Packet("20 00 AA BB 07 00 01 00 20 C0 20 01 A1 A2 A3 A4", {});
  Bytes packet = wire;
  SwapAcpHeader(packet, Conversion::kToHost);

  ACPHeader header = {};
  memcpy(&header, packet.data(), sizeof(header));
  EXPECT_EQ(header.header_size, 32);
  EXPECT_EQ(header.packet_version, 0x00010007U);
  EXPECT_EQ(header.command, ACP_DISCOVER_REPLY);
  EXPECT_EQ(header.option_size, 288);
  EXPECT_EQ(header.result, 0x0A0B0C0DU);
  EXPECT_EQ(Bytes(packet.begin() + 2, packet.begin() + 4), Hex("AA BB"));
  EXPECT_EQ(Bytes(packet.begin() + 12, packet.begin() + 28),
            Bytes(wire.begin() + 12, wire.begin() + 28));

  SwapAcpHeader(packet, Conversion::kToWire);
  EXPECT_EQ(packet, wire);
}

TEST(Convert, BodyNumbersFollowTheTable) {
  std::vector<size_t> disk_words, raid_numbers;
  for (size_t i = 0; i < 256; ++i)
    disk_words.push_back(2 * i);
  for (size_t i = 0; i < 56; ++i)
    raid_numbers.push_back(i / 7 * 92 + i % 7 * 4);
  const struct {
    const char *head;
    size_t body_size;
    std::vector<size_t> u16, u32;
  } cases[] = {
      {"20 00 00 00 07 00 01 00 20 80 02 00 00 00 00 00", 2, {0}, {}},
      {"20 00 00 00 07 00 01 00 20 C0 20 01 00 00 00 00",
       288,
       {112, 114, 124, 126, 128, 130, 132, 134},
       {0, 4, 8, 136, 140, 144, 148, 152, 160}},
      {"20 00 00 00 07 00 01 00 30 80 80 00 00 00 00 00",
       128,
       {0, 76, 78, 80, 82, 84, 86},
       {12, 16, 20, 88, 92, 96, 100, 104, 108}},
      {"20 00 00 00 07 00 01 00 30 C0 10 00 00 00 00 00", 16, {}, {}},
      {"20 00 00 00 07 00 01 00 80 80 40 00 00 00 00 00", 64, {}, {0, 4, 8, 12, 32}},
      {"20 00 00 00 07 00 01 00 81 80 40 00 00 00 00 00", 64, {}, {0, 4, 8, 12, 32}},
      {"20 00 00 00 07 00 01 00 A0 80 20 00 00 00 00 00", 32, {}, {4}},
      {"20 00 00 00 07 00 01 00 10 8A 10 00 00 00 00 00", 16, {}, {0, 4}},
      {"20 00 00 00 07 00 01 00 20 CA 10 00 00 00 00 00", 16, {}, {0, 4}},
      {"20 00 00 00 07 00 01 00 90 C0 00 02 00 00 00 00", 512, disk_words, {}},
      {"20 00 00 00 07 00 01 00 E0 C0 E0 02 00 00 00 00", 736, {}, raid_numbers},
      {"20 00 00 00 07 00 01 00 D0 C0 5C 00 00 00 00 00", 92, {}, {0, 4, 8, 12, 16, 20, 24}},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.head);
    Bytes body(test.body_size);
    for (size_t i = 0; i < body.size(); ++i)
      body[i] = static_cast<uint8_t>(i * 7 + 1);
    const Bytes wire = Packet(test.head, body);
    Bytes packet = wire;
    SwapAcpHeader(packet, Conversion::kToHost);

    Bytes expected = packet;  // bytes that the table does not name stay as they were on the wire
    std::copy(body.begin(), body.end(), expected.begin() + 32);
    for (const size_t offset : test.u16) {
      const uint8_t *field = body.data() + offset;
      const auto number = static_cast<uint16_t>(field[0] | field[1] << 8);
      memcpy(expected.data() + 32 + offset, &number, sizeof(number));
    }
    for (const size_t offset : test.u32) {
      const uint32_t number = wire::Number(body, offset);
      memcpy(expected.data() + 32 + offset, &number, sizeof(number));
    }
    EXPECT_EQ(packet, expected);
    SwapAcpHeader(packet, Conversion::kToWire);
    EXPECT_EQ(packet, wire);
  }
}

TEST(Convert, NothingOutsideOfThePacketIsTouched) {
  // A body cut inside its second number: the first is converted, the rest stays.
  Bytes cut = Packet("20 00 00 00 07 00 01 00 80 80 40 00 00 00 00 00", Hex("01 00 00 00 02 00"));
  cut.shrink_to_fit();
  SwapAcpHeader(cut, Conversion::kToHost);
  EXPECT_EQ(HostNumber<uint32_t>(cut, 32), 1U);
  EXPECT_EQ(Bytes(cut.end() - 2, cut.end()), Hex("02 00"));

  Bytes short_packet(31, 0x20);
  SwapAcpHeader(short_packet, Conversion::kToHost);
  EXPECT_EQ(short_packet, Bytes(31, 0x20));
}

TEST(Body, ReadersStopAtTheReceivedBytes) {
  const Bytes body = Hex("01 02 03 04 41 42 00 43 44 45");
  AcpRequest request = RequestOf(Packet("20 00 00 00 07 00 01 00 D0 80 0A 00 00 00 00 00", body));
  SwapAcpHeader(request.packet, Conversion::kToHost);
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
  AcpRequest bare = RequestOf(Packet("20 00 00 00 07 00 01 00 D0 80 00 00 00 00 00 00", {}));
  SwapAcpHeader(bare.packet, Conversion::kToHost);
  EXPECT_TRUE(RequestBody(bare).empty());
  bare.recvlen = 30;
  EXPECT_TRUE(RequestBody(bare).empty());

  AcpRequest odd = RequestOf(Packet("22 00 00 00 07 00 01 00 D0 80 08 00 00 00 00 00",
                                    Hex("00 00 2F 74 6D 70 00 00 00 00")));
  SwapAcpHeader(odd.packet, Conversion::kToHost);
  EXPECT_TRUE(RequestBody(odd).empty());
}

TEST(Frame, HeadersOfAnOddPayloadAndOfAZeroChecksum) {
  const struct {
    const char *payload;
    uint16_t ip_id;
    const char *headers;
    uint16_t next_id;
  } cases[] = {
      {"41 42 43 44 45", 0xFFFF,
       "45 00 00 21 ff ff 00 00 40 11 92 22 c0 a8 28 02 ff ff ff ff 59 98 9c 40 00 0d 57 ca", 0},
      {"21 57", 0,
       "45 00 00 1e 00 00 00 00 40 11 92 25 c0 a8 28 02 ff ff ff ff 59 98 9c 40 00 0a ff ff", 1},
  };
  for (const auto &test : cases) {
    Bytes packet(28, 0xEE);
    const Bytes payload = Hex(test.payload);
    packet.insert(packet.end(), payload.begin(), payload.end());
    daemon_state.ip_id = test.ip_id;
    const uint16_t total =
        MakeIpUdpHeader(packet.data(), inet_addr("192.168.40.2"), 0xFFFFFFFF, htons(22936),
                        htons(40000), static_cast<uint16_t>(payload.size()));
    EXPECT_EQ(total, packet.size());
    EXPECT_EQ(Bytes(packet.begin(), packet.begin() + 28), Hex(test.headers));
    EXPECT_EQ(daemon_state.ip_id, test.next_id);
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

TEST(EnabledClient, IsTheOneThatEnabledCommandMode) {
  AcpRequest request = RequestOf(Packet("20 00 00 00 07 00 01 00 A0 80 00 00 00 00 00 00", {}));
  memset(daemon_state.enable_mac, 0x11, 6);
  daemon_state.enable_state = -1;
  EXPECT_EQ(CheckEnabledClient(request), -1);
  daemon_state.enable_state = 0;
  EXPECT_EQ(CheckEnabledClient(request), 0);
  request.packet[21] = 0x12;
  EXPECT_EQ(CheckEnabledClient(request), -1);
}
