// Change IP on a board: who is admitted, what each bit stores, applies and restarts, and in which
// order around the reply.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>

#include "board/board.h"
#include "board/client_end.h"
#include "daemon/state.h"
#include "handlers/change_ip.h"
#include "lib/libbh.h"
#include "lib/text.h"
#include "tests/files.h"

namespace {

using namespace fixture;
using std::string;

constexpr uint32_t ALL = CHANGE_MASK_IP | CHANGE_MASK_HOSTNAME | CHANGE_MASK_WORKGROUP |
                         CHANGE_MASK_DATETIME | FLAG_CHANGE_INIT | CHANGE_MASK_GATEWAY |
                         CHANGE_MASK_TIMEZONE;
constexpr uint32_t NEW_ADDRESS = 0x0A010203;
constexpr uint16_t NOT_DHCP = 0xFE;  // all other bits

// What stands in trace and call log.
constexpr char SENT[] = "SendPacket ACP_CHANGE_IP_REPLY result=0\n";
constexpr char END[] = "ACP_Change_IP_Reply() end. result=0\n";
constexpr char SAMBA[] = "/etc/init.d/smb restart\n";
const string RESTARTS =
    string("/etc/init.d/networking restart\n") + SAMBA + "/etc/init.d/atalk restart\n" + END;

// The unused fields hold what must not matter.
ChangeIpRequest Change(uint32_t mask, uint32_t address = NEW_ADDRESS, uint16_t flag = NOT_DHCP) {
  ChangeIpRequest change;
  memset(&change, 0xFF, sizeof(change));
  change.flag = flag;
  change.change_mask = mask;
  change.address = address;
  change.netmask = address == 0 ? 0 : 0xFF000000;
  CopyToField(change.host_name, sizeof(change.host_name), "new;$name'16char");
  CopyToField(change.workgroup, sizeof(change.workgroup), "GROUP-16-LETTERS");
  change.year = 2024;
  change.month = 2;
  change.day = 29;
  change.hour = 23;
  change.minute = 58;
  change.second = 59;
  change.gateway = 0x0A000001;
  change.time_zone = -540;
  return change;
}

struct Outcome {
  int source = 0;       // last octet of the reply's source address
  uint32_t result = 0;  // the reply's
  string course;        // trace and calls, in their order, behind the line of the mask
};

class ChangeIp : public testing::Test {
 protected:
  void SetUp() override {
    daemon_state.ifname = "eth0";
    daemon_state.enable_state = 0;
    daemon_state.password_verified = 0;
    std::copy_n("\x2\xb\x4a\0\0\1", MAC_SIZE, daemon_state.enable_mac);
    daemon_state.trace_fp = fopen(board::CALL_LOG, "ae");  // in order with the calls
    set_mode_flags(MODE_DEBUG);
    client = wire::Open("eth0");
    signal(SIGCHLD, SIG_DFL);
    alarm(60);
    ASSERT_EQ(system("cd /run; ln -sf /usr/lib/board/stand-in hostname; cp hostname ifconfig"), 0);
    setenv("PATH", "/run:/usr/bin:/bin", 1);
    setenv("BOARD_FAIL", "*/settimeofday:0", 1);
  }

  // Hands the first `size` bytes of the body to the handler, in host order as the dispatcher does.
  Outcome Send(const ChangeIpRequest &change, size_t size = sizeof(ChangeIpRequest)) {
    wire::Deliver(client, wire::Request(ACP_CHANGE_IP, wire::Bytes(size)), request);
    const uint16_t header_size = ACP_HEADER_SIZE;
    memcpy(request.packet, &header_size, sizeof(header_size));
    memcpy(request.packet + ACP_HEADER_SIZE, &change, size);
    WriteFile(board::CALL_LOG, "");
    ACP_Change_IP_Reply(request);
    const std::vector<wire::Bytes> replies = wire::ReplyFrames(client);
    if (replies.size() != 1 || replies[0].size() != 74) {
      ADD_FAILURE() << replies.size() << " replies";
      return {};
    }
    const string trace = ReadFile(board::CALL_LOG);
    EXPECT_TRUE(Contains(trace, "- -> ACP_Chenge_IP_Reply\r\nflag=0x00")) << trace;
    const size_t mask = trace.find("\nchange_mask=0x000000") + 1;
    return {replies[0][29], wire::Number(replies[0], 70), trace.substr(trace.find('\n', mask) + 1)};
  }

