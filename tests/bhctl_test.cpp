// bhctl without a network: the bytes it sends, what it makes of replies, good and hostile, and its
// command line.

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <numeric>
#include <string>
#include <tuple>
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

using std::string;
using namespace bhctl;
using namespace std::string_literals;

constexpr Mac CLIENT = {0x02, 0xCC, 0x00, 0x00, 0x00, 0x10};
constexpr Mac APPLIANCE = {0x02, 0xBB, 0x00, 0x00, 0x00, 0x01};

constexpr auto D = [](size_t n, size_t nuls = 0) { return string(n, 'd').append(nuls, '\0'); };
constexpr auto Bytes = [](const string &s) { return std::vector<uint8_t>(s.begin(), s.end()); };

TEST(BhctlRequest, BytesOnTheWire) {
  const std::pair<Request, string> CASES[] = {
      {MakeDiscoverRequest(), "\x20\x80\0\0"s},
      {MakePingRequest(), "\x40\x80\0\0"s},
      {MakeRaidRequest(), "\xE0\x80\0\0"s},
      {MakePartitionRequest("dddd"), "\xD0\x80\5\0"s + D(4, 1)},
      {MakeDiskRequest(""), "\x90\x80\0\0"s},
      {MakeDiskRequest("d"), "\x90\x80\x40\0"s + D(1, 63)},  // looked at from 96 bytes on only
      {MakeDiskRequest(D(64)), "\x90\x80\x41\0"s + D(64, 1)},
      {MakeDiskRequest(D(1400)), "\x90\x80\x79\5"s + D(1400, 1)},
      {MakeCommandRequest("dddd", 3), "\x10\x8A\x0F\0\4\0\0\0\3\0\0\0"s + D(4, 3)},
      {MakeCommandRequest(D(300), 1), "\x10\x8A\x37\1\x2C\1\0\0\1\0\0\0"s + D(300, 3)},
      {MakeResultRequest(), "\x20\x8A\0\0"s},
      {MakeSpecialRequest(0x11, 0x12345678, {}), "\xA0\x80\x09\0\x11\0\0\0\x78\x56\x34\x12\0"s},
      {MakeSpecialRequest(0x42, 0, Bytes("dddd")), "\xA0\x80\x0D\0\x42\0\0\0\0\0\0\0"s + D(4, 1)},
      {MakePasswordChangeRequest(Bytes(D(16)), Bytes("new-pass")),
       "\xA0\x80\x21\0\x10\0\0\0\0\0\0\0"s + D(16) + "new-pass\0"s},
      {MakeChangeRequest({0xC0A8280B, 0xFFFFFF00, false, D(16), "WG",
                          DateTime{2024, 2, 29, 23, 59, 58}, false, 0xC0A82801, -540, true}),
       "\x30\x80\x70\0"s + string(12, 0) + "\xF7\0\0\0\x0B\x28\xA8\xC0\0\xFF\xFF\xFF"s + D(16, 1) +
           "WG" + string(33, 0) + "\xE8\7\2\0\x1D\0\x17\0\x3B\0\x3A\0"s + "\x01\x28\xA8\xC0"s +
           string(16, 0) + "\xE4\xFD\xFF\xFF"},
      {MakeChangeRequest({{}, 0, true, "", "", {}, true, {}, {}, false}),
       "\x30\x80\x70\0\1\0"s + string(10, 0) + "\1\0\0\0"s + string(96, 0)},
  };
  for (const auto &[request, text] : CASES) {
    const string macs = "\0\0\0\0\x02\xCC\0\0\0\x10\x02\xBB\0\0\0\x01\0\0\0\0"s;
    const string datagram = "\x20\0\0\0\x07\0\x01\0"s + text.substr(0, 4) + macs + text.substr(4);
    EXPECT_EQ(EncodeRequest(request, CLIENT, APPLIANCE), Bytes(datagram)) << text.size();
  }
}

// From APPLIANCE to CLIENT in state ACP_STATE_NOT_PERMIT.
string ReplyText(const string &command_and_size, const string &body) {
  const string macs = "\0\0\0\0\x02\xBB\0\0\0\x01\x02\xCC\0\0\0\x10\x0A\0\0\x80"s;
  return "\x20\0\0\0\x07\0\x01\0"s + command_and_size + macs + body;
}

