// Special commands on a board: what each answers, traces and runs, who is refused and in which
// order, passwords and command mode, and children that end whenever they like.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <ctime>

#include "access/keys.h"
#include "acp/convert.h"
#include "board/board.h"
#include "board/client_end.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "handlers/special.h"
#include "tests/files.h"

namespace {

using namespace fixture;
using std::string;

constexpr uint32_t FIRST_FAMILY = 0x10;
constexpr uint32_t ZEPH = 0x2001;
constexpr uint32_t OTHER_ZEPH = 0x2002;

// A text that decodes to more than a password's buffer holds.
constexpr char TOO_LONG[] = "LONGER-THAN-PASSWORDS-MAY-BE-AT--";

struct Case {
  uint32_t product;
  uint32_t code;
  uint32_t extra;
  string text;
  uint32_t result;
  string trace = {};  // between the request's line and the result's
  string calls = {};
};

class Special : public testing::Test {
 protected:
  void SetUp() override {
    daemon_state.ifname = "eth0";
    daemon_state.product_id = OTHER_ZEPH;
    daemon_state.key_list = &key;
    daemon_state.enable_state = 0;
    std::copy_n(key.mac, MAC_SIZE, daemon_state.enable_mac);
    daemon_state.password_verified = -1;
    set_mode_flags(MODE_DEBUG);
    InstallSignalHandlers();
    InstallChildHandler();
    ClaimServer();
    client = wire::Open("eth0");
    alarm(60);
  }

  // Every child of a command must have been collected.
  void TearDown() override {
    EXPECT_TRUE(board::WaitFor([] { return waitpid(-1, nullptr, WNOHANG) == -1; })) << "a zombie";
  }

  // Sends the body; its result, with the trace in `trace`.
  uint32_t Send(const wire::Bytes &body) {
    const wire::Bytes datagram = wire::Request(ACP_SPECIAL, body);
    wire::Deliver(client, datagram, request);
    SwapAcpHeader({request.packet, datagram.size()}, Conversion::TO_HOST);
    WriteFile(board::CALL_LOG, "");
    testing::internal::CaptureStdout();
    ACP_Special_Reply(request);
    trace = testing::internal::GetCapturedStdout();
    const std::vector<wire::Bytes> sent = wire::ReplyFrames(client);
    if (sent.size() != 1 || sent[0].size() != 74) {
      ADD_FAILURE() << sent.size() << " replies";
      return 0;
    }
    EXPECT_EQ(wire::Part(sent[0], 42, 28),
              wire::Hex("20000000 07000100 A0C00000 00000000 020b4a000010 020b4a000001"));
    return wire::Number(sent[0], 70);
  }

  uint32_t Send(uint32_t code, uint32_t extra = 0, const string &text = "") {
    wire::Bytes body = {static_cast<uint8_t>(code), 1, 2, 3};
    wire::Append(body, extra);
    wire::Append(body, wire::Text(text, text.size() + 1));
    return Send(body);
  }

  // What stands in the trace between its first and its last line.
  string Middle(uint32_t code, uint32_t result) const {
    char last[64];
    snprintf(last, sizeof(last), "ACP_Special_Reply() cmd=%02x lRet=0x%x\n", code, result);
    const string middle = trace.substr(trace.find('\n') + 1);
    EXPECT_TRUE(middle.ends_with(last)) << trace;
    return middle.substr(0, middle.rfind(last));
  }

  void Play(const std::vector<Case> &cases) {
    for (const Case &each : cases) {
      char name[64];
      snprintf(name, sizeof(name), "product 0x%x, command 0x%02x, extra 0x%x, text ", each.product,
               each.code, each.extra);
      SCOPED_TRACE(name + each.text);
      daemon_state.product_id = each.product;
      const uint32_t result = Send(each.code, each.extra, each.text);
      EXPECT_EQ(result, each.result);
      EXPECT_EQ(Middle(each.code, result), each.trace);
      EXPECT_EQ(ReadFile(board::CALL_LOG), each.calls);
    }
  }