  AcpRequest request = {};
  wire::Client client;
};

TEST_F(ChangeIp, SettingsAreStoredThenAnsweredThenApplied) {
  const string host = "/run/hostname new;$name'16char\nlibbh_SetApHostName().\n";
  const string group = "/usr/bin/nkf -e /tmp/libbh_tmp\nlibbh_SetGroupName().\n";
  const string clock = "/usr/local/bin/time_set.sh\nlibbh_SetDateAndTime(). year=2024 month=2\n";
  const string zone = "/usr/local/bin/set_timezone.sh -540\nSet tmiezone. time_zone=-540\n";
  const string fixed =
      "libbh_SetIfInfo() ifname=eth0\nIP address = 10.1.2.3\n"
      "Netmask    = 255.0.0.0\n";
  const string classes = "----- 0a010203 ----\n-- 0a0102ff\n-- 0a01ffff\n-- 0affffff\n";
  const string checked = "libbh_SetIfInfo() result=0\n";
  const string refused =
      "libbh_SetIfInfo() ifname=eth0\nIP address = 127.0.0.1\n"
      "Netmask    = 255.0.0.0\nlibbh_SetIfInfo() result=-430\n";
  const string init = "acpip->flag & FLAG_CHANGE_INIT.E\n";
  const string told = string(SENT) + "libbh_GetDHCPServerMode() == DHCPS_ON\n";
  const string stop = "/sbin/dhcpcd -D -t 10 eth0 -k\n";
  const string start = "/sbin/dhcpcd -D -t 10 eth0 -n\n";
  const string dhcp = "acpip->flag & FLAG_DHCP == TRUE\n" + stop;
  const string zeros =
      "libbh_GetIfInfo().E\nlibbh_SetIfInfo() ifname=eth0\n"
      "IP address = 0.0.0.0\nNetmask    = 0.0.0.0\n";
  const struct {
    const char *name;
    ChangeIpRequest change;
    uint32_t result;
    string course;
    int source = 2;
  } cases[] = {
      {"host name", Change(CHANGE_MASK_HOSTNAME), 0, host + told + RESTARTS},
      {"workgroup", Change(CHANGE_MASK_WORKGROUP), 0, group + told + SAMBA + END},
      {"clock and zone", Change(CHANGE_MASK_DATETIME | CHANGE_MASK_TIMEZONE), 0,
       clock + zone + told + END},
      {"address of this machine itself", Change(CHANGE_MASK_IP | CHANGE_MASK_HOSTNAME, 0x7F000001),
       ACP_STATE_FAILURE, host + refused + told + RESTARTS},
      {"DHCP", Change(CHANGE_MASK_IP | FLAG_CHANGE_INIT, 0, FLAG_DHCP), 0,
       dhcp + zeros + checked + init + told + start + RESTARTS},
      {"DHCP with an address", Change(CHANGE_MASK_IP | FLAG_CHANGE_INIT, NEW_ADDRESS, FLAG_DHCP), 0,
       dhcp + fixed + checked + init + told + start + RESTARTS},
      {"everything", Change(ALL), 0,
       host + group + clock + zone + fixed + classes + checked + init + told + classes + stop +
           RESTARTS},
      {"a bit that means nothing", Change(0x08), 0, told + END, 3},  // from the new address
  };
  WriteFile("/run/dhcpcd-eth0.pid", "1");
  WriteFile("/run/dhcpd.pid", "1");
  for (const auto &each : cases) {
    SCOPED_TRACE(each.name);
    const Outcome outcome = Send(each.change);
    EXPECT_EQ(outcome.source, each.source);
    EXPECT_EQ(outcome.result, each.result);
    EXPECT_EQ(outcome.course, each.course);
  }
  unlink("/run/dhcpcd-eth0.pid");
  unlink("/run/dhcpd.pid");
  EXPECT_EQ(ReadFile("/etc/bh_servd.log"), "INITIALIZE=1\n");
  EXPECT_TRUE(Contains(ReadFile("/etc/korvo/info"), "wg=GROUP-16-LETTERS\n"));
  EXPECT_TRUE(Contains(ReadFile("/etc/network/interfaces"), "up route add default gw 10.0.0.1\n"));
}

TEST_F(ChangeIp, NothingIsChangedOnceAnotherHadTheLock) {
  signal(SIGCHLD, SIG_IGN);
  const pid_t holder = fork();
  while (holder == 0 && (libbh_lock() != 0 || pause() == 0))
    usleep(1000);
  while (libbh_lock() != -3)
    libbh_unlock();
  Outcome outcome = Send(Change(0));
  EXPECT_EQ(outcome.result, ACP_STATE_FAILURE);
  EXPECT_EQ(outcome.course, string(SENT) + "ACP_Change_IP_Reply() end. result=-1\n");

  // The holder ends while the settings are stored: the lock is free when they are applied.
  WriteFile("/run/stand-ins/set_timezone.sh",
            "while kill -9 " + std::to_string(holder) + "; do :; done 2> /dev/null");
  outcome = Send(Change(CHANGE_MASK_IP | CHANGE_MASK_TIMEZONE));
  EXPECT_EQ(outcome.result, ACP_STATE_FAILURE);
  EXPECT_TRUE(
      outcome.course.ends_with("libbh_SetIfInfo() result=-20000\n" + string(SENT) + RESTARTS))
      << outcome.course;
}

TEST_F(ChangeIp, EmergencySystemChangesItsAddressOnly) {
  rename("/etc/brackenhold_release", "/etc/brackenhold_emergence");
  const string call = "/run/ifconfig eth0 10.1.2.3 netmask 255.0.0.0\n";
  Outcome outcome = Send(Change(ALL & ~CHANGE_MASK_IP));
  EXPECT_EQ(outcome.result, ACP_STATE_FAILURE);
  EXPECT_EQ(outcome.course, string("libbh_SetIfconfig() result=-1\n") + SENT);
  outcome = Send(Change(ALL));
  EXPECT_EQ(outcome.result, 0U);
  EXPECT_EQ(outcome.course, call + "libbh_SetIfconfig() result=0\n" + SENT);
  WriteFile("/run/stand-ins/ifconfig", "exit 3");
  outcome = Send(Change(ALL));
  EXPECT_EQ(outcome.result, ACP_STATE_FAILURE);
  EXPECT_EQ(outcome.course, call + "libbh_SetIfconfig() result=-1\n" + SENT);
  rename("/etc/brackenhold_emergence", "/etc/brackenhold_release");
}

TEST_F(ChangeIp, ShortBodiesAndBusyDisksAreRefused) {
  for (size_t size = 0; size < sizeof(ChangeIpRequest); ++size) {
    const Outcome outcome = Send(Change(ALL), size);
    EXPECT_EQ(outcome.result, ACP_STATE_FAILURE) << size;
    EXPECT_EQ(outcome.course, "acpip is too short. len=" + std::to_string(size) + "\n");
  }
  const struct {
    const char *lock_file;
    const char *course;
  } works[] = {{"/var/lock/mkraid", "now creating RAID.\n"},
               {"/var/lock/disk", "now formatting hdd.\n"},
               {"/var/lock/zero_filling", "now zero_filling.\n"}};
  for (const auto &work : works) {
    mkfifo(work.lock_file, 0600);
    const Outcome outcome = Send(Change(ALL), 40);
    EXPECT_EQ(outcome.result, ACP_STATE_FAILURE) << work.lock_file;
    EXPECT_EQ(outcome.course, work.course);
    unlink(work.lock_file);
  }
  EXPECT_TRUE(Contains(ReadFile(board::SYSLOG), "IP change is blocked."));
}

TEST_F(ChangeIp, OnlyTheEnabledClientWithAVerifiedPasswordIsAdmitted) {
  daemon_state.password_verified = -1;
  EXPECT_EQ(Send(Change(ALL)).result, ACP_STATE_PASSWORD_ERROR);
  daemon_state.password_verified = 0;
  daemon_state.enable_mac[0] = 4;
  EXPECT_EQ(Send(Change(ALL)).result, ACP_STATE_PASSWORD_ERROR);
  EXPECT_TRUE(Contains(ReadFile(board::SYSLOG), "IP change Password Wrong"));
}

}  // namespace