bool Accepted(const string &datagram, const Request &request) {
  const std::optional<Reply> reply = DecodeReply(Bytes(datagram));
  const std::vector<Mac> own = {BROADCAST_MAC, CLIENT};
  return reply && AnswersRequest(*reply, request, own, APPLIANCE);
}

TEST(BhctlReply, MalformedAndForeignOnesDoNotCount) {
  const string raid = ReplyText("\xE0\xC0\xE0\x02", D(736));
  EXPECT_TRUE(Accepted(raid, MakeRaidRequest()));
  // Header size, command, option size, another appliance, another client.
  for (const size_t offset : {0U, 1U, 8U, 9U, 10U, 11U, 16U, 21U, 22U, 27U}) {
    string bad = raid;
    bad[offset] ^= 3;
    EXPECT_FALSE(Accepted(bad, MakeRaidRequest())) << offset;
  }
  EXPECT_FALSE(Accepted(raid.substr(0, 31), MakeRaidRequest()));
  EXPECT_FALSE(Accepted(ReplyText("\xE0\xC0\xDF\x02", D(735)), MakeRaidRequest()));
  EXPECT_FALSE(Accepted(ReplyText("\xD0\xC0\x5B\0"s, D(91)), MakePartitionRequest("/")));
  EXPECT_FALSE(Accepted(ReplyText("\x90\xC0\xFF\1", D(511)), MakeDiskRequest("")));
  EXPECT_FALSE(Accepted(ReplyText("\x20\xC0\x1F\1", D(287)), MakeDiscoverRequest()));
  EXPECT_FALSE(Accepted(ReplyText("\x40\xC0\4\0"s, D(1)), MakePingRequest()));
  EXPECT_FALSE(Accepted(ReplyText("\x20\xCA\x0B\0"s, D(11)), MakeResultRequest()));
  EXPECT_TRUE(
      Accepted(ReplyText("\x40\xC0\4\0"s, ""), MakePingRequest()));  // an echo of the header
  EXPECT_FALSE(Accepted(ReplyText("\0\0\0\0"s, ""), MakePingRequest()));
  EXPECT_TRUE(Accepted(ReplyText("\x71\xC0\0\0"s, ""), MakeUpdateEndRequest(true)));
}

TEST(BhctlReply, FieldsAreLittleEndianAndTextsEnd) {
  using Numbers = std::vector<uint32_t>;
  string body(736, '\0');
  std::iota(body.begin(), body.end(), '\0');
  const Reply reply = DecodeReply(Bytes(ReplyText("\xD0\xC0\x5C\0"s, body.substr(0, 92)))).value();
  EXPECT_EQ(reply.header.result, 0x8000000AU);
  const PartitionInfo part = DecodePartitionInfo(reply.body);
  EXPECT_EQ((Numbers{part.fs_type, part.block_size, part.blocks, part.blocks_free}),
            (Numbers{0x03020100, 0x07060504, 0x0B0A0908, 0x0F0E0D0C}));
  EXPECT_EQ((Numbers{part.blocks_avail, part.inodes, part.inodes_free}),
            (Numbers{0x13121110, 0x17161514, 0x1B1A1918}));
  EXPECT_EQ(string(part.path).substr(60), "XYZ");  // byte 91, the last, makes room for the NUL
  const RaidInfo raid = DecodeRaidInfo(Bytes(body));
  EXPECT_EQ((Numbers{raid.entries[1].type, raid.entries[1].index, raid.entries[7].blocks_free}),
            (Numbers{0x5F5E5D5C, 0x63626160, 0x9B9A9998}));
  EXPECT_EQ(string(raid.entries[1].path).substr(0, 3), "xyz");
}

TEST(BhctlDrive, TextsAndCapacityComeFromTheWords) {
  string body = D(512);
  body.replace(20, 20, "  1S\x7F\x1B" + D(12) + "\0"s + "9");
  body.replace(46, 48, "1FddddA0BAC " + D(34) + "ZD");
  body.replace(120, 4, "\0\0\1\0"s);
  body.replace(166, 2, "\xFF\xFB");  // every feature but addresses of 48 bits
  body.replace(200, 8, "\x30\x60\x38\x3A\0\0\1\0"s);
  const DriveIdentity drive = IdentifyDrive(DecodeDiskInfo(Bytes(body)));
  EXPECT_EQ(drive.serial, "S1??dddddddddddd9");
  EXPECT_EQ(drive.firmware, "F1dddd0A");
  EXPECT_EQ(drive.model, "AB C" + D(34) + "DZ");
  EXPECT_EQ(DriveBytes(drive), 33554432U);
  body.replace(166, 2, "\0\4"s);
  EXPECT_EQ(DriveBytes(IdentifyDrive(DecodeDiskInfo(Bytes(body)))), 0x0200007470C06000U);
  EXPECT_EQ(DriveBytes({"", "", "", 0x0080000000000000U}), UINT64_MAX);
  EXPECT_EQ(IdentifyDrive({}).model, "");
  EXPECT_FALSE(HasDriveInformation(DecodeDiskInfo({})));
  EXPECT_TRUE(HasDriveInformation(DecodeDiskInfo(Bytes(D(0, 511) + "\x12"))));
}

