// Special commands on a board: what each answers, traces and runs, who is refused and in which
// order, passwords and command mode, and children that end whenever they like.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <ctime>
#include <sstream>

#include "access/keys.h"
#include "acp/convert.h"
#include "board/board.h"
#include "board/client_end.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "handlers/special.h"
#include "tests/files.h"

using namespace fixture;
using std::string;

class Special : public testing::Test {
 protected:
  void SetUp() override {
    daemon_state.ifname = "eth0", daemon_state.enable_state = 0, daemon_state.key_list = &key_entry;
    std::copy_n(key_entry.mac, 6, daemon_state.enable_mac), daemon_state.password_verified = -1;
    set_mode_flags(MODE_DEBUG), InstallSignalHandlers(), InstallChildHandler(), ClaimServer();
    client = wire::Open("eth0"), daemon_state.product_id = 0x2002, alarm(60);
  }
  // Result, trace between the first line and the last, and calls; of the first `size` body bytes.
  string Seen(uint32_t code, uint32_t extra, const string &text, size_t size = 99) {
    wire::Bytes body = {static_cast<uint8_t>(code), 1, 2, 3};
    wire::Append(body, extra);
    wire::Append(body, wire::Text(text, text.size() + 1));
    const wire::Bytes datagram =
        wire::Request("20 00 00 00 07 00 01 00 A0 80 63 00 00 00 00 00", wire::Part(body, 0, size));
    wire::Deliver(client, datagram, request);
    SwapAcpHeader({request.packet, datagram.size()}, Conversion::TO_HOST);
    WriteFile(board::CALL_LOG, "");
    testing::internal::CaptureStdout();
    EXPECT_EQ(ACP_Special_Reply(request), 0);
    trace = testing::internal::GetCapturedStdout();
    const std::vector<wire::Bytes> sent = wire::ReplyFrames(client);
    if (sent.size() != 1 || sent[0].size() != 74) return "no reply";
    EXPECT_EQ(wire::Part(sent[0], 42, 28),
              wire::Hex("20000000 07000100 A0C00000 00000000 020b4a000010 020b4a000001"));
    char last[64];
    snprintf(last, 64, "ACP_Special_Reply() cmd=%02x lRet=0x%x\n", code, wire::Number(sent[0], 70));
    string middle = trace.substr(trace.find('\n') + 1);
    if (middle.ends_with(last)) middle.erase(middle.rfind(last));
    return (last + 34) + middle + ReadFile(board::CALL_LOG);
  }
  // Rows of "> product code extra text = seen", all numbers hexadecimal, text behind "#" too.
  void Play(const char *script) {
    std::istringstream rows(script);
    string row, text;
    for (getline(rows, row, '>'); getline(rows, row, '>');) {
      uint32_t code = 0, extra = 0;
      std::istringstream(row) >> std::hex >> daemon_state.product_id >> code >> extra >> text;
      const wire::Bytes bytes = wire::Hex(text.substr(1));
      if (text[0] == '#') text.assign(bytes.begin(), bytes.end());
      string expected = row.substr(row.find('=') + 2, row.rfind('|') - row.find('=') - 1);
      std::erase(expected, '\n'), std::replace(expected.begin(), expected.end(), '|', '\n');
      EXPECT_EQ(Seen(code, extra, text), expected) << row;
    }
    EXPECT_TRUE(board::WaitFor([] { return waitpid(-1, nullptr, WNOHANG) == -1; })) << "a zombie";
  }
  KeyEntry key_entry = {nullptr, 0x12345678, {2, 0xb, 0x4a, 0, 0, 1}, uint32_t(time(nullptr))};
  AcpRequest request = {};
  wire::Client client;
  string trace;
};

