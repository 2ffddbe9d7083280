// The network half of the settings library on a board, seen through what its calls leave behind.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <csignal>
#include <cstring>
#include <vector>

#include "lib/libbh.h"
#include "tests/files.h"

namespace {

using std::string;
using namespace fixture;
using namespace std::string_literals;

constexpr const char *CONFIG = "/etc/network/interfaces", *PID_FILE = "/run/dhcpcd-eth0.pid";
constexpr const char *ANY = "0.0.0.0", *M8 = "255.0.0.0", *M24 = "255.255.255.0";
const string STATIC = "iface eth0 inet static\n      address ", X255(255, 'x');
const string STANZA = "auto eth0\n" + STATIC + "192.168.1.10\n      netmask 255.255.255.0\n";
const string DHCP = "auto eth0\niface eth0 inet dhcp\n  hostname `hostname`\n";
const string START = "/sbin/dhcpcd -D -t 10 eth0 -n\n", STOP = "/sbin/dhcpcd -D -t 10 eth0 -k\n";
const string KERNEL = "192.168.1.10/24 brd 192.168.1.255\n", VIA = "default via 192.168.1.254\n";

string Pair(const string &words) {
  return "     up route add " + words + "\n     down route del " + words + "\n";
}

const string PAIR = Pair("default gw 192.168.1.254");

string Sh(const string &command) {
  EXPECT_EQ(system(("(" + command + ") >/tmp/out").c_str()), 0) << command;
  return ReadFile("/tmp/out");
}

// The result of a call, and what is there after it: the interfaces file, eth0's addresses and
// gateway routes, the programs called.
string Did(int32_t result) {
  return std::to_string(result) + "\n" +
         Sh("cat /etc/network/interfaces; ip -4 -o addr show eth0 | sed 's/.*inet //;s/ scope.*//';"
            "ip route show dev eth0 | sed -n '/via/{s/ *$//;p}'; cat /var/log/calls");
}

sockaddr_in Inet(const char *text) {
  return {AF_INET, 0, {inet_addr(text)}, {}};
}

int32_t Set(int32_t check_only, const char *address, const char *netmask, int32_t mode = 0) {
  const IfInfo record = {"eth0", {}, Inet(address), {}, Inet(netmask), {}, {}, mode, 0, {}};
  return libbh_SetIfInfo(check_only, &record);
}

RouteEntry To(const char *destination, const char *mask, const char *gateway, int metric = 0) {
  return {"", Inet(destination), Inet(gateway), Inet(mask), 0, metric, 0, 0, 0, 0, 0, nullptr};
}

int32_t Add(const RouteEntry &route, int32_t check_only = 0, const char *interface = "eth0") {
  return libbh_AddRoute(interface, check_only, &route);
}

int32_t SetGateway(const char *gateway, int32_t check_only = 0, const char *interface = "eth0") {
  const in_addr_t address = inet_addr(gateway);
  return libbh_SetDefaultGateway(interface, check_only, &address);
}

class Network : public testing::Test {
 protected:
  Network() {
    Sh("ip addr flush dev eth0; ip addr add 192.168.1.10/24 brd + dev eth0; >/var/log/calls;"
       "rm -rf /etc/network/interfaces /run/dhcpcd-eth0.pid /run/stand-ins/dhcpcd;"
       "[ ! -L /proc/real ] || { rm -r /proc/net; mv -T /proc/real /proc/net; }");
    WriteFile(CONFIG, STANZA + PAIR);
    WriteFile("/etc/hosts", "1.1.1.1 one\n\n2.2.2.2 xbrackenhold.x\n3.3.3.3 x");
    libbh_unlock();
    EXPECT_EQ(libbh_lock(), 0);
  }
};

TEST_F(Network, FileIsSplitAtStanzaStarts) {
  const string cases[][3] = {
      {"", "none", "none"},
      {"# iface eth0\n\n  # mapping eth0", "none", "# iface eth0\n\n  # mapping eth0\n"},
      {"auto eth0\n\n#1\niface eth0\n\n  \n  #2\n b\niface eth1\n\n#3\n d", "iface eth0\n b\n",
       "auto eth0\n\n#1\niface eth1\n\n#3\n d\n"},
      {"mapping eth0\n auto eth0\niface veth0\nauto eth1\n up\niface eth01",
       "mapping eth0\n auto eth0\niface veth0\niface eth01\n", "auto eth1\n up\n"},
      {"\r\niface eth0\r\n\r\n#\r\n\t#\r\n", "iface eth0\r\n\r\n\t#\r\n", "\r\n"},
      {"iface\0 eth1\n\0iface eth0\n a\0b\0"s, "iface eth0\n ab\n", "iface eth1\n"},
  };
  for (const auto &[content, own, rest] : cases) {
    char *texts[2];
    WriteFile(CONFIG, content);
    EXPECT_EQ(libbh_SplitInterfaces("eth0", &texts[0], &texts[1]), 0);
    EXPECT_EQ(texts[0] == nullptr ? "none" : texts[0], own);
    EXPECT_EQ(texts[1] == nullptr ? "none" : texts[1], rest);
    free(texts[0]);
    free(texts[1]);
  }
}

TEST_F(Network, LongLinesAreKeptOrDroppedWhole) {
  const string comment = "#" + X255 + " iface eth1\n";
  const string enters = "#" + X255 + " iface eth0\n";
  const string option = "  option " + X255 + " iface eth1\n";
  const string full = X255 + "\n";  // its newline stands behind the first 255
  const struct {
    const char *what;
    string content, own, rest;
  } cases[] = {
      {"comment inside", "iface eth0\n" + comment + "  a\n", "iface eth0\n  a\n", ""},
      {"comment outside", enters + "  a\n", "", enters + "  a\n"},
      {"option", "iface eth0\n" + option + "  a\n", "iface eth0\n" + option + "  a\n", ""},
      {"full line inside", "iface eth0\n" + full + "  a\n", "iface eth0\n" + full + "  a\n", ""},
      {"full line outside", full + "iface eth0\n", "iface eth0\n", full},
      {"name ends the front", X255.substr(10) + "iface eth0\n", X255.substr(10) + "iface eth0\n",
       ""},
      {"name ends behind it", X255.substr(9) + "iface eth0\n", "", X255.substr(9) + "iface eth0\n"},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.what);
    char *own = nullptr;
    char *rest = nullptr;
    WriteFile(CONFIG, test.content);
    EXPECT_EQ(libbh_SplitInterfaces("eth0", &own, &rest), 0);
    EXPECT_EQ(own == nullptr ? "" : own, test.own);
    EXPECT_EQ(rest == nullptr ? "" : rest, test.rest);
    free(own);
    free(rest);
  }
}