string F(string text, size_t width) {
  text.resize(width);
  return text;
}

// The appliance's answer; texts fill their fields, hold control characters or bytes of no text.
string DiscoverBody() {
  return "\x0B\x0C\xA8\xC0\0\xFE\xFF\xFF\x52\0\0\0\x01\x23\x45\x67"s + "host-of-16-bytes" +
         F("WORK\xFF\x1B", 16) + F("Bracken\x1B[1m\xFF", 64) + "\0\0\x25\x02\0\0\0\0\0\0\0\0"s +
         "\xE8\x07\2\0\x1D\0\x17\0\x3B\0\x3A\0"s + "\x01\x0C\xA8\xC0"s + F("", 16) +
         "\x01\x0A\0\0\x01\x20\xAA\xBB"s + F("2024/2/28 9:08:07", 24) + D(31, 1) + "\x02\x03\x01"s +
         F("HDD 0.9", 31) + "\0"s + "2023/12/31 23:59:59 long" + "\x02\xBB\0\0\0\x02\0\0\0"s;
}

Sighting Seen(uint8_t mac, const string &body, uint32_t state = ACP_STATE_OK) {
  return Sightings({{{mac}, {}, "", state, Bytes(body), {}}}).front();
}

string Shown(const std::vector<Sighting> &sightings, bool json, bool with_changes) {
  testing::internal::CaptureStdout();
  ShowSightings(sightings, json, with_changes);
  return testing::internal::GetCapturedStdout();
}

