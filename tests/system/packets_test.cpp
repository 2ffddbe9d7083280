// The way of datagrams: what is accepted, what is dropped and traced, and the frames that go out.

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "tests/system/fixture.h"

using wire::Bytes;
using wire::Hex;
using wire::Part;
using wire::Request;

namespace {

constexpr char STARS[] = ": **************************************\r\n";
constexpr char TOO_SHORT[] = "** recvlen < MINIMUM_PACKET\r\n";
constexpr char BAD_LENGTH[] = "** acph->header_size + acph->option_size != recvlen\r\n";
constexpr uint16_t INFO = 0x8050, FIRMWARE_END = 0x8070;

// What the kernel makes of a wish for 256 KiB.
int GrantedQueue() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  int size = 256 * 1024;
  socklen_t length = sizeof(size);
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, length);
  getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, &length);
  close(fd);
  return size;
}

}  // namespace

using Packets = SystemTest;

// The client's own stack has checked both checksums: nothing but a good datagram reaches a socket.
TEST_F(Packets, WithoutAnAddressRepliesAreBroadcastFrom1111) {
  board::Config config;
  config.interfaces[0].address = "";
  BootBoard(config);
  StartDaemon();
  ExpectAlive();
  const auto frames = wire::ReplyFrames(client);
  ASSERT_EQ(frames.size(), 1U);
  EXPECT_EQ(Part(frames[0], 0, 14), Hex("ff ff ff ff ff ff 02 0b 4a 00 00 10 08 00"));
  EXPECT_EQ(Part(frames[0], 26, 10), Hex("01 01 01 01 ff ff ff ff 59 98"));
}

TEST_F(Packets, ValidationTracesAllThatIsWrong) {
  StartDaemon();
  const Bytes thirty = Hex(
      "1E 00 00 00 00 00 01 00 50 80 00 00 00 00 00 00 02 0b 4a 00 00 01 ff ff ff ff ff ff 00 00");
  struct Row {
    Bytes datagram;
    std::string trace;
  };
  const Row rows[] = {
      {thirty, "-- ACP_INFO\n"},
      {Part(thirty, 0, 29), std::string(TOO_SHORT) + BAD_LENGTH},
      {Part(thirty, 0, 27), std::string(TOO_SHORT) + BAD_LENGTH},
      {Part(thirty, 0, 12), std::string(TOO_SHORT) + BAD_LENGTH},
      {Request("20 00 00 00 07 00 01 00 50 80 0A 00 00 00 00 00", Bytes(8)), BAD_LENGTH},
      {Request("20 00 00 00 FF FF 00 00 50 80 00 00 00 00 00 00"),
       "** packet_version(65535) < LOWEST_VERSION \r\n"},
      {Request("21 00 00 00 01 00 00 00 50 80 00 00 00 00 00 00"),
       "** packet_version(1) < LOWEST_VERSION \r\n" + std::string(BAD_LENGTH)},
      {Request("20 00 00 00 FF FF FF FF 50 80 00 00 00 00 00 00"), "-- ACP_INFO\n"},
      {Request("FF FF 00 00 07 00 01 00 50 80 21 00 00 00 00 00"), BAD_LENGTH},
      {Request("20 00 00 00 07 00 01 00 50 80 2C 1D 00 00 00 00", Bytes(8000 - 32)),
       "-- ACP_INFO\n"},  // cut to 7500 bytes, which its sizes claim
      {Request(0x8051), "Capture : Unknown (8051)\r\n"},
      {Request(0xC020), "-- ACP_DISCOVER_REPLY\r\n"},
      {Request(0x8050, {}, "02 0b 4a 00 00 10"), "-- ACP_INFO\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.datagram));
    const size_t before = Trace().size();
    const std::string wanted = STARS + row.trace;
    wire::Send(client, row.datagram);
    EXPECT_TRUE(board::WaitFor([&] { return Trace().size() >= before + 10 + wanted.size(); }));
    const std::string block = Trace().substr(before);
    EXPECT_EQ(block.substr(0, 2), "\r\n");
    EXPECT_EQ(block.substr(10), wanted);
  }
  // Of these even the numbers are the last datagram's, which a big-endian processor has turned.
  for (const size_t length : {11U, 1U, 0U}) {
    const size_t before = Trace().size();
    wire::Send(client, Part(thirty, 0, length));
    EXPECT_TRUE(board::WaitFor([&] {
      return Trace().find(TOO_SHORT, before) != std::string::npos;
    })) << length;
  }
  EXPECT_TRUE(wire::ReplyFrames(client).empty());

  ExpectAlive();
  const std::string before = Trace();
  wire::Send(client, Request(PING, {}, "02 0b 4a 00 00 77"));  // another appliance's
  ExpectAlive();
  EXPECT_EQ(Trace().substr(before.size() + 10), std::string(STARS) + "-- ACP_PING\r\n");
}

TEST_F(Packets, HeaderBytesThatHaveNotComeAreZero) {
  StartDaemon();
  Bytes whole = Request(INFO);
  std::fill_n(whole.begin() + 28, 4, uint8_t{0x77});
  wire::Send(client, whole);
  Bytes end = Part(Request(FIRMWARE_END), 0, 30);  // half of its result is missing
  end[0] = 30;
  EXPECT_EQ(Part(Ask(end), 28, 4), Hex("00 00 00 00"));  // a result other than 0 is refused
}

// What comes while the server is held waits in its queue, which is as large as the kernel makes one
// of 256 KiB on this machine. If its limits make every queue that large, a server that asks for
// nothing passes too.
TEST_F(Packets, BurstWaitsInAQueueAsLargeAsIsAskedFor) {
  StartDaemon();
  ASSERT_TRUE(board::Kill(board, ServerPid(), SIGSTOP));
  for (int i = 0; i < 200; ++i)
    wire::Send(client, Request(PING));
  EXPECT_TRUE(board::WaitFor([&] {
    for (int i = 0; i < 50; ++i)
      wire::Send(client, Request(INFO));
    return board::ServiceSockets(board).at(0).drops > 0;
  }));
  constexpr int DATAGRAM = 4096;  // one more or less, with what the kernel adds to it
  EXPECT_NEAR(board::ServiceSockets(board).at(0).waiting, GrantedQueue(), DATAGRAM);

  ASSERT_TRUE(board::Kill(board, ServerPid(), SIGCONT));
  int answers = 0;
  while (answers < 200 && wire::Receive(client, std::chrono::seconds(10)))
    ++answers;
  EXPECT_EQ(answers, 200);
}