TEST_F(Network, LongLinesAreJudgedByTheirFrontWhenTheyAreChanged) {
  const string job = "  up logger " + X255 + " default gw 192.168.1.254\n";
  const string option = "  option " + X255 + " up\n";
  WriteFile(CONFIG, STANZA + option + job + PAIR);
  EXPECT_EQ(Set(0, "192.168.1.10", M24), 0);
  EXPECT_EQ(ReadFile(CONFIG), STANZA + job + PAIR);
  EXPECT_EQ(SetGateway(ANY), 0);
  EXPECT_EQ(ReadFile(CONFIG), STANZA + job);
}

TEST_F(Network, DhcpClientRunsWhileItsPidFileExists) {
  ASSERT_EQ(symlink("/nowhere", PID_FILE), 0);
  EXPECT_EQ(libbh_IsDhcpcdRunning("eth0"), -1);
  RemoveFile(PID_FILE);
  // A file that nobody can open, whatever the rights.
  ASSERT_EQ(mknod(PID_FILE, S_IFSOCK | 0600, 0), 0);
  EXPECT_EQ(libbh_IsDhcpcdRunning("eth0"), 0);
  ASSERT_EQ(mknod("/run/dhcpd.pid", S_IFSOCK | 0600, 0), 0);
  EXPECT_EQ(libbh_GetDHCPServerMode(), 1);
  RemoveFile("/run/dhcpd.pid");
  EXPECT_EQ(libbh_GetDHCPServerMode(), 0);
}

TEST_F(Network, DefaultGatewayNeedsNoAddress) {
  Sh("ip route add default via 192.168.1.254; ip addr flush dev eth0");
  Sh("ip route add 10.9.9.9 dev eth0");
  EXPECT_EQ(SetGateway("10.9.9.9"), 0);
  const string show = "ip route show default | sed 's/ *$//'";
  EXPECT_EQ(Sh(show), "default via 10.9.9.9 dev eth0\n");
  EXPECT_EQ(SetGateway("10.8.8.8"), 0);
  EXPECT_EQ(Sh(show), "") << "a gateway that cannot be reached leaves none";
  EXPECT_EQ(SetGateway("10.9.9.9"), 0);
  EXPECT_EQ(SetGateway("10.9.9.9", 0, "eth9"), 0);
  EXPECT_EQ(Sh(show), "") << "nor does an interface that is not there";
}

