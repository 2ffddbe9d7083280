// bhctl without a network: what it prints, its inventory, its command line.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tests/bytes.h"
#include "tools/bhctl/commands.h"
#include "tools/bhctl/discover.h"
#include "tools/bhctl/inventory.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/progress.h"
#include "tools/bhctl/text.h"

namespace {

using namespace bhctl;
using std::string;
using std::vector;

// Cuts the text or pads it with zeros.
string Field(string text, size_t width) {
  text.resize(width);
  return text;
}

// Texts that fill their fields, control characters, bytes that are not UTF-8.
string DiscoverBody() {
  return Hex("0B0CA8C0 00FEFFFF 52000000 01234567") + "host-of-16-bytes" +
         Field("WORK\xFF\x1B", 16) + Field("Bracken\x1B[1m\xFF", 64) + Hex("0000 2502") + Zeros(8) +
         Hex("E807 0200 1D00 1700 3B00 3A00 010CA8C0") + Zeros(16) + Hex("010A 0000 0120AABB") +
         Field("2024/2/28 9:08:07", 24) + Letters(31) + Hex("00 02 03 01") + Field("HDD 0.9", 32) +
         "2023/12/31 23:59:59 long" + Hex("02BB00000002 000000");
}

TEST(BhctlDiscover, TellsEveryFieldOfAnAnswer) {
  Answer answer;
  answer.mac = {2};
  const string body = DiscoverBody();
  answer.body.assign(body.begin(), body.end());
  // The reply's numbers are in wire order here, as the library gets them.
  vector<uint8_t> datagram(ACP_HEADER_SIZE);
  datagram.insert(datagram.end(), answer.body.begin(), answer.body.end());
  datagram[0] = ACP_HEADER_SIZE;
  datagram[8] = 0x20;
  datagram[9] = 0xC0;
  datagram[10] = 0x20;
  datagram[11] = 0x01;
  answer.body = DecodeReply(datagram).value().body;
  testing::internal::CaptureStdout();
  PrintJson(ApplianceJson(AppliancesOf({answer}).front()));
  const auto shown = nlohmann::json::parse(testing::internal::GetCapturedStdout());
  const struct {
    const char *key;
    nlohmann::json value;
  } fields[] = {
      {"state", "ACP_STATE_OK"},
      {"netmask", "255.255.254.0"},
      {"status", 0x52},
      {"dhcp", true},
      {"dhcp_server", false},
      {"timer_sleep", true},
      {"timer_backup", false},
      {"key", "0x01234567"},
      {"workgroup", "WORK\uFFFD\x1B"},
      {"product_name", "Bracken\x1B[1m\uFFFD"},
      {"daemon_version", "2.37"},
      {"time", "2024-02-29T23:59:58"},
      {"firmware_major", 1},
      {"firmware_minor", 10},
      {"product_id", 0xBBAA2001},
      {"firmware_build_date", "2024/2/28 9:08:07"},
      {"firmware_sub_version", Letters(31)},
      {"system_major", 2},
      {"system_minor", 3},
      {"product_state", "normal"},
      {"system_sub_version", "HDD 0.9"},
      {"system_build_date", "2023/12/31 23:59:59 long"},
      {"eth0_mac", "02:bb:00:00:00:02"},
  };
  for (const auto &field : fields)
    EXPECT_EQ(shown[field.key], field.value) << field.key;
}

TEST(BhctlInventory, HasNamesAndGroups) {
  Inventory inventory;
  string why;
  ASSERT_TRUE(
      ParseInventory("# office\n\nnas1 02:bb:00:00:00:01 office backup # old\n"
                     "  nas2\t02-bb-00-00-00-02\n",
                     inventory, why));
  ASSERT_EQ(inventory.size(), 2U);
  EXPECT_EQ(inventory[0].name, "nas1");
  EXPECT_EQ(inventory[0].groups, (vector<string>{"office", "backup"}));
  EXPECT_EQ(InventoryName(inventory, {0x02, 0xBB, 0, 0, 0, 2}), "nas2");
  EXPECT_EQ(InventoryName(inventory, {}), "");
}

TEST(BhctlInventory, WrongLinesAreNamed) {
  const struct {
    const char *text;
    const char *why;
  } cases[] = {
      {"nas1", "line 1: a name and a MAC address are expected"},
      {"\nnas1 02:bb", "line 2: a name and a MAC address are expected"},
      {"10.0.0.1 02:bb:00:00:00:01", "line 1: '10.0.0.1' cannot be a name"},
      {"a,b 02:bb:00:00:00:01", "line 1: 'a,b' cannot be a name"},
      {"a 02:bb:00:00:00:01 g\ng 02:bb:00:00:00:02", "line 2: the name 'g' is already in use"},
  };
  for (const auto &each : cases) {
    Inventory inventory;
    string why;
    EXPECT_FALSE(ParseInventory(each.text, inventory, why)) << each.text;
    EXPECT_EQ(why, each.why);
  }
}

TEST(BhctlCommands, RiskyOnesAskForConfirmation) {
  string asking;
  for (const Command &command : Commands())
    if (command.asks) asking += command.name + " ";
  EXPECT_EQ(asking, "raid set reboot shutdown boot config web-reset set-mac test remove ");
}

TEST(BhctlProgress, FitsTheWidth) {
  const std::chrono::milliseconds elapsed(100);
  const uint64_t total = 4'294'967'039;
  EXPECT_EQ(ProgressLine("nas1", 1000, total, elapsed, 100),
            "nas1  [--------------------]    0%  1.0 kB of 4.2 GB  10.0 kB/s  7158:16 left");
  EXPECT_EQ(ProgressLine("nas1", total, total, elapsed, 40), "nas1  [####################]  100%");
  EXPECT_EQ(ProgressLine("", 1, 2, elapsed, 25), "[##########----------]");
}

TEST(BhctlText, SizesAreShort) {
  EXPECT_EQ(SizeText(999), "999 B");
  EXPECT_EQ(SizeText(1000), "1.0 kB");
  EXPECT_EQ(SizeText(999'999), "999.9 kB");
  EXPECT_EQ(SizeText(UINT64_MAX), "18446744.0 TB");
  EXPECT_EQ(GigabytesText(500'107'862'016), "500.1 GB");
  EXPECT_EQ(UsedText(9, 8, 999), "1%");  // 0.1% counts as 1%
  EXPECT_EQ(UsedText(~0U, 0, 1), "100%");
  EXPECT_EQ(UsedText(0, 0, 0), "-");
  EXPECT_EQ(UsedText(1, 9, 9), "0%");
  EXPECT_EQ(StateName(0xABCDEF), "0x00ABCDEF");
}

TEST(BhctlText, CommandsNoTerminal) {
  const struct {
    const char *text;
    const char *safe;
  } cases[] = {
      {"\x1B[31m\n\x7F~/", "?[31m??~/"},
      {"\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80", "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80"},
      {"\xC2\x9B[ \xC2\xA0", "??[ \xC2\xA0"},
      {"\x80 \xC3( \xC0\xAF \xE0\x80\xAF", "? ?( ?? ???"},
      {"\xED\xA0\x80 \xF4\x90\x80\x80 \xFF \xC3", "??? ???? ? ?"},
  };
  for (const auto &each : cases)
    EXPECT_EQ(SafeText(each.text), each.safe);
  EXPECT_EQ(SafeLines("a\tb\n\x1B[1m\r\n\nc"), "a\tb\n?[1m?\n\nc");
  testing::internal::CaptureStdout();
  PrintJson({{"path", "\xC3\xA9\x1B\xFF"}, {"mac", "02:bb:00:00:00:01"}});
  PrintTable({{"\xC3\xA9", "B"}, {"long", "c", "d"}, {"e"}});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "{\"path\":\"\\u00e9\\u001b\\ufffd\",\"mac\":\"02:bb:00:00:00:01\"}\n"
            "\xC3\xA9     B\nlong  c  d\ne\n");
  EXPECT_EQ(TextWidth("\xE6\x97\xA5\xE6\x9C\xAC"), 4U) << "wide characters";
  EXPECT_EQ(TextWidth("e\xCC\x81"), 1U) << "a combining one";
}

// Output, errors, wait status.
string RunBhctl(const string &arguments, const string &interface = "lo") {
  const string command = "'" BHCTL_PATH "' -i " + interface + " " + arguments;
  FILE *pipe = popen((command + " 2>&1 </dev/null").c_str(), "r");
  string output(8192, '\0');
  output.resize(fread(output.data(), 1, output.size(), pipe));
  return output + std::to_string(pclose(pipe));
}

TEST(BhctlCommandLine, UsageErrorsAndHelp) {
  const string image = "'" BHCTL_PATH "' --type 2 ";
  const struct {
    string arguments;
    const char *message;
  } cases[] = {
      {"", "a command is required"},
      {"--json partitoin /", "unknown command 'partitoin', did you mean 'partition'?\n"},
      {"ping ping", "unexpected argument 'ping'"},
      {"raid --colour", "unknown option '--colour'"},
      {"partition", "PATH is required"},
      {"partition -- -" + Letters(1400), "PATH must have 1 to 1400 bytes"},
      {"exec --type 4 ls", "--type must be one of 0, 1, 2, 3, not '4'"},
      {"ping --mac pong", "not a MAC address: 'pong'"},
      {"ping --timeout 0", "--timeout must be a number of seconds"},
      {"ping --timeout 86401", "greater than 0 and at most a day"},
      {"ping --password a --password-stdin", "cannot be combined"},
      {"upgrade x", "--type is required"},
      {"upgrade x --type 0x2 --product 4294967296", "--product must be a number from 0"},
      {"upgrade x --type 2 --zip-password ''", "--zip-password must not be empty"},
      {"upgrade / --type 2", "cannot send /: not a regular file"},
      {"upgrade " + image + "--zip-password " + Letters(512), "can have at most 511 bytes"},
      {"upgrade " + image + "--password-stdin", "no password on standard input"},
      {"boot disk", "boot disk needs confirmation: give --yes"},
      {"raid create raid6 --yes", "KIND must be one of normal, jbod, raid1, raid5, not"},
      {"test ups /dev/sda", "unexpected argument '/dev/sda'"},
      {"set-mac 03:00:00:00:00:01 --yes", "not a unicast MAC address"},
      {"passwd --password a --new-password 123456789", "1 to 8 ASCII characters"},
      {"set", "nothing to change"},
      {"ping --jsno", "unknown option '--jsno', did you mean '--json'?"},
      {"ping --timeout", "--timeout needs a value"},
      {"ping --json=1", "--json takes no value"},
      {"raid create raid55",
       "KIND must be one of normal, jbod, raid1, raid5, not 'raid55', did you"},
      {"help dicsover", "unknown command 'dicsover', did you mean 'discover'?"},
      {"discover --columns name,adress", "unknown column 'adress', did you mean 'address'?"},
      {"ping --count 0", "--count must be a number from 1"},
      {"ping --parallel x", "--parallel must be a number from 1"},
      {"exec", "COMMAND is required"},
      {"set --ip 10.0.0.1 --netmask 255.0.255.0", "netmask 255.0.255.0 has ones behind a zero"},
      {"set --ip 10.0.0.1", "--ip and --netmask must be given together"},
      {"set --ip 10.0.0.1 --netmask 255.0.0.0", "set --ip 10.0.0.1 needs confirmation"},
      {"set --hostname " + Letters(17), "the host name must have 1 to 16 letters"},
      {"set --time '2000-12-31 00:00:00'", "--time must be now or"},
      {"set --timezone 841", "--timezone must be a number of minutes from -840 to 840"},
  };
  for (const auto &each : cases) {
    // Loopback is refused, so nothing is sent even if bhctl overlooks an error.
    const string output = RunBhctl(each.arguments);
    EXPECT_TRUE(output.ends_with("\n512")) << each.arguments << output;
    EXPECT_NE(output.find(each.message), string::npos) << each.arguments << output;
  }
  for (const char *valid : {"discover --watch", "set --time 2100-03-01T23:59:59 --timezone -840"})
    EXPECT_TRUE(RunBhctl(valid, "bh-no-such-if").starts_with("bhctl: no such interface")) << valid;
  EXPECT_TRUE(RunBhctl("ping", "''").starts_with("bhctl: --interface needs a name"));
  EXPECT_TRUE(RunBhctl("--help").ends_with("\n0"));
  EXPECT_EQ(RunBhctl("--help >/dev/full"), "768");
}

}  // namespace
