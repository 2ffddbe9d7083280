// Change IP on a board: who is admitted, what each bit stores, applies and restarts, and in which
// order around the reply.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "acp/convert.h"
#include "board/board.h"
#include "board/client_end.h"
#include "daemon/state.h"
#include "handlers/change_ip.h"
#include "lib/libbh.h"
#include "lib/text.h"
#include "tests/files.h"

using namespace fixture;
using std::string;

const string IP = "0302010a000000ff";  // 10.1.2.3 and 255.0.0.0, as on the wire
const string sent = "SendPacket ACP_CHANGE_IP_REPLY result=0\n", smb = "/etc/init.d/smb restart\n";
const string end = "ACP_Change_IP_Reply() end. result=0\n", result = "libbh_SetIfInfo() result=";
const string all = "/etc/init.d/networking restart\n" + smb + "/etc/init.d/atalk restart\n" + end;

class ChangeIp : public testing::Test {
 protected:
  void SetUp() override {
    daemon_state.ifname = "eth0", daemon_state.enable_state = daemon_state.password_verified = 0;
    std::copy_n("\x2\xb\x4a\0\0\1", 6, daemon_state.enable_mac);
    daemon_state.trace_fp = fopen(board::CALL_LOG, "ae");  // in order with the calls
    set_mode_flags(MODE_DEBUG), client = wire::Open("eth0"), alarm(60), signal(SIGCHLD, SIG_DFL);
    EXPECT_EQ(system("cd /run; ln -sf /usr/lib/board/stand-in hostname; cp hostname ifconfig"), 0);
    setenv("PATH", "/run:/usr/bin:/bin", 1), setenv("BOARD_FAIL", "*/settimeofday:0", 1);
  }
  // The last octet of the reply's source and its result, then trace and calls behind the mask's
  // line. Texts and numbers are as in CASES; the flag's bit 0 is set where 0x10000 is in the mask.
  string Seen(uint32_t mask, const string &addresses = IP, size_t size = 112) {
    wire::Bytes body = wire::Hex(
        "fe00ffffffffffffffffffff00000000" + addresses +
        "6e65773b246e616d65273136636861720047524f55502d31362d4c45545445525300" + string(36, '0') +
        "e80702001d0017003a003b000100000a" + string(32, 'f') + "e4fdffff");
    body[0] |= static_cast<uint8_t>(mask >> 16), body[12] = static_cast<uint8_t>(mask);
    body.resize(size);
    body = wire::Request("20 00 00 00 07 00 01 00 30 80 70 00 00 00 00 00", body);
    wire::Deliver(client, body, request);
    SwapAcpHeader({request.packet, body.size()}, Conversion::TO_HOST);
    WriteFile(board::CALL_LOG, "");
    ACP_Change_IP_Reply(request);
    const std::vector<wire::Bytes> replies = wire::ReplyFrames(client);
    if (replies.size() != 1 || replies[0].size() != 74) return "no reply";
    EXPECT_EQ(wire::Number(replies[0], 50), 0x0000C030U);
    const string trace = ReadFile(board::CALL_LOG);
    EXPECT_TRUE(Contains(trace, "- -> ACP_Chenge_IP_Reply\r\nflag=0x00"));
    return std::to_string(replies[0][29]) + " " +
           std::to_string(static_cast<int32_t>(wire::Number(replies[0], 70))) +
           trace.substr(trace.find('\n', trace.find("\nchange_mask=0x000000") + 1));
  }
  AcpRequest request = {};
  wire::Client client;
};

TEST_F(ChangeIp, NothingIsChangedOnceAnotherHadTheLock) {
  signal(SIGCHLD, SIG_IGN);
  const pid_t holder = fork();
  while (holder == 0 && (libbh_lock() != 0 || pause() == 0))
    usleep(1000);
  while (libbh_lock() != -3)
    libbh_unlock();
  EXPECT_EQ(Seen(0), "2 -1\n" + sent + "ACP_Change_IP_Reply() end. result=-1\n");
  const string kill = "while kill -9 " + std::to_string(holder);
  WriteFile("/run/stand-ins/set_timezone.sh", kill + "; do :; done 2> /dev/null");  // halfway
  const string seen = Seen(0x81);
  EXPECT_TRUE(seen.starts_with("2 -1\n") && seen.ends_with(result + "-20000\n" + sent + all));
}