TEST_F(Network, MetricMayHaveASign) {
  const struct {
    const char *text;
    int32_t metric;
  } cases[] = {{"3", 3}, {"+3", 3}, {"-3", -3}, {"+-3", 0}, {"x", 0}};
  for (const auto &test : cases) {
    const string route = "up route add -net 10.0.0.0 netmask 255.0.0.0 gw 192.168.1.2 metric ";
    WriteFile(CONFIG, "iface eth0\n" + route + test.text + "\n");
    RouteEntry *list = nullptr;
    EXPECT_EQ(libbh_GetConfiguredRoutes(&list, "eth0"), 0);
    ASSERT_NE(list, nullptr) << test.text;
    EXPECT_EQ(list->metric, test.metric) << test.text;
    libbh_FreeRouteList(list);
  }
}

TEST_F(Network, BadLeasesAndAddressesDoNoHarm) {
  DhcpLease lease;
  memset(&lease, 0xEE, sizeof(lease));
  WriteFile(
      "/etc/dhcpc/dhcpcd-eth0.info",
      "DNS=1.2.3.6,1.2.3.7,1\nGATEWAY=1.2.3.4\nGATEWAY\nDOMAIN\nDOMAIN=" + X255 + "\nGETTIME");
  EXPECT_EQ(libbh_ReadDhcpLease("eth0", &lease), 0);
  EXPECT_EQ(lease.gateway.sin_addr.s_addr, 0U);
  EXPECT_EQ(inet_ntoa(lease.dns2.sin_addr) + string(lease.domain), "1.2.3.7" + X255.substr(0, 64));
  for (const char *text : {"", ".1.2.3", "1.2.3", "1.2.3.", "1.2.3.4.", "1..2.3", "1.2.3.256",
                           "1.2.3.4294967297", " 1.2.3.4", "1.2.3.4\r\n", "1.2.3.4.5"})
    EXPECT_EQ(libbh_ParseDottedQuad(text, &lease.dns1.sin_addr), -1) << text;
  EXPECT_EQ(lease.dns1.sin_addr.s_addr, 0U);
}

TEST_F(Network, KernelTablesAreRead) {
  Sh("for i in $(seq 243); do echo addr add 10.$i.0.1/$((16 + i % 9)) dev eth0 label eth0:1; done |"
     "ip -batch -");
  IfListEntry *const addresses = libbh_GetIfList(AF_INET, 1);
  int right = 0;
  for (const IfListEntry *one = addresses->next->next; one != nullptr; one = one->next) {
    const uint32_t number = ntohl(one->addr->sin_addr.s_addr) >> 16 & 255;
    right += ntohl(one->netmask->sin_addr.s_addr) == 0xFFFFFFFF << (16 - number % 9) &&
             one->name == "eth0"s;
  }
  libbh_FreeIfList(addresses);
  EXPECT_EQ(right, 243);
  Sh("mv -T /proc/net /proc/real; mkdir /proc/net");
  WriteFile("/proc/net/dev", " eth0:4294967297 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n");
  WriteFile(PID_FILE, "");
  IfInfo record = {"eth0", {}, {}, {}, {}, {}, {}, 7, 0, {}};
  EXPECT_EQ(libbh_GetIfInfo(&record, 2), 0);
  const uint32_t counters[] = {9, 10, 11, 12, 13, 16, 14, 15, 1, 2, 3, 4, 5, 7, 6, 8, 1, 1500, 1};
  EXPECT_EQ(memcmp(&record.tx, counters, sizeof(counters)), 0);
}

