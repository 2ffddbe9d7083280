// The production line: what its tests and programming print, trace, answer, run and tell drivers.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>

#include "acp/packet.h"
#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "handlers/factory.h"
#include "handlers/mac_address.h"
#include "tests/files.h"

namespace {

using namespace fixture;
using std::string;
using Work = std::function<int64_t()>;

struct Outcome {
  int64_t result;
  string printed;  // on standard error, then on standard output with the trace
  string calls;
};

// Runs the work with `fail` as BOARD_FAIL.
Outcome Observe(const Work &work, const string &fail = "") {
  WriteFile("/var/log/calls", "");
  setenv("BOARD_FAIL", fail.c_str(), 1);
  set_mode_flags(MODE_DEBUG);
  testing::internal::CaptureStderr();
  testing::internal::CaptureStdout();
  const int64_t result = work();
  set_mode_flags(0);
  unsetenv("BOARD_FAIL");
  const string out = testing::internal::GetCapturedStdout();
  return {result, testing::internal::GetCapturedStderr() + out, ReadFile("/var/log/calls")};
}

void ExpectOutcome(const Outcome &seen, int64_t result, const string &printed,
                   const string &calls) {
  EXPECT_EQ(seen.result, result);
  EXPECT_EQ(seen.printed, printed);
  EXPECT_EQ(seen.calls, calls);
}

constexpr int64_t FAILED = static_cast<int32_t>(ACP_STATE_TEST_FAIL);

class Drives : public testing::Test {
 protected:
  // Each run of badblocks does `script` and then takes `ticks`.
  static void SetBadblocks(const string &script) {
    WriteFile("/run/stand-ins/badblocks",
              "ticks=500; status=0; " + script +
                  "; f=/run/board-ticks; echo $(($(cat $f) + ticks)) > $f; exit $status");
    WriteFile("/run/board-ticks", "9223372036854775000");  // wraps in the second run
    WriteFile("/var/tmp/badlist", "");
  }
};

TEST_F(Drives, AreTestedUntilAPartFails) {
  const string run = "/sbin/badblocks -w -o /var/tmp/badlist /dev/hdb ";
  const string top = run + "10000 512";
  const string middle = run + "2147483649 2147473649";
  const string bottom = run + "4294967299 4294957299";
  const string size =
      "/dev/hdb 4096.000003 [GB]\n"
      "size=4398046514688, 8589934599[sectors], 4294967299[blocks] test=10000\n";
  const auto traced = [](const string &part, const string &command, int ticks = 500) {
    return "read_write_test(" + part + ") cmd=[" + command + "]\nclk = " + std::to_string(ticks) +
           "\n";
  };
  const string to_middle = size + traced("top", top) + traced("middle", middle);
  const struct {
    const char *name;
    string badblocks;
    int64_t result;
    string printed;
    string calls;
  } cases[] = {
      {"a bad block at the top", "echo 1 > $3", FAILED,
       size + traced("top", top) + "read_write_test(top) fail.\n", top + "\n"},
      {"an error in the middle", "[ $5 = 10000 ] || status=1", FAILED,
       to_middle + "read_write_test(middle) fail.\n", top + "\n" + middle + "\n"},
      {"too slow at the bottom", "[ $6 != 4294957299 ] || ticks=501", FAILED,
       to_middle + traced("bottom", bottom, 501) + "read_write_test(bottom) fail.\n",
       top + "\n" + middle + "\n" + bottom + "\n"},
      {"all is well", "rm -f $3", 0,
       to_middle + traced("bottom", bottom) + "read_write_test() succes.\n",
       top + "\n" + middle + "\n" + bottom + "\n"},
  };
  WriteFile("/dev/hdb", "");
  WriteFile("/run/block-size/hdb", "2863311533 1536");
  for (const auto &each : cases) {
    SCOPED_TRACE(each.name);
    SetBadblocks(each.badblocks);
    ExpectOutcome(Observe([] { return read_write_test("/dev/hdb", 10000); }), each.result,
                  each.printed, each.calls);
  }
}

TEST_F(Drives, OnUsbAreTestedAtTheirStart) {
  const string run = "/sbin/badblocks -w -o /var/tmp/badlist /dev/sda 3000 0";
  const string traced = "read_write_testUsb() cmd=[" + run + "]\nclk = 500\n";
  const Work work = [] { return read_write_testUsb("/dev/sda"); };
  SetBadblocks("rm -f $3");
  ExpectOutcome(Observe(work), 0, traced + "read_write_test() succes.\n", run + "\n");
  SetBadblocks("echo 1 > $3");
  ExpectOutcome(Observe(work), FAILED, traced + "read_write_testUsb() fail.\n", run + "\n");
}

TEST_F(Drives, WithoutASizeAreNotThere) {
  const string none = "read_write_test() drive not foud.[/dev/hda]\n";
  const string zero = "/dev/hda 0.000000 [GB]\n";
  const struct {
    const char *fail;
    string printed;
  } cases[] = {
      {"*/open=/dev/hda", none},
      {"*/ioctl=0x1268,*/ioctl=0x20001268", ">kensa_GetDrivePartitionSize:fail.\n" + zero + none},
      {"*/ioctl=0x1260,*/ioctl=0x20001260", zero + none},
      {"", zero + none},  // no medium
  };
  WriteFile("/run/block-size/hda", "0");
  for (const auto &each : cases) {
    SCOPED_TRACE(each.fail);
    const Outcome seen = Observe([] { return read_write_test("/dev/hda", 1); }, each.fail);
    EXPECT_EQ(seen.result, FAILED);
    EXPECT_EQ(seen.printed, each.printed);
  }
}

class UpsPort : public testing::Test {
 protected:
  void SetUp() override {
    WriteFile("/run/fast-sleep", "");
    WriteFile("/run/stand-ins/brdctl", "[ $3 ] && echo $3 > /run/o || cat /run/$(cat /run/o)");
  }
  void TearDown() override {
    RemoveFile("/run/fast-sleep");
    RemoveFile("/run/stand-ins/brdctl");
  }

