// The production line: what its tests and programming print, trace, answer, run and tell drivers.

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <tuple>

#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "handlers/factory.h"
#include "handlers/mac_address.h"
#include "tests/files.h"

namespace {

using std::bind, std::string;
using namespace fixture;

// What the work prints and traces, its result, and its calls, with `fail` as BOARD_FAIL.
string Seen(const std::function<int64_t()> &work, const string &fail = "") {
  WriteFile("/var/log/calls", "");
  setenv("BOARD_FAIL", fail.c_str(), 1);
  set_mode_flags(MODE_DEBUG);
  testing::internal::CaptureStderr(), testing::internal::CaptureStdout();
  const string result = std::to_string(work()) + "\n";
  set_mode_flags(0), unsetenv("BOARD_FAIL");
  const string out = testing::internal::GetCapturedStdout() + result;
  return testing::internal::GetCapturedStderr() + out + ReadFile("/var/log/calls");
}

TEST(Factory, DrivesAreTestedUntilAPartFails) {
  const string run = "/sbin/badblocks -w -o /var/tmp/badlist /dev/", t = run + "hdb 10000 512";
  const string m = run + "hdb 2147483649 2147473649", b = run + "hdb 4294967299 4294957299";
  const string test = "read_write_test", clk = "]\nclk = 500\n", bad = " fail.\n-2147483636\n";
  const string size = "/dev/hdb 4096.000003 [GB]\nsize=4398046514688, 8589934599[sectors], ";
  const string top = size + "4294967299[blocks] test=10000\n" + test + "(top) cmd=[" + t + clk;
  const string middle = top + test + "(middle) cmd=[" + m + clk;
  const string bottom = middle + test + "(bottom) cmd=[" + b + clk;
  const string usb = test + "Usb() cmd=[" + run + "sda 3000 0" + clk, ok = test + "() succes.\n0\n";
  const std::tuple<string, string> CASES[] = {
      {"echo 1 > $3", top + test + "(top)" + bad + t + "\n"},
      {"[ $5 = 10000 ] || s=1", middle + test + "(middle)" + bad + t + "\n" + m + "\n"},
      {"[ $6 != 4294957299 ] || n=501", bottom.substr(0, bottom.size() - 2) + "1\n" + test +
                                            "(bottom)" + bad + t + "\n" + m + "\n" + b + "\n"},
      {"rm -f $3", bottom + ok + t + "\n" + m + "\n" + b + "\n"}};
  const string add = "; f=/run/board-ticks; echo $(($(cat $f) + ${n-500})) > $f; exit $s";
  WriteFile("/dev/hdb", ""), WriteFile("/run/block-size/hdb", "2863311533 1536");
  for (const auto &[hook, seen] : CASES) {
    WriteFile("/run/board-ticks", "9223372036854775000");  // wraps in the second part
    WriteFile("/run/stand-ins/badblocks", hook + add), WriteFile("/var/tmp/badlist", "");
    EXPECT_EQ(Seen(bind(read_write_test, "/dev/hdb", 10000)), seen);
  }
  EXPECT_EQ(Seen(bind(read_write_testUsb, "/dev/sda")), usb + ok + run + "sda 3000 0\n");
  WriteFile("/run/stand-ins/badblocks", "echo 1 > $3" + add);
  EXPECT_EQ(Seen(bind(read_write_testUsb, "/dev/sda")),
            usb + test + "Usb()" + bad + run + "sda 3000 0\n");

  const string zero = "/dev/hda 0.000000 [GB]\n", fail = ">kensa_GetDrivePartitionSize:fail.\n";
  const string none = test + "() drive not foud.[/dev/hda]" + bad.substr(6);
  const auto hda = bind(read_write_test, "/dev/hda", 1);
  EXPECT_EQ(Seen(hda, "*/open=/dev/hda"), none);
  EXPECT_EQ(Seen(hda, "*/ioctl=0x1268,*/ioctl=0x20001268"), fail + zero + none);
  EXPECT_EQ(Seen(hda, "*/ioctl=0x1260,*/ioctl=0x20001260"), zero + none);
  WriteFile("/run/block-size/hda", "0");
  EXPECT_EQ(Seen(hda), zero + none);
}

TEST(Factory, EverySignalOfTheUpsPortHasToFollow) {
  const string a = "ups_test_apc_sd=onups_test_apc_lf=offups_test_omron_sd=onups_test_omron_lf=";
  const string b = "ups_test_apc_sd=offups_test_apc_lf=onups_test_omron_sd=ups_test_omron_lf=";
  const string pad(157 - a.size(), '.'), x(30, 'x'), c = "/usr/bin/brdctl -a ups_test_port";
  const string apc = c + " reset\nselect 2.000000\n" + c + " apc_sd\nselect 1.000000\n" + c + "\n";
  const string both = apc + c + " omron_sd\nselect 1.000000\n" + c + "\n";
  const string miss = "brdctl -a ups_test_port fail.!!!\n", all = "0\n" + both + c + " reset\n";
  const string one = "result1:\n", two = "result2:\n", fail = "-1\n" + both;
  const string same = "kensa_50_upstest: state fail.\n" + fail;
  const std::tuple<string, string, string> CASES[] = {
      {a + "on", b + "off", one + a + "on" + two + b + "off" + all},
      {a + "on", b + "on", one + a + "on" + two + b + "on" + same},
      {pad + a + "on", x, one + pad + a + "on" + two + x + all},  // unknown is another state
      {pad + "." + a + "on", x, one + pad + "." + a + "o" + two + x + same},
      {a, x.substr(1), one + a + miss + fail}};
  WriteFile("/run/fast-sleep", "");
  WriteFile("/run/stand-ins/brdctl", "[ $3 ] && echo $3 > /run/o || cat /run/$(cat /run/o)");
  for (const auto &[first, second, seen] : CASES) {
    WriteFile("/run/apc_sd", first), WriteFile("/run/omron_sd", second);
    EXPECT_EQ(Seen(kensa_UpsPortCheck), seen);
  }
  WriteFile("/run/apc_sd", x.substr(1));
  EXPECT_EQ(Seen(kensa_50_upstest), miss + miss + miss + "-1\n" + apc + apc + apc);
  RemoveFile("/run/fast-sleep");
}

TEST(Factory, PortHasItsTimeWhateverChildEnds) {
  using Clock = std::chrono::steady_clock;
  int32_t status = 0;
  ASSERT_EQ(InstallChildHandler(), 0);
  EXPECT_GT(exec1("sleep 0.3", 0, &status), 0);
  const Clock::time_point start = Clock::now();
  EXPECT_EQ(kensa_UpsPortCheck(), -1);  // after two seconds and one: the controller says nothing
  EXPECT_GE(Clock::now() - start, std::chrono::seconds(3));
}

TEST(Factory, MarksAreWrittenWhereTheyAreMissing) {
  string ok, ng, boot("\0\0\x41\x82\0\0\0\0\0\0\0\0\0\0\0\0bootparm=root=/dev/", 35);
  for (int i = 0; i < 128; ++i)
    ok += "OK", ng += "NG";
  const string begin = "0\nioctl 0x20001273 /dev/fl3", end = "\nioctl 0x2000125d /dev/fl3 ";
  const string error = "could not open \"/dev/fl3\": Input/output error\n";
  const std::tuple<int32_t, string, string, string, string> CASES[] = {
      {0, "", "", begin + end + "4f4b4f4b\n", ok},
      {0, ok + "+", "", "0\n", ok + "+"},
      {7, ok + "+", "", begin + " 4f4b4f4b" + end + "4e474e47\n", ng + "+"},
      {0, ng, "*/open=/dev/fl3:1", error + "0\n", ng},
      {0, ng, "*/open=/dev/fl3:2", error + "-1\n", ng}};
  for (const auto &[mark, before, fail, seen, after] : CASES) {
    WriteFile("/dev/fl3", before);
    EXPECT_EQ(Seen(bind(kensa_WriteFlashMark, mark), fail), seen);
    EXPECT_EQ(ReadFile("/dev/fl3"), after);
  }
  for (const string root : {"md0", "ram0"}) {
    const auto set = bind(kensa_SetBootParam, root == "ram0");
    WriteFile("/dev/mtd2", string(257, '+'));
    EXPECT_EQ(Seen(set), "0\n/usr/sbin/eraseall /dev/mtd2\n");
    EXPECT_EQ(ReadFile("/dev/mtd2"), boot + root + string(221 - root.size(), '\0') + "\xFF");
    EXPECT_TRUE(Seen(set, "*/open=/dev/mtd2").starts_with("could not open \"/dev/mtd2\": Input"));
  }
}

TEST(Factory, MacAddressGoesToTheDriverOfEitherGeneration) {
  const auto init = bind(init_mac_address, "interface-eth-000", "0:1d:73:a:b:c");
  const auto write = bind(write_mac_address_mipsel, "2FF:123456789abcdef0123:-1: +0x5:6z7");
  const string given = "init_mac_address() ifname=interface-eth-000 mac=0:1d:73:a:b:c\n";
  const string trace = given + "00:1D:73:0A:0B:0C\n", id = " /dev/idtinfo",
               line = id + "\nioctl 0x";
  const string mac = "MAC = ff:23:ff:5:6:0\nVERIFY ", hex = id + " ff23ff050600\n",
               call = "ioctl 0x";
  const string ret = "write_mac_address_mipsel() return ret1=", last = line + "80065a06" + hex;
  const std::tuple<std::function<int64_t()>, string, string> CASES[] = {
      {init, "", trace + "0\nioctl 0x89f5 interface-eth-0 5 6 001d730a0b0c\n"},
      {init, "*/ioctl=0x89f5",
       trace + "KORVO_ETH_IOCTL_INIT_EEPROM: error=Input/output error\n0\n"},
      {init, "*/socket=2",
       "tulip eeprom_write : socket open err(FFFFFFFF)\n-1\nsocket 4\nsocket 3\nsocket 5\n"},
      {write, "",
       mac + mac.substr(0, 21) + ret + "0 ret2=0 ret3=0 ret4=0 ret5=0\n0\n" + call + "20005a03" +
           line + "20005a01" + line + "80065a04" + hex + call + "20005a02" + last},
      {write, "*/ioctl=0x20005a03,*/ioctl=0x80065a04",
       mac + "MAC = 1:2:3:4:5:6\n" + ret + "-1 ret2=0 ret3=-1 ret4=0 ret5=0\n-1\n" + call +
           "20005a01" + line + "20005a02" + last},
      {write, "*/open=/dev/idtinfo", "could not open \"/dev/idtinfo\": Input/output error\n-1\n"}};
  for (const auto &[work, fail, seen] : CASES) {
    WriteFile("/dev/idtinfo", "\1\2\3\4\5\6");
    EXPECT_EQ(Seen(work, fail), seen);
  }
}

}  // namespace
