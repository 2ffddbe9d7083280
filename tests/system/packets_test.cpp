// The way of datagrams: what is accepted, what is dropped and traced, and the frames that go out.

#include <algorithm>
#include <fstream>
#include <random>

#include "tests/system/fixture.h"

using wire::Bytes;
using wire::Hex;
using wire::Request;

namespace {

constexpr char kStars[] = ": **************************************\r\n";
constexpr char kTooShort[] = "** recvlen < MINIMUM_PACKET\r\n";
constexpr char kBadLength[] = "** acph->header_size + acph->option_size != recvlen\r\n";

}  // namespace

using Packets = SystemTest;

TEST_F(Packets, PingFrameByteForByte) {
  StartDaemon();
  Bytes request =
      Hex("20 00 AA BB 00 00 01 00 40 80 04 00 C1 C2 C3 C4 02 0b 4a 00 00 01 ff ff ff ff ff ff "
          "D1 D2 D3 D4 01 02 03 04");
  const Bytes reply = Ask(request);
  EXPECT_EQ(reply, Hex("20 00 AA BB 07 00 01 00 40 C0 04 00 C1 C2 C3 C4 02 0b 4a 00 00 10 "
                       "02 0b 4a 00 00 01 D1 D2 D3 D4"));

  const auto frames = wire::ReplyFrames(client);
  ASSERT_EQ(frames.size(), 1U);
  const Bytes &frame = frames[0];
  ASSERT_EQ(frame.size(), 74U);
  EXPECT_EQ(Bytes(frame.begin(), frame.begin() + 18),
            Hex("ff ff ff ff ff ff 02 0b 4a 00 00 10 08 00 45 00 00 3c"));
  EXPECT_EQ(Bytes(frame.begin() + 20, frame.begin() + 24), Hex("00 00 40 11"));
  EXPECT_EQ(Bytes(frame.begin() + 26, frame.begin() + 36), Hex("c0 a8 28 02 ff ff ff ff 59 98"));
  EXPECT_EQ(Bytes(frame.begin() + 38, frame.begin() + 40), Hex("00 28"));
}

TEST_F(Packets, IdentificationsFollowEachOtherAndChecksumsHold) {
  StartDaemon();
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(Ask(Request(kDisk)).size(), 544U);
  const auto frames = wire::ReplyFrames(client);
  ASSERT_EQ(frames.size(), 3U);
  const auto id = [&](size_t n) {
    return static_cast<uint16_t>(frames[n][18] << 8 | frames[n][19]);
  };
  EXPECT_EQ(static_cast<uint16_t>(id(0) + 1), id(1));
  EXPECT_EQ(static_cast<uint16_t>(id(1) + 1), id(2));
  // The client's own stack has checked both checksums: nothing but a good datagram reaches a
  // socket.
}

TEST_F(Packets, WithoutAnAddressRepliesComeFrom1111) {
  board::Config config;
  config.interfaces[0].address = "";
  BootBoard(config);
  StartDaemon();
  EXPECT_EQ(Ask(Request(kPing)).size(), 32U);
  const auto frames = wire::ReplyFrames(client);
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_EQ(Bytes(frames[0].begin() + 26, frames[0].begin() + 30), Hex("01 01 01 01"));
}

TEST_F(Packets, ValidationTracesAllThatIsWrong) {
  StartDaemon();
  const Bytes thirty = Hex(
      "1E 00 00 00 00 00 01 00 50 80 00 00 00 00 00 00 02 0b 4a 00 00 01 ff ff ff ff ff ff 00 00");
  Bytes twenty_nine = thirty;
  twenty_nine.pop_back();
  Bytes huge = Request("20 00 00 00 07 00 01 00 50 80 2C 1D 00 00 00 00", Bytes(8000 - 32));
  const struct {
    Bytes datagram;
    std::string trace;
  } cases[] = {
      {thirty, "-- ACP_INFO\n"},
      {twenty_nine, std::string(kTooShort) + kBadLength},
      {Request("20 00 00 00 07 00 01 00 50 80 0A 00 00 00 00 00", Bytes(8)), kBadLength},
      {Request("20 00 00 00 FF FF 00 00 50 80 00 00 00 00 00 00"),
       "** packet_version(65535) < LOWEST_VERSION \r\n"},
      {Request("21 00 00 00 01 00 00 00 50 80 00 00 00 00 00 00"),
       "** packet_version(1) < LOWEST_VERSION \r\n" + std::string(kBadLength)},
      {Request("20 00 00 00 FF FF FF FF 50 80 00 00 00 00 00 00"), "-- ACP_INFO\n"},
      {Request("FF FF 00 00 07 00 01 00 50 80 21 00 00 00 00 00"), kBadLength},
      {huge, "-- ACP_INFO\n"},  // cut to 7500 bytes, which its sizes claim
      {Request("20 00 00 00 07 00 01 00 51 80 00 00 00 00 00 00"), "Capture : Unknown (8051)\r\n"},
      {Request("20 00 00 00 07 00 01 00 20 C0 00 00 00 00 00 00"), "-- ACP_DISCOVER_REPLY\r\n"},
      {Request("20 00 00 00 07 00 01 00 50 80 00 00 00 00 00 00", {}, "02 0b 4a 00 00 10"),
       "-- ACP_INFO\n"},
  };
  for (const auto &test : cases) {
    const std::string before = Trace();
    wire::Send(client, test.datagram);
    ASSERT_TRUE(board::WaitFor([&] {
      const std::string now = Trace().substr(before.size());
      return now.size() >= 2 + 8 + sizeof(kStars) - 1 + test.trace.size();
    })) << test.trace
        << Trace();
    const std::string block = Trace().substr(before.size());
    EXPECT_EQ(block.substr(0, 2), "\r\n");
    EXPECT_EQ(block.substr(10), kStars + test.trace);
  }
  EXPECT_TRUE(wire::ReplyFrames(client).empty());

  const std::string before = Trace();
  wire::Send(client, Request(kPing, {}, "02 0b 4a 00 00 77"));  // another appliance's
  ExpectAlive();
  EXPECT_EQ(Trace().substr(before.size() + 10), std::string(kStars) + "-- ACP_PING\r\n");
}

