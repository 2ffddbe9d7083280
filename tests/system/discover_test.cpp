// Discovery over the wire: the whole reply, what it becomes when its sources change or are gone,
// and a network of appliances.

#include <algorithm>

#include "tests/system/fixture.h"

using wire::Bytes;
using wire::Hex;

namespace {

void Put(Bytes &bytes, size_t offset, const Bytes &part) {
  std::copy(part.begin(), part.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
}

Bytes Text(const std::string &text) {
  return {text.begin(), text.end()};
}

Bytes Part(const Bytes &reply, size_t offset, size_t length) {
  const auto start = reply.begin() + static_cast<std::ptrdiff_t>(offset);
  return {start, start + static_cast<std::ptrdiff_t>(length)};
}

}  // namespace

class Discover : public SystemTest {
 protected:
  Bytes AskDiscover() {
    Bytes reply = Ask(wire::Request(kDiscover));
    EXPECT_EQ(reply.size(), 320U);
    reply.resize(320);
    return reply;
  }

  void Shell(const std::string &script) {
    EXPECT_EQ(OnBoard({"/bin/sh", "-c", script}).exit_code, 0) << script;
  }
};

TEST_F(Discover, ReplyHoldsTheWholeIdentity) {
  BootBoard({.host_name = "abcdefghijklmnopqrst", .product_id = "0x2001"});
  StartDaemon();
  Shell("echo 'VERSION=1.10\nSUBVERSION=release\nBUILDDATE=2006/04/01' > /etc/brackenhold_release");
  Shell(
      "echo 'VERSION=2.37\nSUBVERSION=1234567890123456789012345678901234\n"
      "BUILDDATE=\"2006/03/14 10:22:41 plus\"\nPRODUCTNAME=QBX' > /proc/brackenhold");
  Shell("echo type=sleep > /etc/korvo/timer_status; echo INITIALIZE=1 > /etc/bh_servd.log");
  Shell("touch /var/run/dhcpd.pid /var/run/dhcpcd-eth0.pid");
  Shell(
      "ip route add default via 192.168.40.7 metric 1; ip route add default via 192.168.40.9 "
      "metric 2; date -s @1149999990");
  Bytes expected(320);
  Put(expected, 0, Hex("20 00 00 00 07 00 01 00 20 C0 20 01 00 00 00 00"));
  Put(expected, 16, Hex("02 0b 4a 00 00 10 02 0b 4a 00 00 01 00 00 00 00"));
  Put(expected, 32, Hex("02 28 a8 c0 00 ff ff ff 56 00 00 00"));
  Put(expected, 48, Text("abcdefghijklmnopWORKGROUP"));
  Put(expected, 80, Text("QBX"));
  Put(expected, 144, Hex("00 00 25 02"));
  Put(expected, 156, Hex("d6 07 06 00 0b 00 04 00 1a 00"));
  Put(expected, 168, Hex("09 28 a8 c0"));
  Put(expected, 188, Hex("01 0a 00 00 01 20 00 00"));
  Put(expected, 196, Text("2006/04/01"));
  Put(expected, 220, Text("release"));
  Put(expected, 252, Hex("02 25 01"));
  Put(expected, 255, Text("1234567890123456789012345678901"));
  Put(expected, 287, Text("2006/03/14 10:22:41 plus"));
  Put(expected, 311, Hex("02 0b 4a 00 00 10"));

  Bytes reply = AskDiscover();
  const Bytes key = Part(reply, 44, 4);
  EXPECT_LT(key[0], 0x80);  // keys have 31 bits, and the most significant byte comes first
  EXPECT_NE(key, Bytes(4));
  EXPECT_TRUE(reply[166] >= 30 && reply[166] < 59) << int{reply[166]};  // the second goes on
  Put(reply, 44, Bytes(4));
  reply[166] = 0;
  EXPECT_EQ(reply, expected);
  EXPECT_EQ(Part(AskDiscover(), 44, 4), key);

  const std::string trace = Trace();
  const size_t start =
      trace.find(": -------------------------------------- -> ACP_Discover_Reply\r\n");
  ASSERT_NE(start, std::string::npos) << trace;
  EXPECT_NE(trace.find("  gateway = 0x", start), std::string::npos);
  EXPECT_NE(trace.find("  gateway = 0x", trace.find("  gateway = 0x", start) + 1),
            std::string::npos);
}

TEST_F(Discover, ReplyFollowsItsSourcesAndOutlivesThem) {
  BootBoard({.product_id = "0x0007"});
  StartDaemon();
  const struct {
    const char *change;
    size_t offset;
    Bytes bytes;
  } cases[] = {
      // each upon those before
      {"echo 'INITIALIZE=\"10\"' > /etc/bh_servd.log", 40, Hex("00 00 00 00")},
      {"echo type=backup > /etc/korvo/timer_status", 40, Hex("80 00 00 00")},
      {": > /etc/korvo/timer_status; rm /etc/bh_servd.log; mkdir /etc/bh_servd.log", 40,
       Hex("80 00 00 00")},
      {"rm /etc/brackenhold_release", 188, Hex("02 25 00 00 07 00 00 00")},  // the system's
      {"true", 196, Text("2006/03/14 10:22:41")},
      {"true", 220, Text("1.04")},
      {"touch /etc/brackenhold_emergence", 188, Hex("07 00 00 00 07 00 00 00")},
      {"true", 196, Text("0000/0/0 0:00:00")},
      {"true", 220, Bytes(Hex("48 44 44 20 30 2e 30 00"))},
      {"true", 254, Hex("02")},
      {"head -c 100000 /dev/urandom > /proc/brackenhold", 80,
       Text(std::string("Brackenhold\0", 12))},
      {"rm /etc/samba/smb.conf; ln -sf /none /etc/samba/smb.conf", 64, Bytes(16)},
      {"mv /bin/hostname /tmp", 48, Bytes(16)},
      {"rm -f /etc/localtime /etc/network/interfaces", 168, Bytes(4)},
      {"ip address flush dev eth0", 32, Bytes(8)},
  };
  for (const auto &test : cases) {
    Shell(test.change);
    const Bytes reply = AskDiscover();
    EXPECT_EQ(Part(reply, test.offset, test.bytes.size()), test.bytes) << test.change;
  }
  Bytes with_body =
      wire::Request("20 00 00 00 07 00 01 00 20 80 03 00 00 00 00 00", Hex("ff ff ff"));
  EXPECT_EQ(Ask(with_body).size(), 320U);
}

TEST(DiscoverNetwork, FindsEveryApplianceWithOneBroadcast) {
  std::string why;
  std::vector<board::Board> boards = board::BootAll(board::Network(32), &why);
  ASSERT_EQ(boards.size(), 32U) << why;
  for (const board::Board &each : boards)
    board::Spawn(each, {.argv = {"sh", "-c", "exec bh_servd --nofork > /dev/null"}});
  const auto find = [] {
    FILE *output = popen(BHCTL_PATH " -i bridge0 --timeout 1 --json discover 2>/dev/null", "re");
    std::vector<std::string> found;
    char line[2048];
    while (output != nullptr && fgets(line, sizeof(line), output) != nullptr)
      found.emplace_back(line, 26);  // {"mac":"02:0b:4a:00:00:10" of a list sorted by address
    if (output != nullptr) pclose(output);
    return found;
  };
  EXPECT_TRUE(board::WaitFor([&] { return find().size() == 32; }, std::chrono::seconds(20)));
  const std::vector<std::string> found = find();
  for (size_t i = 0; i < found.size(); ++i)
    EXPECT_EQ(found[i], "{\"mac\":\"" + boards[i].config.interfaces[0].mac + "\"");
  board::HaltAll(boards);
}