TEST_F(Special, EveryCommandDoesItsWork) {
  for (const string name : {"save_config.sh", "load_config.sh", "initweb.sh", "usermod"})
    WriteFile("/run/stand-ins/" + name, "exit 3");  // which nobody is told
  WriteFile("/run/board-ticks", "7"), WriteFile("/run/fast-sleep", ""), WriteFile("/a", "\4\2");
  mkdir("/tmp/empty", 0700), mkfifo("/tmp/fifo", 0600), unlink("/dev/idtinfo");
  Play(R"(> 10 1 0 - = 0|libbh_Reboot(). lRet=0x0|/www/script/korsub_shutdown2.sh 1| > 10 b 0 -
 = ffffffff| > 2001 1 0 - = 0|libbh_Reboot(). lRet=0x0|/sbin/reboot| > 10 41 0 /tmp = ffffffff| > 10
 2 0 - = 0|libbh_Shutdown(). lRet=0x0|/www/script/korsub_shutdown2.sh 2| > 10 41 0 # = ffffffff|
> 2002 2 0 - = 0|/usr/local/bin/shutdown.sh| > 10 4 0 - = 0|not emergence [/etc/hddrootmode]| > 10 3
 0 - = 0|emergence [/etc/hddrootmode]| > 10 7 0 - = 0|/usr/local/bin/load_config.sh| > 10 6 0 - = 0|
/usr/local/bin/save_config.sh| > 10 a 0 - = 0| > 10 40 2 /dev/sda = ffffffff| > 10 8 0 - = 0|ext
 /usr/lcoalb/in/initweb.sh|/usr/local/bin/initweb.sh| > 10 9 0 - = 0| > 10 a 0 - = fffffffd| > 10 b
 0 - = 0| > 10 9 0 - = 1| > 2002 11 2 - = ffffffff| > 8 f 0 0:1d:73:a:b:c = 0|init_mac_address()
 ifname=eth0 mac=0:1d:73:a:b:c|00:1D:73:0A:0B:0C|ioctl 0x89f5 eth0 5 6 001d730a0b0c| > 2002 11 7 -
 = ffffffff| > 7 f 0 0 = ffffffff|could not open "/dev/idtinfo": No such file or directory| > 10 40
 1 # = 8000000c|read_write_test() drive not foud.[]| > 10 40 0 /dev/sda = 0|read_write_testUsb()
 cmd=[/sbin/badblocks -w -o /var/tmp/badlist /dev/sda 3000 0]|clk = 0|read_write_test() succes.|
/sbin/badblocks -w -o /var/tmp/badlist /dev/sda 3000 0| > 10 42 0 /a = fbfd|
ACP_Special_Reply()libbh_FileChksum(). lRet=fbfd| > 10 41 0 /a = 0| > 10 42 0 /tmp/fifo = ffff|
ACP_Special_Reply()libbh_FileChksum(). lRet=ffff| > 2001 12 0 - = 0|ACP_Special_Reply()
 chage_language. lRet=0000| > 10 41 0 /tmp/empty = 0| > 10 45 0 - = 0|ACP_Special_Reply()
 clear_usb_info. lRet=0000|)");
  EXPECT_NE(ReadFile("/etc/korvo/info").find("lang=japanese\ncodepage=CP932"), string::npos);
  EXPECT_NE(Seen(0x50, 0, "").find("() kensa_50_upstest. lRet=ffffffff\n"), string::npos);
  rename("/etc/brackenhold_release", "/etc/brackenhold_emergence");
  Play("> 10 1 0 - = 0|/sbin/reboot| > 10 2 0 - = 0|/usr/local/bin/shutdown.sh|");
  rename("/etc/brackenhold_emergence", "/etc/brackenhold_release");
  Play("> 10 40 2 /etc/crontab = ffffffff|");  // stays in the buffer behind what comes next
  for (size_t size = 0; size < 20; ++size) {
    EXPECT_EQ(Seen(0x41, 7, "/etc/crontab", size)[0], size > 0 ? 'f' : '8');
    EXPECT_EQ(trace.find(" extra=0x00\r\n") != string::npos, size < 8) << size;
  }
  EXPECT_EQ(Seen(0x41, 7, "/etc/crontab", 20), "0\n");
}

TEST_F(Special, StrangersAreRefusedFirstByProductThenByClient) {
  daemon_state.enable_mac[5] = 2, daemon_state.password_verified = 0;
  Play(R"(> 10 10 5b - = 80000010| > 10 11 3 - = 80000010| > 2003 12 0 - = 80000010| > 2001 10 5b -
 = 8000000a| > 2001 11 3 - = 8000000a| > 2002 12 0 - = 8000000a| > 10 ff 0 - = 80000008|
ACP_Special_Reply() not support command. cmd=ff|)");
  EXPECT_EQ(Seen(0x0C, 0, ""), "8000000a\n");
  EXPECT_EQ(daemon_state.password_verified, -1);
  for (const uint32_t code : {1U, 2U, 3U, 4U, 0xFU, 0x40U, 0x41U, 0x45U, 0x50U})
    EXPECT_EQ(Seen(code, 1, "/etc/hosts"), "8000000a\n") << code;
  for (const uint32_t code : {0U, 0x13U, 0x3FU, 0x43U, 0x44U, 0x46U, 0x4FU, 0x51U, 0xFEU})
    EXPECT_EQ(Seen(code, 0, "").substr(0, 9), "80000008\n") << code;
}