  const string command = "/usr/bin/brdctl -a ups_test_port";
  const string first_calls = command + " reset\nselect 2.000000\n" + command +
                             " apc_sd\nselect 1.000000\n" + command + "\n";
  const string both_calls = first_calls + command + " omron_sd\nselect 1.000000\n" + command + "\n";
};

TEST_F(UpsPort, EverySignalHasToFollow) {
  const string driven =
      "ups_test_apc_sd=onups_test_apc_lf=offups_test_omron_sd=onups_test_omron_lf=";
  const string released =
      "ups_test_apc_sd=offups_test_apc_lf=onups_test_omron_sd=ups_test_omron_lf=";
  const string unknown(30, 'x');
  const string padding(157 - driven.size(), '.');  // the report's buffer holds 159 characters
  const struct {
    const char *name;
    string first, second;  // reports
    int64_t result;
    string trace;
    string calls;
  } cases[] = {
      {"all follow", driven + "on", released + "off", 0,
       "result1:\n" + driven + "onresult2:\n" + released + "off",
       both_calls + command + " reset\n"},
      {"the last does not", driven + "on", released + "on", -1,
       "result1:\n" + driven + "onresult2:\n" + released + "onkensa_50_upstest: state fail.\n",
       both_calls},
      {"unknown is another state", padding + driven + "on", unknown, 0,
       "result1:\n" + padding + driven + "onresult2:\n" + unknown,
       both_calls + command + " reset\n"},
      {"the last is cut off", padding + "." + driven + "on", unknown, -1,
       "result1:\n" + padding + "." + driven + "oresult2:\n" + unknown +
           "kensa_50_upstest: state fail.\n",
       both_calls},
      {"a short report", driven, unknown.substr(1), -1,
       "result1:\n" + driven + "brdctl -a ups_test_port fail.!!!\n", both_calls},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.name);
    WriteFile("/run/apc_sd", each.first);
    WriteFile("/run/omron_sd", each.second);
    ExpectOutcome(Observe(kensa_UpsPortCheck), each.result, each.trace, each.calls);
  }
}

TEST_F(UpsPort, IsTriedThreeTimes) {
  WriteFile("/run/apc_sd", "");
  const string trace = "brdctl -a ups_test_port fail.!!!\n";
  ExpectOutcome(Observe(kensa_50_upstest), -1, trace + trace + trace,
                first_calls + first_calls + first_calls);
}

TEST(UpsPortTime, IsNotCutShortByAChildThatEnds) {
  using Clock = std::chrono::steady_clock;
  int32_t status = 0;
  ASSERT_EQ(InstallChildHandler(), 0);
  ASSERT_GT(exec1("sleep 0.3", 0, &status), 0);
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(kensa_UpsPortCheck(), -1);  // after two seconds and one: the controller says nothing
  EXPECT_GE(Clock::now() - start, std::chrono::seconds(3));
}