TEST_F(Packets, NoDatagramOfAnyLengthDoesHarm) {
  StartDaemon();
  const pid_t server = ServerPid();
  const auto queued = [] {
    std::ifstream table("/proc/net/udp");
    for (std::string line; std::getline(table, line);) {
      if (line.find(":5998 ") != std::string::npos) return line.find(" 00000000:00000000 ") > 99;
    }
    return true;
  };
  std::mt19937 random(22936);
  const uint8_t codes[] = {0x20, 0x30, 0x70, 0x80, 0x81, 0x90, 0xA0, 0xD0, 0xE0};
  for (size_t size = 0; size <= 9000; ++size) {
    Bytes bytes(size);
    for (uint8_t &byte : bytes)
      byte = static_cast<uint8_t>(random());
    if (size >=
        32) {  // addressed, now and then of a known command, with sizes that are right or lie
      const auto option = static_cast<uint16_t>(size - 32 + (size % 3 == 0 ? random() : 0));
      const uint8_t code = size % 40 == 0 ? codes[random() % std::size(codes)] : 0xFF;
      const Bytes head = {0x20, 0, 0, 0, 7, 0, 1, 0, code, 0x80};
      std::copy(head.begin(), head.end(), bytes.begin());
      if (size % 5 == 0) bytes[0] = static_cast<uint8_t>(random());
      bytes[10] = static_cast<uint8_t>(option);
      bytes[11] = static_cast<uint8_t>(option >> 8);
      std::fill(bytes.begin() + 22, bytes.begin() + 28, 0xFF);
    }
    wire::Send(client, bytes);
    const auto idle = [&] { return board::RunInside(board, queued).exit_code == 0; };
    ASSERT_TRUE(size % 16 != 0 || board::WaitFor(idle)) << size;
  }
  while (wire::Receive(client, std::chrono::milliseconds(100)))
    continue;
  ExpectAlive();
  EXPECT_EQ(ServerPid(), server);
  size_t seen = 0;
  const std::string trace = Trace();
  for (size_t at = trace.find(kStars); at != std::string::npos; at = trace.find(kStars, at + 1))
    ++seen;
  EXPECT_GE(seen, 9001U - 32U + 1U);  // all of them and the ping
}

TEST_F(Packets, BurstOfTwoHundredIsAnsweredWhole) {
  StartDaemon();
  for (int i = 0; i < 200; ++i)
    wire::Send(client, Request(kPing));
  int answers = 0;
  while (answers < 200 && wire::Receive(client, std::chrono::seconds(10)))
    ++answers;
  EXPECT_EQ(answers, 200);
}

TEST_F(Packets, FailedTransmissionIsLoggedAndTheNextReplyGoesOut) {
  const struct {
    const char *fail;
    const char *syslog;
  } cases[] = {
      // The server's sockets: its own, then two MAC look-ups before the packet socket.
      {"bh_servd/socket:4:EMFILE", "<29>start_server could not open socket: Too many open files "},
      {"bh_servd/setsockopt:4:EPERM",
       "<29>start_server could not set broadcast option to socket: Operation not permitted "},
      {"bh_servd/bind:2:ENODEV",
       "<29>standalone_server > could not bind sock to device No such device "},
      {"bh_servd/sendto:1:ENOBUFS", "<29>cloud not send packet: No buffer space available"},
  };
  for (const auto &test : cases) {
    ASSERT_EQ(OnBoard({"bh_servd"}, test.fail).exit_code, 0);
    ASSERT_TRUE(AwaitServers(1));
    wire::Send(client, Request(kDisk));
    EXPECT_TRUE(AwaitSyslog(test.syslog)) << test.fail << Syslog();
    EXPECT_EQ(Ask(Request(kDisk)).size(), 544U) << test.fail;
    EXPECT_EQ(OnBoard({"bh_servd", "-t", "eth0"}).exit_code, 0);
    ASSERT_TRUE(AwaitServers(0));
    board::WriteFile(board, board::kSyslog, "");
  }
}