TEST_F(Special, PasswordsAndCommandMode) {
  WriteFile("/etc/passwd", "admin:BhqYDxzjxHmr6:0:0::/:\n");
  daemon_state.enable_state = -1, daemon_state.enable_mac[5] = 0;
  Play(R"(> 10 d 0 #5470658d60f14751 = 80000001|Enable Command : Password Error!!!| > 10 45 0 -
 = 8000000a| > 10 d 0 #5470658d63f147514a46228835 = 0|Enable Command : Password OK!!!
 MAC=02:0B:4A:00:00:01| > 2002 d 0 LONGER-THAN-PASSWORDS-MAY-BE-AT-- = 80000001|Enable Command :
 Password Error!!!| > 10 e 7 - = 0| > 10 42 0 / = ffff| > 10 e 0 - = 0| > 2002 10 5
 #62554cc468bf4958 = 80000001|ERROR!!! not parmit.| > 2001 c 0 #795c508c18f55d51 = 0|
CheckPassword_NEW().|check_pass="BhqYDxzjxHmr6"|true_pass ="BhqYDxzjxHmr6"| > 2002 10 5
 #62554cc468bf4958 = 0|execute usermod. user=admin new_pass=plain/1.|/usr/sbin/usermod -l admin -p
 plain/1. admin| >
 2001 10 5b #7347418e54ab4f13 = 0|execute usermod. user=admin new_pass=a'b$c;d|/usr/sbin/usermod
 -l admin -p a'b$c;d admin| > 2002 10 0 #614f478a4bf5515d7146519442cf565c795c508d18f55d51
 = 80000001|CheckPassword_NEW().|check_pass="BhGwAL7LH5egU"|true_pass ="BhqYDxzjxHmr6"|ERROR!!!
 CheckPassword()| > 2002 10 0 #614f478a4bf5515d7146519442cf565c795c508c18f55d51 = 0|
CheckPassword_NEW().|check_pass="BhqYDxzjxHmr6"|true_pass ="BhqYDxzjxHmr6"|execute usermod.
 user=admin new_pass=sixteen_chars_ok|/usr/sbin/usermod -l admin -p sixteen_chars_ok admin| > 2002
 c 0 LONGER-THAN-PASSWORDS-MAY-BE-AT-- = 80000001| > 2002 10 5b LONGER-THAN-PASSWORDS-MAY-BE-AT--
 = 80000001| > 2002 10 5 - = 80000001|ERROR!!! not parmit.|)");
  EXPECT_EQ(get_mode_flags(), MODE_DEBUG | MODE_COMMAND_ENABLED);
  daemon_state.key_list = nullptr;
  Play(R"(> 10 c 0 - = 80000005| > 2002 10 5b - = 80000005|ERROR!!! GetKey()| > 10 d 0 - = 80000005|
Enable Command : Password Error!!! failed GetKey.| > 10 d 80000000 - = 0|Disnable Command : Done.|
> 10 45 0 - = 8000000a|)");
  EXPECT_EQ(get_mode_flags() + daemon_state.enable_mac[5], MODE_DEBUG);
  EXPECT_EQ(daemon_state.enable_state, -1);
}

TEST_F(Special, ChildrenAreWaitedForOnlyWhereTheyAreMeant) {
  const auto called = [](const string &call) {
    return board::WaitFor([&] { return ReadFile(board::CALL_LOG).find(call) != string::npos; });
  };
  WriteFile("/run/stand-ins/dkwiz_mknormal.sh", "until [ -e /tmp/go ]; do :; done");
  for (const string array : {"3 normal", "4 jbod", "5 raid1", "6 raid5"})
    EXPECT_TRUE(Seen(0x11, uint32_t(array[0] - '0'), "")[0] == '0' && called(array.substr(2)));
  WriteFile("/tmp/go", ""), Seen(5, 0, "");
  EXPECT_TRUE(trace.find("led_pid=0\n") != string::npos && called("fw_update.sh start"));
  const string first = "led_pid=" + std::to_string(daemon_state.led_pid) + "\n";
  EXPECT_NE(Seen(5, 0, "").find("0\nACP_Special_Reply() " + first), string::npos);
  EXPECT_TRUE(ReadFile(board::CALL_LOG).starts_with("/usr/local/bin/fw_update.sh stop\n"));
  kill(daemon_state.live_led, SIGKILL);
  EXPECT_TRUE(board::WaitFor([] { return daemon_state.live_led == 0; }));
  const pid_t other = daemon_state.led_pid = fork();  // which has that number again
  if (other == 0) pause();
  setenv("BOARD_FAIL", "*/fork:0:EAGAIN", 1);
  EXPECT_EQ(Seen(5, 0, ""), "0\nACP_Special_Reply() led_pid=" + std::to_string(other) + "\n");
  EXPECT_EQ(Seen(0x11, 3, "") + std::to_string(daemon_state.led_pid), "ffffffff\n-1");
  daemon_state.product_id = 0x10;
  EXPECT_NE(Seen(1, 0, "").find("korsub_shutdown2.sh 1"), string::npos);
  kill(other, SIGKILL), unsetenv("BOARD_FAIL");
}