TEST_F(ChangeIp, SettingsAreStoredThenAnsweredThenApplied) {
  const string host = "/run/hostname new;$name'16char\nlibbh_SetApHostName().\n";
  const string group = "/usr/bin/nkf -e /tmp/libbh_tmp\nlibbh_SetGroupName().\n";
  const string clock = "/usr/local/bin/time_set.sh\nlibbh_SetDateAndTime(). year=2024 month=2\n";
  const string zone = "/usr/local/bin/set_timezone.sh -540\nSet tmiezone. time_zone=-540\n";
  const string name = "libbh_SetIfInfo() ifname=eth0\nIP address = ";
  const string ip = name + "10.1.2.3\nNetmask    = 255.0.0.0\n";
  const string good = "----- 0a010203 ----\n-- 0a0102ff\n-- 0a01ffff\n-- 0affffff\n";
  const string told = sent + "libbh_GetDHCPServerMode() == DHCPS_ON\n";
  const string init = result + "0\nacpip->flag & FLAG_CHANGE_INIT.E\n" + told;
  const string dhcp = "/sbin/dhcpcd -D -t 10 eth0 -", start = dhcp + "n\n" + all;
  const string stop = dhcp + "k\n", ends = "acpip->flag & FLAG_DHCP == TRUE\n" + stop;
  const string zero = "libbh_GetIfInfo().E\n" + name + "0.0.0.0\nNetmask    = 0.0.0.0\n";
  const string bad = name + "127.0.0.1\nNetmask    = 255.0.0.0\n" + result + "-430\n";
  const std::tuple<uint32_t, string, string> CASES[] = {
      {0x02, IP, "2 0\n" + host + told + all},
      {0x04, IP, "2 0\n" + group + told + smb + end},
      {0x90, IP, "2 0\n" + clock + zone + told + end},
      {0x03, "0100007f000000ff", "2 -1\n" + host + bad + told + all},
      {0x10021, "0000000000000000", "2 0\n" + ends + zero + init + start},
      {0x10021, IP, "2 0\n" + ends + ip + init + start},
      {0xF7, IP, "2 0\n" + host + group + clock + zone + ip + good + init + good + stop + all},
      {0x08, IP, "3 0\n" + told + end}};
  WriteFile("/run/dhcpcd-eth0.pid", "1"), WriteFile("/run/dhcpd.pid", "1");
  for (const auto &[mask, addresses, seen] : CASES)
    EXPECT_EQ(Seen(mask, addresses), seen) << mask;
  EXPECT_EQ(ReadFile("/etc/bh_servd.log"), "INITIALIZE=1\n");
  EXPECT_TRUE(Contains(ReadFile("/etc/korvo/info"), "wg=GROUP-16-LETTERS\n"));
  EXPECT_TRUE(Contains(ReadFile("/etc/network/interfaces"), "up route add default gw 10.0.0.1\n"));
}

TEST_F(ChangeIp, OthersAreRefusedAndTheEmergencySystemChangesItsAddressOnly) {
  rename("/etc/brackenhold_release", "/etc/brackenhold_emergence");
  const string done = "\nlibbh_SetIfconfig() result=";
  const string call = "\n/run/ifconfig eth0 10.1.2.3 netmask 255.0.0.0" + done;
  EXPECT_EQ(Seen(0xFE).substr(2), "-1" + done + "-1\n" + sent);
  EXPECT_EQ(Seen(0xFF).substr(2), "0" + call + "0\n" + sent);
  WriteFile("/run/stand-ins/ifconfig", "exit 3");
  EXPECT_EQ(Seen(0xFF).substr(2), "-1" + call + "-1\n" + sent);
  for (size_t size = 0; size < 112; ++size)
    EXPECT_EQ(Seen(0xFF, IP, size).substr(2, 27), "-1\nacpip is too short. len=") << size;
  for (const string busy : {"mkraid:creating RAID", "disk:formatting hdd", "zero_filling"}) {
    mkfifo(("/var/lock/" + busy.substr(0, busy.find(':'))).c_str(), 0600);
    EXPECT_EQ(Seen(0xFF, "", 40).substr(2), "-1\nnow " + busy.substr(busy.find(':') + 1) + ".\n");
  }
  daemon_state.password_verified = -1;
  EXPECT_EQ(Seen(0xFF).substr(2), "-2147483647\n");
  daemon_state.password_verified = 0, daemon_state.enable_mac[0] = 4;
  EXPECT_EQ(Seen(0xFF).substr(2), "-2147483647\n");
  const string log = ReadFile(board::SYSLOG);
  EXPECT_TRUE(Contains(log, "IP change Password Wrong") && Contains(log, "IP change is blocked."));
}
