// Discovery over the wire: the whole reply, what it becomes when its sources change or are gone,
// and a network of appliances.

#include <net/if.h>

#include <algorithm>
#include <tuple>

#include "tests/system/fixture.h"

using wire::Bytes;
using wire::Hex;
using wire::Part;
using wire::Text;

class Discover : public SystemTest {
 protected:
  Bytes AskDiscover() {
    Bytes reply = Ask(wire::Request(DISCOVER));
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
  Bytes expected = Hex("20 00 00 00 07 00 01 00 20 C0 20 01 00 00 00 00");
  for (const Bytes &part :
       {Hex("02 0b 4a 00 00 10 02 0b 4a 00 00 01 00 00 00 00"), Hex("02 28 a8 c0 00 ff ff ff"),
        Hex("56 00 00 00 00 00 00 00"), Text("abcdefghijklmnop"), Text("WORKGROUP", 16),
        Text("QBX", 64), Hex("00 00 25 02 00 00 00 00 00 00 00 00"),
        Hex("d6 07 06 00 0b 00 04 00 1a 00 00 00"), Hex("09 28 a8 c0"), Bytes(16),
        Hex("01 0a 00 00 01 20 00 00"), Text("2006/04/01", 24), Text("release", 32),
        Hex("02 25 01"), Text("1234567890123456789012345678901", 32),
        Text("2006/03/14 10:22:41 plus"), Hex("02 0b 4a 00 00 10 00 00 00")})
    wire::Append(expected, part);

  Bytes reply = AskDiscover();
  const Bytes key = Part(reply, 44, 4);
  EXPECT_LT(key[0], 0x80);  // keys have 31 bits, and the most significant byte comes first
  EXPECT_NE(key, Bytes(4));
  EXPECT_TRUE(reply[166] >= 30 && reply[166] < 59) << int{reply[166]};  // the second goes on
  std::fill_n(reply.begin() + 44, 4, uint8_t{0});
  reply[166] = 0;
  EXPECT_EQ(reply, expected);
  EXPECT_EQ(Part(AskDiscover(), 44, 4), key);

  const std::string trace = Trace();
  const size_t gateway = trace.find("  gateway = 0x", trace.find("- -> ACP_Discover_Reply\r\n"));
  ASSERT_NE(gateway, std::string::npos) << trace;
  EXPECT_NE(trace.find("  gateway = 0x", gateway + 1), std::string::npos);
}

TEST_F(Discover, ReplyFollowsItsSourcesAndOutlivesThem) {
  BootBoard({.product_id = "0x0007"});
  StartDaemon();
  const std::tuple<const char *, size_t, Bytes> cases[] = {
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
      {"date -s @2214131405", 156, Hex("f8 07 02 00 1d 00 0c 00 1e 00")},  // 2040-02-29 12:30
      {"rm -f /etc/localtime /etc/network/interfaces", 168, Bytes(4)},
      {"ip address flush dev eth0", 32, Bytes(8)},
  };
  for (const auto &[change, offset, bytes] : cases) {
    Shell(change);
    EXPECT_EQ(Part(AskDiscover(), offset, bytes.size()), bytes) << change;
  }
}

TEST(DiscoverNetwork, FindsEveryApplianceWithOneBroadcast) {
  std::string why;
  std::vector<board::Board> boards = board::BootAll(board::Network(32), why);
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
  const auto bridge_is_there = [] { return if_nametoindex(board::BRIDGE) != 0; };
  board::Halt(boards[0]);
  EXPECT_TRUE(bridge_is_there());
  boards.erase(boards.begin());
  board::HaltAll(boards);
  EXPECT_FALSE(bridge_is_there());
}
