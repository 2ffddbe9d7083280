// Discovery over the wire: the whole reply, what it becomes when its sources change or are gone,
// and a network of appliances.

#include <algorithm>

#include "tests/system/fixture.h"

using wire::Bytes;
using wire::Hex;
using wire::Part;
using wire::Text;

namespace {

// Where the fields of the reply begin.
constexpr size_t ADDRESS = 32, STATUS = 40, KEY = 44, HOST_NAME = 48, WORKGROUP = 64, PRODUCT = 80,
                 TIME = 156, SECOND = 166, GATEWAY = 168, VERSION = 188, BUILD_DATE = 196,
                 SUB_VERSION = 220, RUNNING_SUB_VERSION = 254;

}  // namespace

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
  const Bytes key = Part(reply, KEY, 4);
  EXPECT_LT(key[0], 0x80);  // keys have 31 bits, and the most significant byte comes first
  EXPECT_NE(key, Bytes(4));
  EXPECT_GE(reply[SECOND], 30);  // it goes on
  std::fill_n(reply.begin() + KEY, 4, uint8_t{0});
  reply[SECOND] = 0;
  EXPECT_EQ(reply, expected);
  EXPECT_EQ(Part(AskDiscover(), KEY, 4), key);

  const std::string trace = Trace();
  const size_t gateway = trace.find("  gateway = 0x", trace.find("- -> ACP_Discover_Reply\r\n"));
  ASSERT_NE(gateway, std::string::npos) << trace;
  EXPECT_NE(trace.find("  gateway = 0x", gateway + 1), std::string::npos);
}

TEST_F(Discover, ReplyFollowsItsSourcesAndOutlivesThem) {
  BootBoard({.product_id = "0x0007"});
  StartDaemon();
  struct Row {
    const char *change;  // upon those before
    size_t field;
    Bytes bytes;
  };
  const Row rows[] = {
      {"echo 'INITIALIZE=\"10\"' > /etc/bh_servd.log", STATUS, Hex("00 00 00 00")},
      {"echo type=backup > /etc/korvo/timer_status", STATUS, Hex("80 00 00 00")},
      {": > /etc/korvo/timer_status; rm /etc/bh_servd.log; mkdir /etc/bh_servd.log", STATUS,
       Hex("80 00 00 00")},
      {"rm /etc/brackenhold_release", VERSION, Hex("02 25 00 00 07 00 00 00")},  // the system's
      {"true", BUILD_DATE, Text("2006/03/14 10:22:41")},
      {"true", SUB_VERSION, Text("1.04")},
      {"touch /etc/brackenhold_emergence", VERSION, Hex("07 00 00 00 07 00 00 00")},
      {"true", BUILD_DATE, Text("0000/0/0 0:00:00")},
      {"true", SUB_VERSION, Hex("48 44 44 20 30 2e 30 00")},
      {"true", RUNNING_SUB_VERSION, Hex("02")},
      {"head -c 100000 /dev/urandom > /proc/brackenhold", PRODUCT, Text("Brackenhold", 12)},
      {"rm /etc/samba/smb.conf; ln -sf /none /etc/samba/smb.conf", WORKGROUP, Bytes(16)},
      {"mv /bin/hostname /tmp", HOST_NAME, Bytes(16)},
      {"date -s @2214131405", TIME, Hex("f8 07 02 00 1d 00 0c 00 1e 00")},  // 2040-02-29 12:30
      {"rm -f /etc/localtime /etc/network/interfaces", GATEWAY, Bytes(4)},
      {"ip address flush dev eth0", ADDRESS, Bytes(8)},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.change);
    Shell(row.change);
    EXPECT_EQ(Part(AskDiscover(), row.field, row.bytes.size()), row.bytes) << row.field;
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
  board::HaltAll(boards);
}