  KeyEntry key = {nullptr, 0x12345678, {2, 0xb, 0x4a, 0, 0, 1}, uint32_t(time(nullptr))};
  AcpRequest request = {};
  wire::Client client;
  string trace;
};

// A text of bytes written in hexadecimal: an encoded password.
string Encoded(std::string_view digits) {
  const wire::Bytes bytes = wire::Hex(digits);
  return {bytes.begin(), bytes.end()};
}

bool IsCalled(const string &call) {
  return board::WaitFor([&] { return ReadFile(board::CALL_LOG).find(call) != string::npos; });
}

TEST_F(Special, PowerCommandsRunWhatTheProductHas) {
  Play({
      {FIRST_FAMILY, SPECIAL_REBOOT, 0, "", 0, "libbh_Reboot(). lRet=0x0\n",
       "/www/script/korsub_shutdown2.sh 1\n"},
      {FIRST_FAMILY, SPECIAL_SHUTDOWN, 0, "", 0, "libbh_Shutdown(). lRet=0x0\n",
       "/www/script/korsub_shutdown2.sh 2\n"},
      {ZEPH, SPECIAL_REBOOT, 0, "", 0, "libbh_Reboot(). lRet=0x0\n", "/sbin/reboot\n"},
      {OTHER_ZEPH, SPECIAL_SHUTDOWN, 0, "", 0, "", "/usr/local/bin/shutdown.sh\n"},
  });
  rename("/etc/brackenhold_release", "/etc/brackenhold_emergence");
  Play({
      {FIRST_FAMILY, SPECIAL_REBOOT, 0, "", 0, "", "/sbin/reboot\n"},
      {FIRST_FAMILY, SPECIAL_SHUTDOWN, 0, "", 0, "", "/usr/local/bin/shutdown.sh\n"},
  });
  rename("/etc/brackenhold_emergence", "/etc/brackenhold_release");
}

TEST_F(Special, ScriptsRunAndTheirStatusStaysHere) {
  for (const string script : {"save_config.sh", "load_config.sh", "initweb.sh"})
    WriteFile("/run/stand-ins/" + script, "exit 3");
  Play({
      {FIRST_FAMILY, SPECIAL_BOOT_DISK, 0, "", 0, "not emergence [/etc/hddrootmode]\n"},
      {FIRST_FAMILY, SPECIAL_BOOT_EMERGENCY, 0, "", 0, "emergence [/etc/hddrootmode]\n"},
      {FIRST_FAMILY, SPECIAL_LOAD_CONFIG, 0, "", 0, "", "/usr/local/bin/load_config.sh\n"},
      {FIRST_FAMILY, SPECIAL_SAVE_CONFIG, 0, "", 0, "", "/usr/local/bin/save_config.sh\n"},
      {FIRST_FAMILY, SPECIAL_INIT_WEB, 0, "", 0, "ext /usr/lcoalb/in/initweb.sh\n",
       "/usr/local/bin/initweb.sh\n"},
      {FIRST_FAMILY, SPECIAL_CLEAR_USB, 0, "", 0,
       "ACP_Special_Reply() clear_usb_info. lRet=0000\n"},
      {ZEPH, SPECIAL_SET_LANGUAGE, LANGUAGE_JAPANESE, "", 0,
       "ACP_Special_Reply() chage_language. lRet=0000\n"},
  });
  EXPECT_NE(ReadFile("/etc/korvo/info").find("lang=japanese\ncodepage=CP932"), string::npos);
}

TEST_F(Special, LockIsTheDaemonsUntilItIsReleased) {
  Play({
      {FIRST_FAMILY, SPECIAL_UNLOCK, 0, "", 0xFFFFFFFF},  // there is none yet
      {FIRST_FAMILY, SPECIAL_LOCK, 0, "", 0},
      {FIRST_FAMILY, SPECIAL_CHECK_LOCK, 0, "", 0},
      {FIRST_FAMILY, SPECIAL_LOCK, 0, "", 0xFFFFFFFD},
      {FIRST_FAMILY, SPECIAL_UNLOCK, 0, "", 0},
      {FIRST_FAMILY, SPECIAL_CHECK_LOCK, 0, "", 1},
  });
}

TEST_F(Special, MacAddressGoesWhereTheProductKeepsIt) {
  unlink("/dev/idtinfo");
  Play({
      {8, SPECIAL_SET_MAC, 0, "0:1d:73:a:b:c", 0,
       "init_mac_address() ifname=eth0 mac=0:1d:73:a:b:c\n00:1D:73:0A:0B:0C\n",
       "ioctl 0x89f5 eth0 5 6 001d730a0b0c\n"},
      {7, SPECIAL_SET_MAC, 0, "0", 0xFFFFFFFF,
       "could not open \"/dev/idtinfo\": No such file or directory\n"},
  });
}

TEST_F(Special, DrivesAndFilesAreTestedSummedAndRemoved) {
  WriteFile("/run/board-ticks", "7");
  WriteFile("/a", "\4\2");
  mkdir("/tmp/empty", 0700);
  mkfifo("/tmp/fifo", 0600);
  const string badblocks = "/sbin/badblocks -w -o /var/tmp/badlist /dev/sda 3000 0";
  const string summed = "ACP_Special_Reply()libbh_FileChksum(). lRet=";
  Play({
      {FIRST_FAMILY, SPECIAL_TEST_DRIVE, TESTED_REMOVABLE, "/dev/sda", 0,
       "read_write_testUsb() cmd=[" + badblocks + "]\nclk = 0\nread_write_test() succes.\n",
       badblocks + "\n"},
      {FIRST_FAMILY, SPECIAL_TEST_DRIVE, TESTED_DISK, "", 0x8000000C,
       "read_write_test() drive not foud.[]\n"},
      {FIRST_FAMILY, SPECIAL_TEST_DRIVE, 2, "/dev/sda", 0xFFFFFFFF},
      {FIRST_FAMILY, SPECIAL_FILE_CHECKSUM, 0, "/a", 0xFBFD, summed + "fbfd\n"},
      {FIRST_FAMILY, SPECIAL_FILE_CHECKSUM, 0, "/tmp/fifo", 0xFFFF, summed + "ffff\n"},
      {FIRST_FAMILY, SPECIAL_REMOVE_FILE, 0, "/a", 0},
      {FIRST_FAMILY, SPECIAL_REMOVE_FILE, 0, "/tmp/empty", 0},
      {FIRST_FAMILY, SPECIAL_REMOVE_FILE, 0, "/tmp", 0xFFFFFFFF},
      {FIRST_FAMILY, SPECIAL_REMOVE_FILE, 0, "", 0xFFFFFFFF},
  });
  WriteFile("/run/fast-sleep", "");
  EXPECT_EQ(Send(SPECIAL_TEST_UPS), 0xFFFFFFFF);
  EXPECT_NE(trace.find("() kensa_50_upstest. lRet=ffffffff\n"), string::npos);
}

TEST_F(Special, WhatABodyLacksReadsAsZero) {
  wire::Bytes body = {SPECIAL_REMOVE_FILE, 0, 0, 0};
  wire::Append(body, 7);
  wire::Append(body, wire::Text("/etc/crontab"));
  Send(SPECIAL_TEST_DRIVE, 2, "/etc/crontab");  // stays in the buffer behind what comes next
  for (size_t size = 0; size < body.size(); ++size) {
    const uint32_t result = Send(wire::Part(body, 0, size));
    EXPECT_EQ(result, size > 0 ? ACP_STATE_FAILURE : ACP_STATE_NOT_SUPPORT) << size;
    const bool has_extra = trace.find(" extra=0x07\r\n") != string::npos;
    EXPECT_EQ(has_extra, size >= sizeof(SpecialRequest)) << size;
  }
  EXPECT_EQ(Send(body), 0U);
}

TEST_F(Special, StrangersAreRefusedFirstByProductThenByClient) {
  daemon_state.enable_mac[5] = 2;
  Play({
      {FIRST_FAMILY, SPECIAL_CHANGE_PASSWORD, 0, "", ACP_STATE_BAD_PRODUCT},
      {FIRST_FAMILY, SPECIAL_CREATE_RAID, 0, "", ACP_STATE_BAD_PRODUCT},
      {0x2003, SPECIAL_SET_LANGUAGE, 0, "", ACP_STATE_BAD_PRODUCT},
      {ZEPH, SPECIAL_CHANGE_PASSWORD, 0, "", ACP_STATE_NOT_PERMIT},
      {ZEPH, SPECIAL_CREATE_RAID, 0, "", ACP_STATE_NOT_PERMIT},
      {OTHER_ZEPH, SPECIAL_SET_LANGUAGE, 0, "", ACP_STATE_NOT_PERMIT},
      {FIRST_FAMILY, 0xFF, 0, "", ACP_STATE_NOT_SUPPORT,
       "ACP_Special_Reply() not support command. cmd=ff\n"},
  });
  for (const uint32_t code : {SPECIAL_REBOOT, SPECIAL_SHUTDOWN, SPECIAL_BOOT_EMERGENCY,
                              SPECIAL_BOOT_DISK, SPECIAL_SET_MAC, SPECIAL_TEST_DRIVE,
                              SPECIAL_REMOVE_FILE, SPECIAL_CLEAR_USB, SPECIAL_TEST_UPS})
    EXPECT_EQ(Send(code, 1, "/etc/hostname"), ACP_STATE_NOT_PERMIT) << code;
  for (const uint32_t code : {0U, 0x13U, 0x3FU, 0x43U, 0x44U, 0x46U, 0x4FU, 0x51U, 0xFEU})
    EXPECT_EQ(Send(code), ACP_STATE_NOT_SUPPORT) << code;
}

TEST_F(Special, VerificationEndsWithTheNextOneWhoeverAsks) {
  daemon_state.enable_mac[5] = 2;
  daemon_state.password_verified = 0;
  EXPECT_EQ(Send(SPECIAL_VERIFY_PASSWORD), ACP_STATE_NOT_PERMIT);
  EXPECT_EQ(daemon_state.password_verified, -1);
}

TEST_F(Special, CommandModeIsEnabledByThePassPhraseForOneClient) {
  daemon_state.enable_state = -1;
  daemon_state.enable_mac[5] = 0;
  Play({
      {FIRST_FAMILY, SPECIAL_COMMAND_MODE, 0, Encoded("5470658d60f14751"), ACP_STATE_PASSWORD_ERROR,
       "Enable Command : Password Error!!!\n"},
      {FIRST_FAMILY, SPECIAL_COMMAND_MODE, 0, TOO_LONG, ACP_STATE_PASSWORD_ERROR,
       "Enable Command : Password Error!!!\n"},
      {FIRST_FAMILY, SPECIAL_CLEAR_USB, 0, "", ACP_STATE_NOT_PERMIT},
      {FIRST_FAMILY, SPECIAL_COMMAND_MODE, 0, Encoded("5470658d63f147514a46228835"), 0,
       "Enable Command : Password OK!!! MAC=02:0B:4A:00:00:01\n"},
  });
  EXPECT_EQ(get_mode_flags(), MODE_DEBUG | MODE_COMMAND_ENABLED);
  Play({
      {FIRST_FAMILY, SPECIAL_COMMAND_MODE, 0x80000000, "", 0, "Disnable Command : Done.\n"},
      {FIRST_FAMILY, SPECIAL_CLEAR_USB, 0, "", ACP_STATE_NOT_PERMIT},
  });
  EXPECT_EQ(get_mode_flags(), MODE_DEBUG);
  EXPECT_EQ(daemon_state.enable_mac[5], 0);
  EXPECT_EQ(daemon_state.enable_state, -1);
}

TEST_F(Special, TraceIsSwitched) {
  EXPECT_EQ(Send(SPECIAL_TRACE, 7), 0U);
  EXPECT_EQ(get_mode_flags(), 0U);
  EXPECT_EQ(Send(SPECIAL_TRACE, SWITCH_ON), 0U);
  EXPECT_EQ(get_mode_flags(), MODE_DEBUG);
}

TEST_F(Special, PasswordIsVerifiedAndChanged) {
  WriteFile("/etc/passwd", "admin:BhqYDxzjxHmr6:0:0::/:\n");
  WriteFile("/run/stand-ins/usermod", "exit 3");  // which nobody is told
  const string right =
      "CheckPassword_NEW().\ncheck_pass=\"BhqYDxzjxHmr6\"\n"
      "true_pass =\"BhqYDxzjxHmr6\"\n";
  const string wrong =
      "CheckPassword_NEW().\ncheck_pass=\"BhGwAL7LH5egU\"\n"
      "true_pass =\"BhqYDxzjxHmr6\"\nERROR!!! CheckPassword()\n";
  const string changed = "execute usermod. user=admin new_pass=";
  const string usermod = "/usr/sbin/usermod -l admin -p ";
  // Sixteen bytes of new password, then the old one.
  const string by_wrong = Encoded("614f478a4bf5515d7146519442cf565c 795c508d18f55d51");
  const string by_right = Encoded("614f478a4bf5515d7146519442cf565c 795c508c18f55d51");
  Play({
      {OTHER_ZEPH, SPECIAL_CHANGE_PASSWORD, 5, Encoded("62554cc468bf4958"),
       ACP_STATE_PASSWORD_ERROR, "ERROR!!! not parmit.\n"},
      {ZEPH, SPECIAL_VERIFY_PASSWORD, 0, Encoded("795c508c18f55d51"), 0, right},
      {OTHER_ZEPH, SPECIAL_CHANGE_PASSWORD, 5, Encoded("62554cc468bf4958"), 0,
       changed + "plain/1.\n", usermod + "plain/1. admin\n"},
      {ZEPH, SPECIAL_CHANGE_PASSWORD, PROOF_NONE, Encoded("7347418e54ab4f13"), 0,
       changed + "a'b$c;d\n", usermod + "a'b$c;d admin\n"},
      {OTHER_ZEPH, SPECIAL_CHANGE_PASSWORD, PROOF_OLD_PASSWORD, by_wrong, ACP_STATE_PASSWORD_ERROR,
       wrong},
      {OTHER_ZEPH, SPECIAL_CHANGE_PASSWORD, PROOF_OLD_PASSWORD, by_right, 0,
       right + changed + "sixteen_chars_ok\n", usermod + "sixteen_chars_ok admin\n"},
      {OTHER_ZEPH, SPECIAL_CHANGE_PASSWORD, PROOF_NONE, TOO_LONG, ACP_STATE_PASSWORD_ERROR},
      {OTHER_ZEPH, SPECIAL_VERIFY_PASSWORD, 0, TOO_LONG, ACP_STATE_PASSWORD_ERROR},
      {OTHER_ZEPH, SPECIAL_CHANGE_PASSWORD, 5, "", ACP_STATE_PASSWORD_ERROR,
       "ERROR!!! not parmit.\n"},
  });
}

TEST_F(Special, WithoutAKeyNoPasswordIsTaken) {
  daemon_state.key_list = nullptr;
  Play({
      {FIRST_FAMILY, SPECIAL_VERIFY_PASSWORD, 0, "", ACP_STATE_NO_KEY},
      {OTHER_ZEPH, SPECIAL_CHANGE_PASSWORD, PROOF_NONE, "", ACP_STATE_NO_KEY,
       "ERROR!!! GetKey()\n"},
      {FIRST_FAMILY, SPECIAL_COMMAND_MODE, 0, "", ACP_STATE_NO_KEY,
       "Enable Command : Password Error!!! failed GetKey.\n"},
  });
}

TEST_F(Special, ArraysAreMadeWhileTheServerGoesOn) {
  const struct {
    uint32_t kind;
    const char *script;
  } arrays[] = {{RAID_KIND_NORMAL, "dkwiz_mknormal.sh"},
                {RAID_KIND_JBOD, "dkwiz_mkjbod.sh"},
                {RAID_KIND_RAID1, "dkwiz_mkraid1.sh"},
                {RAID_KIND_RAID5, "dkwiz_mkraid5.sh"}};
  WriteFile("/run/stand-ins/dkwiz_mknormal.sh", "until [ -e /tmp/go ]; do :; done");
  for (const auto &array : arrays) {
    EXPECT_EQ(Send(SPECIAL_CREATE_RAID, array.kind), 0U) << array.script;
    EXPECT_TRUE(IsCalled(array.script)) << array.script;
  }
  WriteFile("/tmp/go", "");
  EXPECT_EQ(Send(SPECIAL_CREATE_RAID, 2), ACP_STATE_FAILURE);
  EXPECT_EQ(Send(SPECIAL_CREATE_RAID, 7), ACP_STATE_FAILURE);
}

TEST_F(Special, BlinkWaitsForTheBlinkBeforeIt) {
  WriteFile("/run/fast-sleep", "");
  EXPECT_EQ(Send(SPECIAL_BLINK), 0U);
  EXPECT_NE(trace.find("led_pid=0\n"), string::npos);
  EXPECT_TRUE(IsCalled("fw_update.sh start"));
  const string first = "led_pid=" + std::to_string(daemon_state.led_pid) + "\n";
  EXPECT_EQ(Send(SPECIAL_BLINK), 0U);
  EXPECT_NE(trace.find(first), string::npos);
  EXPECT_TRUE(ReadFile(board::CALL_LOG).starts_with("/usr/local/bin/fw_update.sh stop\n"));
}

TEST_F(Special, BlinkDoesNotWaitForAnotherChildWithTheOldNumber) {
  EXPECT_EQ(Send(SPECIAL_BLINK), 0U);
  kill(daemon_state.live_led, SIGKILL);
  EXPECT_TRUE(board::WaitFor([] { return daemon_state.live_led == 0; }));
  const pid_t other = daemon_state.led_pid = fork();
  if (other == 0) pause();
  setenv("BOARD_FAIL", "*/fork:0:EAGAIN", 1);
  EXPECT_EQ(Send(SPECIAL_BLINK), 0U);
  EXPECT_NE(trace.find("led_pid=" + std::to_string(other) + "\n"), string::npos);
  EXPECT_EQ(daemon_state.led_pid, -1);
  kill(other, SIGKILL);
  unsetenv("BOARD_FAIL");
}

TEST_F(Special, WithoutAProcessArraysFailAndThePowerScriptRunsAllTheSame) {
  setenv("BOARD_FAIL", "*/fork:0:EAGAIN", 1);
  EXPECT_EQ(Send(SPECIAL_CREATE_RAID, RAID_KIND_NORMAL), ACP_STATE_FAILURE);
  daemon_state.product_id = FIRST_FAMILY;
  EXPECT_EQ(Send(SPECIAL_REBOOT), 0U);
  unsetenv("BOARD_FAIL");
  EXPECT_NE(ReadFile(board::CALL_LOG).find("korsub_shutdown2.sh 1"), string::npos);
}

}  // namespace
