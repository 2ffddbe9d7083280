// bhctl without a network: requests, valid and malformed replies, output, command line.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "tools/bhctl/change_password.h"
#include "tools/bhctl/credentials.h"
#include "tools/bhctl/datagram.h"
#include "tools/bhctl/discover.h"
#include "tools/bhctl/drive.h"
#include "tools/bhctl/exec.h"
#include "tools/bhctl/image.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/session.h"
#include "tools/bhctl/set.h"
#include "tools/bhctl/special.h"
#include "tools/bhctl/text.h"
#include "tools/bhctl/upgrade.h"
#include "tools/bhctl/upload.h"

namespace {

using namespace bhctl;
using std::string;
using std::vector;

constexpr Mac CLIENT = {0x02, 0xCC, 0x00, 0x00, 0x00, 0x10};
constexpr Mac APPLIANCE = {0x02, 0xBB, 0x00, 0x00, 0x00, 0x01};
constexpr uint32_t KEY = 0x12345678;

// Ignores spaces.
string Hex(std::string_view text) {
  string bytes;
  string digits;
  for (const char each : text) {
    if (each != ' ') digits += each;
    if (digits.size() < 2) continue;
    bytes += static_cast<char>(std::stoi(digits, nullptr, 16));
    digits.clear();
  }
  return bytes;
}

string Zeros(size_t count) {
  return string(count, '\0');
}

string Letters(size_t count) {
  return string(count, 'd');
}

// Encoded with KEY.
const string FERN_GATE = Hex("5470658D63F14751");
const string EIGHT_X = Hex("6A445A8A6CE84C4C");
const string THIRTY_TWO_X = EIGHT_X + EIGHT_X + EIGHT_X + EIGHT_X;

vector<uint8_t> Bytes(const string &text) {
  return {text.begin(), text.end()};
}

string Text(const vector<uint8_t> &bytes) {
  return {bytes.begin(), bytes.end()};
}

// Cuts the text or pads it with zeros.
string Field(string text, size_t width) {
  text.resize(width);
  return text;
}

TEST(BhctlRequest, BytesOnTheWire) {
  Settings dhcp;
  dhcp.dhcp = true;
  Settings settings;
  settings.address = 0xC0A8280B;
  settings.netmask = 0xFFFFFF00;
  settings.host_name = Letters(16);
  settings.time = {2024, 2, 29, 23, 59, 58};
  settings.timezone = -540;
  const struct {
    const char *name;
    Request request;
    const char *command_and_size;
    string body;
  } cases[] = {
      {"ping", MakePingRequest(), "4080 0000", ""},
      {"raid", MakeRaidRequest(), "E080 0000", ""},
      {"partition", MakePartitionRequest("dddd"), "D080 0500", Letters(4) + Zeros(1)},
      {"first drive", MakeDiskRequest(""), "9080 0000", ""},
      {"short directory", MakeDiskRequest("d"), "9080 4000", Letters(1) + Zeros(63)},
      {"long directory", MakeDiskRequest(Letters(64)), "9080 4100", Letters(64) + Zeros(1)},
      {"command", MakeCommandRequest(Letters(300), COMMAND_WAITED), "108A 3701",
       Hex("2C010000 01000000") + Letters(300) + Zeros(3)},
      {"result", MakeResultRequest(), "208A 0000", ""},
      {"special command", MakeSpecialRequest(SPECIAL_CREATE_RAID, 0x12345678, {}), "A080 0900",
       Hex("11000000 78563412 00")},
      {"new password", MakePasswordChangeRequest(Bytes(Letters(16)), Bytes("new-pass")),
       "A080 2100", Hex("10000000 00000000") + Letters(16) + "new-pass" + Zeros(1)},
      {"settings", MakeChangeRequest(settings), "3080 7000",
       Zeros(12) + Hex("93000000 0B28A8C0 00FFFFFF") + Letters(16) + Zeros(36) +
           Hex("E807 0200 1D00 1700 3B00 3A00") + Zeros(20) + Hex("E4FDFFFF")},
      {"DHCP", MakeChangeRequest(dhcp), "3080 7000",
       Hex("0100") + Zeros(10) + Hex("01000000") + Zeros(96)},
  };
  for (const auto &each : cases) {
    const string datagram = Hex("2000 0000 07000100") + Hex(each.command_and_size) + Zeros(4) +
                            Hex("02CC00000010 02BB00000001 00000000") + each.body;
    EXPECT_EQ(Text(EncodeRequest(each.request, CLIENT, APPLIANCE)), datagram) << each.name;
  }
  EXPECT_EQ(EncodeRequest(MakeUpdateEndRequest(false), CLIENT, APPLIANCE)[28], 1) << "given up";
}

// From APPLIANCE to CLIENT in state ACP_STATE_NOT_PERMIT.
string ReplyText(uint16_t command, const string &body) {
  const size_t size = body.size();
  string header = Hex("2000 0000 07000100 0000 0000 00000000 02BB00000001 02CC00000010 0A000080");
  header[8] = static_cast<char>(command);
  header[9] = static_cast<char>(command >> 8);
  header[10] = static_cast<char>(size);
  header[11] = static_cast<char>(size >> 8);
  return header + body;
}

// A reply's body as the client holds it.
vector<uint8_t> ReplyBody(uint16_t command, const string &body) {
  return DecodeReply(Bytes(ReplyText(command, body))).value().body;
}

bool IsAccepted(const string &datagram, const Request &request) {
  const std::optional<Reply> reply = DecodeReply(Bytes(datagram));
  const vector<Mac> own = {BROADCAST_MAC, CLIENT};
  return reply && AnswersRequest(*reply, request, own, APPLIANCE);
}

TEST(BhctlReply, MalformedAndForeignOnesDoNotCount) {
  const string raid = ReplyText(ACP_INFO_RAID_REPLY, Letters(736));
  EXPECT_TRUE(IsAccepted(raid, MakeRaidRequest()));
  // Header size, command, option size, another appliance, another client.
  for (const size_t offset : {0U, 1U, 8U, 9U, 10U, 11U, 16U, 21U, 22U, 27U}) {
    string bad = raid;
    bad[offset] ^= 3;
    EXPECT_FALSE(IsAccepted(bad, MakeRaidRequest())) << offset;
  }
  EXPECT_FALSE(IsAccepted(raid.substr(0, 31), MakeRaidRequest()));
}

TEST(BhctlReply, ShortBodiesDoNotCount) {
  const struct {
    uint16_t reply;
    size_t size;
    Request request;
  } cases[] = {
      {ACP_INFO_RAID_REPLY, 735, MakeRaidRequest()},
      {ACP_PART_REPLY, 91, MakePartitionRequest("/")},
      {ACP_INFO_HDD_REPLY, 511, MakeDiskRequest("")},
      {ACP_DISCOVER_REPLY, 287, MakeDiscoverRequest()},
      {ACP_RESULT_REPLY, 11, MakeResultRequest()},
  };
  for (const auto &each : cases)
    EXPECT_FALSE(IsAccepted(ReplyText(each.reply, Letters(each.size)), each.request)) << each.size;
}

TEST(BhctlReply, PingIsAnEcho) {
  string echo = ReplyText(ACP_PING_REPLY, "");
  echo[10] = 4;  // as the request may have said
  EXPECT_TRUE(IsAccepted(echo, MakePingRequest()));
  EXPECT_FALSE(IsAccepted(echo + "d", MakePingRequest()));
  EXPECT_FALSE(IsAccepted(ReplyText(0, ""), MakePingRequest()));
}

TEST(BhctlReply, PathsEndWithinTheirField) {
  const PartitionInfo part = ReadPartitionInfo(ReplyBody(ACP_PART_REPLY, Letters(92)));
  EXPECT_EQ(string(part.path), Letters(63));
  const RaidInfo raid = ReadRaidInfo(ReplyBody(ACP_INFO_RAID_REPLY, Letters(736)));
  for (const RaidInfoEntry &entry : raid.entries)
    EXPECT_EQ(string(entry.path), Letters(63));
}

DriveIdentity Identify(const string &words) {
  return IdentifyDrive(ReadDiskInfo(ReplyBody(ACP_INFO_HDD_REPLY, words)));
}

TEST(BhctlDrive, TextsAndCapacityComeFromTheWords) {
  string words = Letters(512);
  words.replace(20, 20, "  1S" + Hex("7F1B") + Letters(12) + Zeros(1) + "9");
  words.replace(46, 48, "1FddddA0BAC " + Letters(34) + "ZD");
  words.replace(120, 4, Hex("00000100"));
  words.replace(166, 2, Hex("FFFB"));  // every feature but addresses of 48 bits
  words.replace(200, 8, Hex("3060383A00000100"));
  const DriveIdentity drive = Identify(words);
  EXPECT_EQ(drive.serial, "S1??dddddddddddd9");
  EXPECT_EQ(drive.firmware, "F1dddd0A");
  EXPECT_EQ(drive.model, "AB C" + Letters(34) + "DZ");
  EXPECT_EQ(DriveBytes(drive), 33554432U);
  words.replace(166, 2, Hex("0004"));
  EXPECT_EQ(DriveBytes(Identify(words)), 0x0200007470C06000U);
  EXPECT_EQ(DriveBytes({"", "", "", 0x0080000000000000U}), UINT64_MAX);
  EXPECT_EQ(IdentifyDrive({}).model, "");
  EXPECT_FALSE(HasDriveInformation({}));
  EXPECT_TRUE(HasDriveInformation({.words = {1}}));
}

// Texts that fill their fields, control characters, bytes that are not UTF-8.
string DiscoverBody() {
  return Hex("0B0CA8C0 00FEFFFF 52000000 01234567") + "host-of-16-bytes" +
         Field("WORK\xFF\x1B", 16) + Field("Bracken\x1B[1m\xFF", 64) + Hex("0000 2502") + Zeros(8) +
         Hex("E807 0200 1D00 1700 3B00 3A00 010CA8C0") + Zeros(16) + Hex("010A 0000 0120AABB") +
         Field("2024/2/28 9:08:07", 24) + Letters(31) + Hex("00 02 03 01") + Field("HDD 0.9", 32) +
         "2023/12/31 23:59:59 long" + Hex("02BB00000002 000000");
}

Appliance Seen(uint8_t mac, const string &body, uint32_t state = ACP_STATE_OK) {
  Answer answer;
  answer.mac = {mac};
  answer.state = state;
  answer.body = ReplyBody(ACP_DISCOVER_REPLY, body);
  return AppliancesOf({answer}).front();
}

string Shown(const vector<Appliance> &appliances, bool json, bool with_changes) {
  testing::internal::CaptureStdout();
  ShowAppliances(appliances, json, with_changes);
  return testing::internal::GetCapturedStdout();
}

TEST(BhctlDiscover, ShowsEveryFieldOfAnAnswer) {
  const vector<Appliance> seen = {Seen(2, DiscoverBody())};
  const string table = Shown(seen, false, false);
  EXPECT_EQ(table.substr(table.find("\n192")),
            "\n192.168.12.11  255.255.254.0  host-of-16-bytes  Bracken?[1m?  1.10 (" + Letters(31) +
                ")  02:00:00:00:00:00  yes   normal, sleep  2024-02-29 23:59:58\n");
  const auto shown = nlohmann::json::parse(Shown(seen, true, false));
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

TEST(BhctlDiscover, MarksWhatCameWentAndMoved) {
  const string body = Field(Hex("0200000A"), 288);
  const string nearer = Field(Hex("03000009"), 288);
  const string named = Field(body.substr(0, 16) + "n", 288);
  const vector<Appliance> before = {Seen(1, body), Seen(2, body), Seen(3, body), Seen(4, body)};
  const vector<Appliance> now = Compare(
      before, {Seen(5, body), Seen(4, body), Seen(2, nearer), Seen(3, named), Seen(6, body, 9)});
  const struct {
    uint8_t mac;
    Change change;
  } wanted[] = {{2, Change::MOVED}, {1, Change::GONE}, {3, Change::MOVED},
                {4, Change::NONE},  {5, Change::NEW},  {6, Change::NEW}};
  ASSERT_EQ(now.size(), std::size(wanted));  // by address, then by MAC
  for (size_t i = 0; i < now.size(); ++i) {
    EXPECT_EQ(now[i].mac[0], wanted[i].mac) << i;
    EXPECT_EQ(now[i].change, wanted[i].change) << i;
  }
  const string table = Shown(now, false, true);
  EXPECT_NE(table.find("\n-  10.0.0.2  0.0.0.0  -          -  "), string::npos) << table;
  EXPECT_EQ(table.find("06:00:"), string::npos) << table;  // refused, has nothing to tell
  EXPECT_TRUE(Shown(now, true, true).starts_with(R"({"change":"moved","mac":"02:)"));
}

TEST(BhctlSession, ZeroBytesLimitThePasswordsOfAKey) {
  const struct {
    string password;
    uint32_t key;
    string encoded;  // empty: impossible
  } cases[] = {
      {"", KEY, Hex("1244228A6C904C34")},
      {"12345678", 0x31E54147, Hex("0072E203E3C5A4D7")},  // in the first block
      {"123456789", 0x1132D8FB, ""},                      // just before the second block
      {"123456789", 0x3988EC52, ""},                      // at its start
      {"123456789", 0x1D93819, Hex("303B15213096C6EB 380020183 8A0C0D9")},
      {string(32, 'x'), KEY, THIRTY_TWO_X},
      {string(33, 'x'), KEY, ""},
      {Hex("610062"), KEY, ""},
  };
  for (const auto &each : cases) {
    const auto encoded = EncodePassword({each.password}, each.key);
    EXPECT_EQ(Text(encoded.value_or(vector<uint8_t>())), each.encoded) << each.password;
  }
}

TEST(BhctlSpecial, RiskyCommandsAskForConfirmation) {
  string asking;
  for (const Special &row : Specials())
    if (row.properties & NEEDS_CONFIRMATION) asking += string(row.name) + " " + row.word + "\n";
  EXPECT_EQ(asking,
            "reboot \nshutdown \nboot emergency\nboot disk\nconfig load\nweb-reset \nset-mac \n"
            "raid create normal\nraid create jbod\nraid create raid1\nraid create raid5\n"
            "test disk\ntest usb\nremove \n");
}

TEST(BhctlPassword, IsHashedAsTheAccountDatabaseDoes) {
  EXPECT_EQ(HashPassword("FernGate", "ab"), "abcHKXPavTczo");
  const string salt = RandomSalt();
  EXPECT_EQ(HashPassword("FernGate", salt).substr(0, 2), salt);
}

TEST(BhctlUpgrade, RequestsOnTheWire) {
  const struct {
    const char *name;
    string password;
    string zip_password;
    uint16_t command;
    string rest;  // from the password on
  } cases[] = {
      {"a long password", string(32, 'x'), "", ACP_FIRMUP2, THIRTY_TWO_X + Zeros(1)},
      {"an archive's password", "FernGate", string(32, 'x'), ACP_FIRMUP3,
       FERN_GATE + Hex("20000000") + THIRTY_TWO_X + Zeros(1)},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(each.name);
    Update update;
    update.type = 5;
    update.product = 0x1234;
    update.size = 0x12345678;
    update.checksum = 0xC6C8CACC;
    update.password = {each.password};
    if (!each.zip_password.empty()) update.zip_password = Secret{each.zip_password, 511};
    const Request request = MakeUpdateRequest(update, KEY);
    EXPECT_EQ(request.command, each.command);
    EXPECT_EQ(Text(EncodeRequest(request, CLIENT, APPLIANCE)).substr(ACP_HEADER_SIZE),
              Hex("05000000 34120000 78563412 CCCAC8C6") + Zeros(8) + each.rest);
  }
}

TEST(BhctlUpgrade, ImagesFitTheProtocol) {
  const string path = testing::TempDir() + "bhctl-image-" + std::to_string(getpid());
  const struct {
    uint64_t size;
    const char *why;
  } cases[] = {
      {0, "empty"},
      {4294967040, "larger than 4294967039 bytes, the protocol's limit"},
  };
  for (const auto &each : cases) {
    std::ofstream(path).close();
    std::filesystem::resize_file(path, each.size);
    Image image;
    string why;
    EXPECT_FALSE(OpenImage(path, image, why));
    EXPECT_EQ(why, each.why);
  }
  std::filesystem::remove(path);
}

TEST(BhctlExec, RepliesTellWhatTheirTypeSays) {
  constexpr uint32_t FAILURE = ACP_STATE_FAILURE;
  const struct {
    uint32_t type, result;
    bool ran;
    int exit_status;
  } cases[] = {
      {COMMAND_BACKGROUND, FAILURE, true, 0},
      {COMMAND_BACKGROUND, 0, false, EXIT_REFUSED},
      {COMMAND_WAITED, 0xFF00, true, 255},
      {COMMAND_WAITED, 0x8B, true, 139},  // ended by a signal
      {COMMAND_WAITED, 0x10000, false, EXIT_REFUSED},
      {COMMAND_TO_FILE, 0x8B, true, 139},
      {COMMAND_TO_FILE, 0x8B00, true, 139},
      {COMMAND_TO_FILE, FAILURE, false, EXIT_REFUSED},
      {COMMAND_TO_FILE, 0xFF00, false, EXIT_REFUSED},
      {COMMAND_CAPTURED, FAILURE, false, EXIT_REFUSED},
  };
  for (const auto &each : cases) {
    const CommandOutcome outcome = ReadOutcome(each.type, each.result, {}).value();
    EXPECT_EQ(outcome.ran, each.ran) << each.type << " " << each.result;
    EXPECT_EQ(outcome.exit_status, each.exit_status) << each.type << " " << each.result;
  }
}

TEST(BhctlExec, OutputLiesWithinItsBody) {
  const struct {
    const char *name;
    const char *length;
    string text;
    std::optional<string> line;
  } cases[] = {
      {"line", "03000000", "ab\n" + Zeros(4), "ab\n"},
      {"NUL", "03000000", Hex("61000A31323334"), "a"},
      {"too long", "04000000", Letters(7), {}},
      {"far too long", "00000001", Letters(9), {}},
  };
  for (const auto &each : cases) {
    const string body = Hex(each.length) + Zeros(4) + each.text;
    EXPECT_EQ(DecodeResultLine(ReplyBody(ACP_RESULT_REPLY, body)), each.line) << each.name;
  }
  EXPECT_FALSE(DecodeResultLine(Bytes(Zeros(11))));
  EXPECT_FALSE(ReadOutcome(COMMAND_CAPTURED, 0, Bytes(Zeros(10))));
}

TEST(BhctlExec, CommandsFitWhatTheApplianceTakes) {
  const struct {
    uint32_t type;
    size_t most;  // bytes
  } cases[] = {{COMMAND_WAITED, 511}, {COMMAND_TO_FILE, 488}, {COMMAND_CAPTURED, 1400}};
  for (const auto &each : cases) {
    EXPECT_TRUE(FitsType(Letters(each.most), each.type)) << each.type;
    EXPECT_FALSE(FitsType(Letters(each.most + 1), each.type)) << each.type;
  }
  EXPECT_FALSE(FitsType("", COMMAND_CAPTURED));
  EXPECT_TRUE(FitsType(string(30, ' ') + "d", COMMAND_BACKGROUND));
  EXPECT_FALSE(FitsType(string(31, ' ') + "d", COMMAND_WAITED));
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
  EXPECT_EQ(ProgressText(1000, 4'294'967'039, std::chrono::milliseconds(100)),
            "  1.0 kB of 4.2 GB  0%  10.0 kB/s  7158:16 left");
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
  PrintJson({{"path", "\xC3\xA9\x1B\xFF"}, {"mac", MacText(APPLIANCE)}});
  PrintTable({{"\xC3\xA9", "B"}, {"long", "c", "d"}, {"e"}});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "{\"path\":\"\\u00e9\\u001b\\ufffd\",\"mac\":\"02:bb:00:00:00:01\"}\n"
            "\xC3\xA9     B\nlong  c  d\ne\n");
}

TEST(BhctlText, MacAddressesHaveOneForm) {
  EXPECT_EQ(ParseMac("02:bb:00:00:00:01"), APPLIANCE);
  EXPECT_EQ(ParseMac("02-BB-00-00-00-01"), APPLIANCE);
  for (const char *wrong : {"02:bb:00:00:00", "02:bb:00:00:00:01:", "02:bb:00:00:00:0g",
                            "2:bb:00:00:00:001", "02:bb-00:00:00:01", "02.bb.00.00.00.01"})
    EXPECT_FALSE(ParseMac(wrong)) << wrong;
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
      {"exec ls --type 4", "--type must be 0, 1, 2 or 3, not '4'"},
      {"--mac ping", "not a MAC address: 'ping'"},
      {"ping --timeout 0", "--timeout must be greater than 0"},
      {"ping --timeout 86401", "--timeout must be greater than 0"},
      {"ping --password a --password-stdin", "cannot be combined"},
      {"upgrade x", "--type is required"},
      {"upgrade x --type 0x2 --product 4294967296", "--product must be a number from 0"},
      {"upgrade x --type 2 --zip-password ''", "--zip-password must not be empty"},
      {"upgrade / --type 2", "cannot send /: not a regular file"},
      {"upgrade " + image + "--zip-password " + Letters(512), "can have at most 511 bytes"},
      {"upgrade " + image + "--zip-password a --password 123456789", "at most 8 bytes"},
      {"upgrade " + image + "--password-stdin", "no password on standard input"},
      {"boot disk", "boot disk needs confirmation: give --yes"},
      {"raid create raid6 --yes", "KIND must be one of normal, jbod, raid1, raid5, not"},
      {"test ups /dev/sda", "unexpected argument '/dev/sda'"},
      {"set-mac 03:00:00:00:00:01 --yes", "not a unicast MAC address"},
      {"passwd --password a --new-password 123456789", "1 to 8 ASCII characters"},
      {"set", "nothing to change"},
      {"set --ip 10.0.0.1", "--ip and --netmask must be given together"},
      {"set --ip 10.0.0.1 --netmask 255.0.0.0", "set --ip 10.0.0.1 needs confirmation"},
      {"set --hostname " + Letters(17), "--hostname must have 1 to 16 bytes"},
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
}

}  // namespace