TEST(Flash, IsMarkedWhereTheMarkIsMissing) {
  string ok;
  string bad;
  for (int i = 0; i < 128; ++i) {
    ok += "OK";
    bad += "NG";
  }
  const string error = "could not open \"/dev/fl3\": Input/output error\n";
  const string begin = "ioctl 0x20001273 /dev/fl3";
  const string end = "\nioctl 0x2000125d /dev/fl3 ";
  const struct {
    const char *name;
    int32_t ng;
    string before;
    const char *fail;
    int64_t result;
    string printed;
    string calls;
    string after;
  } cases[] = {
      {"a fresh flash", 0, "", "", 0, "", begin + end + "4f4b4f4b\n", ok},
      {"a marked one", 0, ok + "+", "", 0, "", "", ok + "+"},
      {"another mark", 7, ok + "+", "", 0, "", begin + " 4f4b4f4b" + end + "4e474e47\n", bad + "+"},
      {"one that cannot be read", 0, bad, "*/open=/dev/fl3:1", 0, error, "", bad},
      {"one that cannot be written", 0, bad, "*/open=/dev/fl3:2", -1, error, "", bad},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.name);
    WriteFile("/dev/fl3", each.before);
    ExpectOutcome(Observe([&] { return kensa_WriteFlashMark(each.ng); }, each.fail), each.result,
                  each.printed, each.calls);
    EXPECT_EQ(ReadFile("/dev/fl3"), each.after);
  }
}

TEST(Flash, TakesTheBootParameters) {
  const string head("\0\0\x41\x82\0\0\0\0\0\0\0\0\0\0\0\0", 16);
  const struct {
    int32_t ramdisk;
    string text;
  } cases[] = {{0, "bootparm=root=/dev/md0"}, {1, "bootparm=root=/dev/ram0"}};
  for (const auto &each : cases) {
    const Work set = [&] { return kensa_SetBootParam(each.ramdisk); };
    WriteFile("/dev/mtd2", string(257, '+'));
    ExpectOutcome(Observe(set), 0, "", "/usr/sbin/eraseall /dev/mtd2\n");
    string block = head + each.text;
    block.resize(256);
    EXPECT_EQ(ReadFile("/dev/mtd2"), block.append("\xFF"));
    EXPECT_EQ(Observe(set, "*/open=/dev/mtd2").result, -1);
  }
}

TEST(MacAddress, GoesThroughTheNetworkDriver) {
  const string trace =
      "init_mac_address() ifname=interface-eth-000 mac=0:1d:73:a:b:c\n00:1D:73:0A:0B:0C\n";
  const Work work = [] { return init_mac_address("interface-eth-000", "0:1d:73:a:b:c"); };
  ExpectOutcome(Observe(work), 0, trace, "ioctl 0x89f5 interface-eth-0 5 6 001d730a0b0c\n");
  ExpectOutcome(Observe(work, "*/ioctl=0x89f5"), 0,
                trace + "KORVO_ETH_IOCTL_INIT_EEPROM: error=Input/output error\n", "");
  ExpectOutcome(Observe(work, "*/socket=2"), -1, "tulip eeprom_write : socket open err(FFFFFFFF)\n",
                "socket 4\nsocket 3\nsocket 5\n");  // the other families are asked too
}

TEST(MacAddress, GoesThroughTheIdentityDevice) {
  // Low bytes count, signs and prefixes are taken, and what is missing is 0.
  const Work work = [] { return write_mac_address_mipsel("2FF:123456789abcdef0123:-1: +0x5:6z7"); };
  const string given = "MAC = ff:23:ff:5:6:0\n";
  const string device = " /dev/idtinfo";
  const string mac = device + " ff23ff050600\n";
  const struct {
    const char *fail;
    int64_t result;
    string printed;
    string calls;
  } cases[] = {
      {"", 0,
       given + "VERIFY MAC = ff:23:ff:5:6:0\n"
               "write_mac_address_mipsel() return ret1=0 ret2=0 ret3=0 ret4=0 ret5=0\n",
       "ioctl 0x20005a03" + device + "\nioctl 0x20005a01" + device + "\nioctl 0x80065a04" + mac +
           "ioctl 0x20005a02" + device + "\nioctl 0x80065a06" + mac},
      {"*/ioctl=0x20005a03,*/ioctl=0x80065a04", -1,
       given + "VERIFY MAC = 1:2:3:4:5:6\n"
               "write_mac_address_mipsel() return ret1=-1 ret2=0 ret3=-1 ret4=0 ret5=0\n",
       "ioctl 0x20005a01" + device + "\nioctl 0x20005a02" + device + "\nioctl 0x80065a06" + mac},
      {"*/open=/dev/idtinfo", -1, "could not open \"/dev/idtinfo\": Input/output error\n", ""},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.fail);
    WriteFile("/dev/idtinfo", "\1\2\3\4\5\6");
    ExpectOutcome(Observe(work, each.fail), each.result, each.printed, each.calls);
  }
}

}  // namespace