TEST_F(Network, RouteTableIsReadByItsTitles) {
  const string pair = Pair("default gw 1.1.1.1");
  WriteFile(CONFIG, "iface lo\n" + pair + "iface eth0\n" + pair);
  Sh("mv -T /proc/net /proc/real; mkdir /proc/net");
  string unknown;  // 200 columns that mean nothing
  for (int i = 0; i < 200; ++i)
    unknown += "x ";
  const string titles =
      "Iface Destination Gateway Flags " + unknown + "RefCnt Use Metric Mask MTU Window IRTT\n";
  const string whole_line = "eth0 00000000 01010101 1 " + unknown + "1 2 0 C0A80102 3 4 5\n";
  const string long_words = "seventeen-letters " + string(299, '0') + "4\n";
  WriteFile("/proc/net/route",
            titles + whole_line + "lo 0 01010101 3\n" + long_words + "eth0 00000000 02020202 3");
  RouteEntry *list = nullptr;
  EXPECT_EQ(libbh_GetRouteTable(&list), 0);
  const struct {
    const char *what;
    int flags, metric;
  } rows[] = {
      {"default route, configured for eth0", 0x401, 1},
      {"lo is never configured, and a short line has no metric", 3, 0},
      {"what exceeds a column is read as the next", 4, 0},
      {"another gateway than the configured one", 3, 0},
  };
  EXPECT_EQ(list->mask.sin_addr.s_addr, 0xC0A80102);
  const RouteEntry *route = list;
  for (const auto &row : rows) {
    ASSERT_NE(route, nullptr) << row.what;
    EXPECT_EQ(route->flags, row.flags) << row.what;
    EXPECT_EQ(route->metric, row.metric) << row.what;
    route = route->next;
  }
  EXPECT_EQ(route, nullptr);
  libbh_FreeRouteList(list);
}

TEST_F(Network, StaticAddressIsAppliedAtOnce) {
  const string refused = Pair("-net 10.9.0.0 netmask 255.255.0.0 gw 10.0.255.255");
  const string net = Pair("-net 172.16.0.0 netmask 255.240.0.0 gw 10.0.0.1 metric 2 ");
  WriteFile(CONFIG, STANZA + "  mtu 9000\n" + refused + PAIR + net + "\n#\niface eth1");
  EXPECT_EQ(Did(Set(0, "10.0.0.10", "255.255.0.0")),
            "0\nauto eth0\niface eth1\n" + STATIC + "10.0.0.10\n      netmask 255.255.0.0\n" +
                refused + net +
                "10.0.0.10/16 brd 10.0.255.255\n172.16.0.0/12 via 10.0.0.1 metric 2\n" + STOP);
  EXPECT_EQ(ReadFile("/etc/hosts"), "1.1.1.1 one\n\n3.3.3.3 x\n10.0.0.10 brackenhold\n");
}

TEST_F(Network, DhcpClientIsStartedStoodInForOrWaitedFor) {
  EXPECT_EQ(Did(Set(0, ANY, ANY, 1)), "0\n" + DHCP + PAIR + KERNEL + VIA + START);
  WriteFile("/run/stand-ins/dhcpcd", "exit 0\n");
  Sh("rm /run/dhcpcd-eth0.pid; ip route del default");
  EXPECT_EQ(Did(Set(0, ANY, ANY, 1)), "-430\n" + DHCP + PAIR + KERNEL + START + START);
  EXPECT_EQ(Did(Set(0, "192.168.1.10", M24, 1)),
            "0\n" + STANZA + PAIR + KERNEL + VIA + START + START + START + STOP);
  WriteFile(PID_FILE, "");
  static volatile sig_atomic_t ticks = 0;
  signal(SIGALRM, [](int) { ticks = ticks + 1; });  // each tick ends a wait for the client's end
  const itimerval often = {{0, 20000}, {0, 20000}}, never = {};
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(Set(0, "192.168.1.20", M24), 0);
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_GE(ticks, 10);
}

TEST_F(Network, AddressesAreChecked) {
  const struct {
    const char *address, *netmask;
    int32_t mode, result;
  } cases[] = {
      {ANY, M24, 0, -430},
      {"255.255.255.255", M8, 0, -430},
      {"127.0.0.1", M24, 0, -430},
      {"10.0.0.1", ANY, 0, -430},
      {"224.0.0.1", M24, 0, -430},
      {"10.0.0.64", "255.255.255.192", 0, -430},
      {"10.0.0.63", "255.255.255.192", 0, -430},
      {"10.1.1.255", M8, 0, -430},
      {"223.255.255.1", M24, 0, 0},
      {"10.1.1.0", M8, 0, 0},
      {"224.0.0.1", ANY, 1, 0},  // DHCP finds an address of its own
      {"10.0.0.1", M8, 2, -413},
  };
  for (const auto &test : cases)
    EXPECT_EQ(Set(1, test.address, test.netmask, test.mode), test.result) << test.address;
}