TEST(BhctlDiscover, ShowsEveryFieldOfAnAnswer) {
  const string datagram = ReplyText("\x20\xC0\x20\x01", DiscoverBody());
  ASSERT_TRUE(Accepted(datagram, MakeDiscoverRequest()));
  const std::vector<uint8_t> body = DecodeReply(Bytes(datagram))->body;
  const std::vector<Sighting> seen = Sightings({{APPLIANCE, {}, "", ACP_STATE_OK, body, {}}});
  const string table = Shown(seen, false, false);
  EXPECT_EQ(table.substr(table.find("\n192")),
            "\n192.168.12.11  255.255.254.0  host-of-16-bytes  Bracken?[1m?  1.10 (" + D(31) +
                ")  02:bb:00:00:00:01  yes   normal, sleep  2024-02-29 23:59:58\n");
  EXPECT_EQ(
      Shown(seen, true, false),
      R"({"mac":"02:bb:00:00:00:01","state":"ACP_STATE_OK","address":"192.168.12.11","netmask":)"
      R"("255.255.254.0","status":82,"dhcp":true,"dhcp_server":false,"initialized":true,)"
      R"("timer_sleep":true,"timer_backup":false,"key":"0x01234567","host_name":)"
      R"("host-of-16-bytes","workgroup":"WORK\ufffd\u001b","product_name":"Bracken\u001b[1m\ufffd")"
      R"(,"daemon_version":"2.37","time":"2024-02-29T23:59:58","gateway":"192.168.12.1",)"
      R"("firmware_major":1,"firmware_minor":10,"product_id":3148488705,"firmware_build_date":)"
      R"("2024/2/28 9:08:07","firmware_sub_version":"ddddddddddddddddddddddddddddddd",)"
      R"("system_major":2,"system_minor":3,"product_state":"normal","system_sub_version":"HDD 0.9")"
      R"(,"system_build_date":"2023/12/31 23:59:59 long","eth0_mac":"02:bb:00:00:00:02"})"
      "\n");
}

TEST(BhctlDiscover, MarksWhatCameWentAndMoved) {
  const string body = F("\x02\0\0\x0A"s, 288);
  const string nearer = F("\x03\0\0\x09"s, 288);
  const string named = F(body.substr(0, 16) + "n", 288);
  const std::vector<Sighting> before = {Seen(1, body), Seen(2, body), Seen(3, body), Seen(4, body)};
  const std::vector<Sighting> now = Compare(
      before, {Seen(5, body), Seen(4, body), Seen(2, nearer), Seen(3, named), Seen(6, body, 9)});
  string marks;
  for (const Sighting &sighting : now)
    marks += std::to_string(sighting.mac[0]) + "_+-~"[static_cast<size_t>(sighting.change)];
  EXPECT_EQ(marks, "2~1-3~4_5+6+");  // by address, then by MAC
  const string table = Shown(now, false, true);
  EXPECT_NE(table.find("\n-  10.0.0.2  0.0.0.0  -          -  "), string::npos) << table;
  EXPECT_EQ(table.find("06:00:"), string::npos) << table;  // refused, has nothing to tell
  EXPECT_EQ(Shown({now[1], now[5]}, true, true).find(R"({"change":"gone","mac":"01:)"), 0U);
}

TEST(BhctlSession, PasswordsAreEncodedOnlyWhereTheApplianceDecodesThem) {
  const string XS = "\x6A\x44\x5A\x8A\x6C\xE8\x4C\x4C";
  const std::tuple<string, uint32_t, string> CASES[] = {
      {"", 0x12345678, "\x12\x44\x22\x8A\x6C\x90\x4C\x34"},
      {"FernGate", 0x12345678, "\x54\x70\x65\x8D\x63\xF1\x47\x51"},
      {"12345678", 0x31E54147, "\0\x72\xE2\x03\xE3\xC5\xA4\xD7"s},  // the first block always
      {"123456789", 0x1132D8FB, "refused"},  // the zero is byte 7 of the encoded text, then 8, 9
      {"123456789", 0x3988EC52, "refused"},
      {"123456789", 0x1D93819, "\x30\x3B\x15\x21\x30\x96\xC6\xEB\x38\0\x20\x18\x38\xA0\xC0\xD9"s},
      {string(32, 'x'), 0x12345678, XS + XS + XS + XS},
      {string(33, 'x'), 0x12345678, "refused"},
      {"a\0b"s, 0x12345678, "refused"},
  };
  for (const auto &[password, key, wanted] : CASES) {
    const auto encoded = EncodePassword({password}, key).value_or(Bytes("refused"));
    EXPECT_EQ(encoded, Bytes(wanted)) << password << std::hex << key;
  }
}

TEST(BhctlSpecial, RowsHaveTheirCodes) {
  string rows;
  for (const Special &row : Specials())
    rows += string(row.name) + " " + row.word + "=" + std::to_string(row.code) + "," +
            std::to_string(row.extra) + (row.properties & ENABLED ? "e" : "") +
            (row.properties & ASKS ? "a " : " ");
  EXPECT_EQ(rows,
            "enable =13,0 disable =13,1 login =12,0e reboot =1,0ea shutdown =2,0ea "
            "boot emergency=3,0ea boot disk=4,0ea blink =5,0 config save=6,0 config load=7,0a "
            "web-reset =8,0a lock status=9,0 lock take=10,0 lock release=11,0 trace on=14,0 "
            "trace off=14,1 set-mac =15,0ea raid create normal=17,3ea raid create jbod=17,4ea "
            "raid create raid1=17,5ea raid create raid5=17,6ea language japanese=18,0e "
            "language english=18,1e test disk=64,1ea test usb=64,0ea test ups=80,0e "
            "remove =65,0ea checksum =66,0 clear-usb =69,0e ");
}

TEST(BhctlPasswd, HashesAsTheAccountDatabaseDoes) {
  EXPECT_EQ(HashPassword("FernGate", "ab"), "abcHKXPavTczo");
  EXPECT_EQ(HashPassword("a b~", "./"), "./PT/GPNImiiI");
  EXPECT_EQ(EncodePassword({"abcHKXPavTczo", 16}, 0x12345678),
            Bytes("\x73\x46\x69\x93\x7F\xC8\x66\x56\x64\x51\x4D\xF0\x42\x90\x62\x60"));
  const string salt = InventSalt();
  EXPECT_EQ(HashPassword("FernGate", salt).substr(0, 2), salt);
}

TEST(BhctlUpgrade, RequestsOnTheWire) {
  const string NOTHING = "\x12\x44\x22\x8A\x6C\x90\x4C\x34";
  const string GATE = "\x54\x70\x65\x8D\x63\xF1\x47\x51";
  string xs = "\x6A\x44\x5A\x8A\x6C\xE8\x4C\x4C";
  xs += xs + xs + xs;
  const string IMAGE = "\5\0\0\0\x34\x12\0\0\x78\x56\x34\x12\xCC\xCA\xC8\xC6"s + string(8, 0);
  const std::tuple<uint16_t, Secret, std::optional<Secret>, string> CASES[] = {
      {0x8080, {""}, {}, NOTHING + string(4, 0)},  // as long as the whole record
      {0x8080, {string(32, 'x')}, {}, xs + "\0"s},
      {0x8081, {"", 8}, {{"FernGate", 511}}, NOTHING + "\x08\0\0\0"s + GATE + "\0"s},
      {0x8081, {"FernGate", 8}, {{string(64, 'x'), 511}}, GATE + "\x40\0\0\0"s + xs + xs + "\0"s},
  };
  for (const auto &[command, password, zip_password, rest] : CASES) {
    const Update update = {5, 0x1234, 0x12345678, 0xC6C8CACC, password, zip_password};
    const Request sent = MakeUpdateRequest(update, 0x12345678);
    EXPECT_EQ(std::tuple(sent.command, sent.body), std::tuple(command, Bytes(IMAGE + rest)));
  }
  EXPECT_EQ(EncodeRequest(MakeUpdateEndRequest(false), CLIENT, APPLIANCE),
            Bytes("\x20\0\0\0\x07\0\x01\0\x70\x80\0\0\0\0\0\0"
                  "\x02\xCC\0\0\0\x10\x02\xBB\0\0\0\x01\1\0\0\0"s));
}

TEST(BhctlUpgrade, ImagesFitTheProtocolAndHaveAChecksum) {
  const string path = testing::TempDir() + "bhctl-image-" + std::to_string(getpid());
  const std::tuple<string, uint64_t, string, uint32_t> CASES[] = {
      {"abc", 3, "", 0x61626300},
      {"abcde", 5, "", 0xC6626364},
      {"abcdefgh", 8, "", 0xC6C8CACC},
      {string(65536, 1) + "abcde", 65541, "", 0x06A2A364},  // more than a piece
      {"", 0, "empty", 0},
      {"", 4294967040, "larger than the 4294967039 bytes that the protocol has room for", 0},
  };
  for (const auto &[content, size, refusal, checksum] : CASES) {
    std::ofstream(path) << content;
    std::filesystem::resize_file(path, size);  // beyond the content it takes no room
    Image image;
    string why;
    EXPECT_EQ(OpenImage(path, &image, &why), refusal.empty()) << size;
    EXPECT_EQ(std::tie(why, image.checksum), std::tie(refusal, checksum)) << size;
  }
  std::filesystem::remove(path);
}

string OutcomeText(uint32_t type, uint32_t result, const string &body = "") {
  const std::optional<CommandOutcome> outcome = ReadOutcome(type, result, Bytes(body));
  if (!outcome) return "senseless";
  return outcome->ran ? std::to_string(outcome->exit_status) + outcome->output : "refused";
}

TEST(BhctlExec, RepliesTellWhatTheirTypeSays) {
  constexpr uint32_t NO = 0xFFFFFFFF;
  const std::pair<string, std::vector<std::pair<uint32_t, uint32_t>>> CASES[] = {
      {"0", {{0, NO}, {1, 0}, {2, 0}}},
      {"255", {{1, 0xFF00}}},
      {"139", {{1, 0x8B}, {2, 0x8B}, {2, 0x0B00}, {2, 0x8B00}}},
      {"refused", {{0, 0}, {0, 8}, {1, NO}, {1, 0x10000}, {2, NO}, {2, 0xFF00}, {3, NO}, {3, 9}}},
  };
  for (const auto &[wanted, replies] : CASES)
    for (const auto &[type, result] : replies)
      EXPECT_EQ(OutcomeText(type, result), wanted) << type << " " << result;
  EXPECT_EQ(OutcomeText(3, 0, D(8) + "a\nb\0c"s) + OutcomeText(3, 0, D(11)), "0a\nb0ddd");
  EXPECT_EQ(OutcomeText(3, 0, D(0, 10)), "senseless");
  const auto line = [](const string &size, const string &text) {
    return DecodeResultLine(Bytes(size + D(4) + text)).value_or("none");
  };
  EXPECT_EQ(line("\3\0\0\0"s, "ab\n\0\0\0\0"s) + line("\3\0\0\0"s, "a\0\n1234"s), "ab\na");
  for (const auto &[size, text] : {std::pair("\4\0\0\0"s, D(7)), {"\0\0\0\1"s, D(9)}, {"", D(7)}})
    EXPECT_EQ(line(size, text), "none") << text;
  string fits = FitsType("", 3) ? "1" : "0";
  for (const auto &[size, type] : {std::pair(488U, 2U), {511, 1}, {511, 0}, {1400, 3}})
    fits += std::to_string(FitsType(D(size), type)) + std::to_string(FitsType(D(size + 1), type));
  EXPECT_EQ(fits, "010101010");
  EXPECT_TRUE(FitsType(string(30, ' ') + "d", 0) && !FitsType(string(31, ' ') + "d", 1));
}

TEST(BhctlText, IsShortAndCommandsNoTerminal) {
  using Texts = std::vector<string>;
  EXPECT_EQ((Texts{SizeText(999), SizeText(1000), SizeText(999'999), SizeText(UINT64_MAX)}),
            (Texts{"999 B", "1.0 kB", "999.9 kB", "18446744.0 TB"}));
  EXPECT_EQ((Texts{UsedText(9, 8, 999), UsedText(~0U, 0, 1), UsedText(0, 0, 0), UsedText(1, 9, 9)}),
            (Texts{"1%", "100%", "-", "0%"}));  // 0.1% counts as 1%
  EXPECT_EQ((Texts{GigabytesText(500'107'862'016), StateName(0x8000000A), StateName(0xABCDEF)}),
            (Texts{"500.1 GB", "ACP_STATE_NOT_PERMIT", "0x00ABCDEF"}));
  EXPECT_EQ(ProgressText(12'345'678, 16'777'216, std::chrono::milliseconds(1250)),
            "  12.3 MB of 16.7 MB  73%  9.8 MB/s  0:00 left");
  EXPECT_EQ(ProgressText(1000, 4'294'967'039, std::chrono::milliseconds(100)),
            "  1.0 kB of 4.2 GB  0%  10.0 kB/s  7158:16 left");
  EXPECT_EQ(SafeText("\x1B[31m\n\x7F~/ \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 \xC2\x9B[ \xC2\xA0"),
            "?[31m??~/ \xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80 ??[ \xC2\xA0");
  EXPECT_EQ(SafeText("\x80 \xC3( \xC0\xAF \xE0\x80\xAF \xED\xA0\x80 \xF4\x90\x80\x80 \xFF \xC3"),
            "? ?( ?? ??? ??? ???? ? ?");
  EXPECT_EQ(SafeLines("a\tb\n\x1B[1m\r\n\nc"), "a\tb\n?[1m?\n\nc");
  testing::internal::CaptureStdout();
  PrintJson({{"path", "\xC3\xA9\x1B\xFF"}, {"mac", MacText(APPLIANCE)}});
  PrintTable({{"\xC3\xA9", "B"}, {"long", "c", "d"}, {"e"}});
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "{\"path\":\"\\u00e9\\u001b\\ufffd\",\"mac\":\"02:bb:00:00:00:01\"}\n"
            "\xC3\xA9     B\nlong  c  d\ne\n");
  EXPECT_EQ(ParseMac("02:bb:00:00:00:01"), APPLIANCE);
  EXPECT_EQ(ParseMac("02-BB-00-00-00-01"), APPLIANCE);
  for (const char *wrong : {"02:bb:00:00:00", "02:bb:00:00:00:01:", "02:bb:00:00:00:0g",
                            "2:bb:00:00:00:001", "02:bb-00:00:00:01", "02.bb.00.00.00.01"}) {
    EXPECT_FALSE(ParseMac(wrong)) << wrong;
  }
}

// The output, errors too, and the wait status.
string RunBhctl(const string &arguments) {
  FILE *pipe = popen(("'" BHCTL_PATH "' " + arguments + " 2>&1 </dev/null").c_str(), "r");
  string output(8192, '\0');
  output.resize(fread(output.data(), 1, output.size(), pipe));
  return output + std::to_string(pclose(pipe));
}

TEST(BhctlCommandLine, UsageErrorsAndHelp) {
  // Most name an interface that is refused: nothing is sent, not even when an error is overlooked.
  const string IMAGE = "'" BHCTL_PATH "' --type 2 ";
  const std::pair<string, string> CASES[] = {
      {"", "a command is needed"},
      {"--json partitoin /", "unknown command 'partitoin', did you mean 'partition'?\n"},
      {"frobnicate", "unknown command 'frobnicate'\n"},
      {"-i lo ping ping", "unexpected argument 'ping'"},
      {"-i lo raid --colour", "unknown option '--colour'"},
      {"-i lo discover --watch=no", "watch"},
      {"-i bh-no-such-if discover --watch", "no such interface: bh-no-such-if"},
      {"-i lo disk " + D(1401), "DIRECTORY must have 1 to 1400 bytes"},
      {"-i lo partition", "PATH is required"},
      {"-i lo partition ''", "PATH must have 1 to 1400 bytes"},
      {"partition -i lo -- -" + D(1400), "PATH must have 1 to 1400 bytes"},
      {"-i lo exec ls --type 4", "--type must be 0, 1, 2 or 3, not '4'"},
      {"-i lo --mac ping", "not a MAC address: 'ping'"},
      {"-i lo ping --timeout 0", "--timeout must be greater than 0"},
      {"-i lo ping --timeout nan", "--timeout must be greater than 0"},
      {"-i lo ping --timeout 86401", "--timeout must be greater than 0"},
      {"ping -i ''", "--interface needs a name"},
      {"-i lo ping --password a --password-stdin", "exclude each other"},
      {"-i lo upgrade x", "--type is required"},
      {"-i lo upgrade x --type 0", "--type must be a number from 1 to 0xffffffff, not '0'"},
      {"-i lo upgrade x --type 0x2 --product 4294967296", "--product must be a number from 0"},
      {"-i lo upgrade x --type 2 --zip-password ''", "--zip-password must not be empty"},
      {"-i lo upgrade /no/image --type 2", "cannot send /no/image: No such file"},
      {"-i lo upgrade / --type 2", "cannot send /: not a regular file"},
      {"-i lo upgrade " + IMAGE + "--password " + D(33), "can have at most 32 bytes"},
      {"-i lo upgrade " + IMAGE + "--zip-password " + D(512), "can have at most 511 bytes"},
      {"-i lo upgrade " + IMAGE + "--zip-password a --password 123456789", "at most 8 bytes"},
      {"-i lo upgrade " + IMAGE + "--password-stdin", "no password on standard input"},
      {"-i lo boot disc --yes", "SYSTEM must be one of emergency, disk, not 'disc'"},
      {"-i lo boot disk", "boot disk asks before it is done: give --yes"},
      {"-i lo raid create raid6 --yes", "KIND must be one of normal, jbod, raid1, raid5, not"},
      {"-i lo test ups /dev/sda", "unexpected argument '/dev/sda'"},
      {"-i lo set-mac 03:00:00:00:00:01 --yes", "not a MAC address of one interface"},
      {"-i lo enable --pass-phrase " + D(33), "the pass phrase can have at most 32 bytes"},
      {"-i lo passwd --new-password a", "give --password"},
      {"-i lo passwd --password a --new-password 123456789", "1 to 8 characters"},
      {"-i lo set", "nothing is given to be set"},
      {"-i lo set --ip 10.0.0.1", "--ip and --netmask go together"},
      {"-i lo set --ip 10.0.0.1 --netmask 255.0.0.0", "set --ip 10.0.0.1 asks before it is done"},
      {"-i lo set --gateway 10.0.0", "--gateway must be an IPv4 address, not '10.0.0'"},
      {"-i lo set --hostname " + D(17), "--hostname must have 1 to 16 bytes"},
      {"-i lo set --time '2000-12-31 00:00:00'", "--time must be now or"},
      {"-i bh-no-such-if set --time 2100-03-01T23:59:59 --timezone -840", "no such interface"},
      {"-i lo set --timezone 841", "--timezone must be a number of minutes from -840 to 840"},
  };
  for (const auto &[arguments, wanted] : CASES) {
    const string output = RunBhctl(arguments);
    EXPECT_TRUE(output.ends_with("\n512")) << arguments << output;
    EXPECT_NE(output.find(wanted), string::npos) << arguments << output;
  }
  EXPECT_TRUE(RunBhctl("--help").ends_with("\n0"));
}

}  // namespace