TEST_F(Network, RoutesAreChecked) {
  const RouteEntry any = To(ANY, ANY, ANY);
  const RouteEntry good = To("11.0.0.0", M8, "192.168.1.1");
  Sh("ip route add default via 192.168.1.254; ip route add 10.0.0.0/8 via 192.168.1.2");
  EXPECT_EQ(Add(To("10.0.0.1", M8, "192.168.1.1")), -420) << "a host in the network's place";
  EXPECT_EQ(Add(good, 0, "eth9"), -417);
  EXPECT_EQ(Add(To("10.0.0.0", M8, "192.168.2.2")), -417) << "a gateway that is out of reach";
  EXPECT_EQ(Add(To("10.0.0.0", M8, "192.168.1.2", 9)), -421) << "there already";
  EXPECT_EQ(Add(To("10.0.0.0", M8, "192.168.1.3"), 1), 0) << "another gateway";
  EXPECT_EQ(Add(To("10.0.0.0", M24, "192.168.1.2"), 1), 0) << "another mask";
  EXPECT_EQ(Add(To("10.1.0.0", M24, "192.168.1.255")), -10101) << "the kernel refuses it";
  EXPECT_EQ(libbh_DelRoute(1, &any), 0);
  EXPECT_EQ(libbh_DelRoute(0, &good), -419) << "a route that is not there";
  EXPECT_EQ(SetGateway("192.168.2.1"), -418);
  EXPECT_EQ(SetGateway("192.168.1.0"), -430);
  EXPECT_EQ(SetGateway("192.168.1.255"), -430);
  EXPECT_EQ(SetGateway("192.168.1.3", 1), 0);
  EXPECT_EQ(SetGateway(ANY, 1), 0);
}

TEST_F(Network, NothingChangesWithoutTheLock) {
  const RouteEntry any = To(ANY, ANY, ANY);
  libbh_unlock();
  EXPECT_EQ(Set(0, "192.168.1.20", M24), -20000);
  EXPECT_EQ(Set(1, "192.168.1.20", M24), -20000);
  EXPECT_EQ(Add(To("11.0.0.0", M8, "192.168.1.1")), -20000);
  EXPECT_EQ(libbh_DelRoute(0, &any), -20000);
  EXPECT_EQ(Did(SetGateway("192.168.1.3")), "-20000\n" + STANZA + PAIR + KERNEL);
}

TEST_F(Network, KernelHoldsSixtyFourRoutes) {
  const RouteEntry route = To("11.0.0.0", M8, "192.168.1.1");
  Sh("for i in $(seq 64); do ip route add 12.$i.0.0/16 via 192.168.1.1; done");
  EXPECT_EQ(Add(route, 1), 0);
  Sh("ip route add 13.0.0.0/8 via 192.168.1.1");
  EXPECT_EQ(Add(route, 1), -403);
}
TEST_F(Network, RoutesChangeInKernelAndFile) {
  const string other = Pair("default gw 192.168.1.1"), via = KERNEL + "default via 192.168.1.1\n";
  const string net = Pair("-net 10.0.0.0 netmask 255.0.0.0 gw 192.168.1.2 metric 2 ");
  const string plain = Pair("-net 10.0.0.0 netmask 255.0.0.0 gw 192.168.1.3");
  const RouteEntry route = To("10.0.0.0", M8, "192.168.1.2", 3), any = To("10.0.0.0", M8, ANY);
  Sh("ip route add default via 192.168.1.9");
  EXPECT_EQ(Did(Add(route)), "0\n" + STANZA + PAIR + net + KERNEL + "default via 192.168.1.9\n" +
                                 "10.0.0.0/8 via 192.168.1.2 metric 2\n");
  EXPECT_EQ(SetGateway("192.168.1.1"), 0);
  EXPECT_EQ(Add(To("10.0.0.0", M8, "192.168.1.3")), 0);
  EXPECT_EQ(Did(libbh_DelRoute(0, &route)),
            "0\n" + STANZA + PAIR + other + plain + via + "10.0.0.0/8 via 192.168.1.3\n");
  EXPECT_EQ(Did(libbh_DelRoute(0, &any)), "0\n" + STANZA + PAIR + other + via);
  EXPECT_EQ(Did(SetGateway(ANY)), "0\n" + STANZA + KERNEL);
  WriteFile(CONFIG, "iface eth1");
  EXPECT_EQ(Did(SetGateway("192.168.1.1")), "0\niface eth1\n" + other + via);
}

}  // namespace
