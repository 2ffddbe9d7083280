// The client library without a network: requests, replies, checks.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "client/appliances.h"
#include "client/command.h"
#include "client/drive.h"
#include "client/fleet.h"
#include "client/format.h"
#include "client/identity.h"
#include "client/image.h"
#include "client/password_hash.h"
#include "client/session.h"
#include "client/special.h"
#include "client/update.h"
#include "tests/bytes.h"

namespace {

using namespace acp;
using std::string;
using std::vector;

constexpr Mac CLIENT = {0x02, 0xCC, 0x00, 0x00, 0x00, 0x10};
constexpr Mac APPLIANCE = {0x02, 0xBB, 0x00, 0x00, 0x00, 0x01};
constexpr uint32_t KEY = 0x12345678;

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

TEST(ClientRequest, BytesOnTheWire) {
  IdentityChange dhcp;
  dhcp.dhcp = true;
  IdentityChange settings;
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

TEST(ClientReply, MalformedAndForeignOnesDoNotCount) {
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

TEST(ClientReply, ShortBodiesDoNotCount) {
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

TEST(ClientReply, PingIsAnEcho) {
  string echo = ReplyText(ACP_PING_REPLY, "");
  echo[10] = 4;  // as the request may have said
  EXPECT_TRUE(IsAccepted(echo, MakePingRequest()));
  EXPECT_FALSE(IsAccepted(echo + "d", MakePingRequest()));
  EXPECT_FALSE(IsAccepted(ReplyText(0, ""), MakePingRequest()));
}

TEST(ClientReply, PathsEndWithinTheirField) {
  const PartitionInfo part = ReadPartitionInfo(ReplyBody(ACP_PART_REPLY, Letters(92)));
  EXPECT_EQ(string(part.path), Letters(63));
  const RaidInfo raid = ReadRaidInfo(ReplyBody(ACP_INFO_RAID_REPLY, Letters(736)));
  for (const RaidInfoEntry &entry : raid.entries)
    EXPECT_EQ(string(entry.path), Letters(63));
}

DriveIdentity Identify(const string &words) {
  return IdentifyDrive(ReadDiskInfo(ReplyBody(ACP_INFO_HDD_REPLY, words)));
}

TEST(ClientDrive, TextsAndCapacityComeFromTheWords) {
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

TEST(ClientSession, ZeroBytesLimitThePasswordsOfAKey) {
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

TEST(ClientPassword, IsHashedAsTheAccountDatabaseDoes) {
  EXPECT_EQ(HashPassword("FernGate", "ab"), "abcHKXPavTczo");
  const string salt = RandomSalt();
  EXPECT_EQ(HashPassword("FernGate", salt).substr(0, 2), salt);
}

TEST(ClientUpgrade, RequestsOnTheWire) {
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

TEST(ClientUpgrade, ImagesFitTheProtocol) {
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

TEST(ClientExec, RepliesTellWhatTheirTypeSays) {
  constexpr uint32_t FAILURE = ACP_STATE_FAILURE;
  const struct {
    uint32_t type, result;
    bool ran;
    int exit_status;
  } cases[] = {
      {COMMAND_BACKGROUND, FAILURE, true, 0},
      {COMMAND_BACKGROUND, 0, false, 1},
      {COMMAND_WAITED, 0xFF00, true, 255},
      {COMMAND_WAITED, 0x8B, true, 139},  // ended by a signal
      {COMMAND_WAITED, 0x10000, false, 1},
      {COMMAND_TO_FILE, 0x8B, true, 139},
      {COMMAND_TO_FILE, 0x8B00, true, 139},
      {COMMAND_TO_FILE, FAILURE, false, 1},
      {COMMAND_TO_FILE, 0xFF00, false, 1},
      {COMMAND_CAPTURED, FAILURE, false, 1},
  };
  for (const auto &each : cases) {
    const CommandOutcome outcome = ReadOutcome(each.type, each.result, {}).value();
    EXPECT_EQ(outcome.ran, each.ran) << each.type << " " << each.result;
    EXPECT_EQ(outcome.exit_status, each.exit_status) << each.type << " " << each.result;
  }
}

TEST(ClientExec, OutputLiesWithinItsBody) {
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

TEST(ClientExec, CommandsFitWhatTheApplianceTakes) {
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

IdentityChange Static(const char *address, const char *netmask, const char *gateway = "0.0.0.0") {
  IdentityChange change;
  change.address = ParseAddress(address);
  change.netmask = ParseAddress(netmask).value();
  change.gateway = ParseAddress(gateway);
  return change;
}

TEST(ClientIdentity, AddressesThatNoHostCanHaveAreRefused) {
  const struct {
    const char *address, *netmask, *gateway;
    const char *message;
  } cases[] = {
      {"10.0.0.1", "255.0.255.0", "0.0.0.0", "netmask 255.0.255.0 has ones behind a zero"},
      {"10.0.0.1", "255.255.255.255", "0.0.0.0", "leaves no network with hosts"},
      {"10.0.0.1", "0.0.0.0", "0.0.0.0", "leaves no network with hosts"},
      {"10.0.0.0", "255.255.255.0", "0.0.0.0", "is the address of the network itself"},
      {"10.0.0.63", "255.255.255.192", "0.0.0.0", "is the broadcast address of its network"},
      {"10.0.1.255", "255.255.0.0", "0.0.0.0", "ends with 255"},
      {"127.0.0.1", "255.0.0.0", "0.0.0.0", "is no address of a host"},
      {"224.0.0.1", "255.0.0.0", "0.0.0.0", "is no address of a host"},
      {"10.0.0.1", "255.255.255.0", "10.0.1.1", "gateway 10.0.1.1 is not in the network of"},
      {"10.0.0.1", "255.255.255.0", "10.0.0.1", "cannot be the appliance's own address"},
      {"10.0.0.1", "255.255.255.0", "10.0.0.0", "gateway 10.0.0.0 is the address of the network"},
  };
  for (const auto &test : cases) {
    const Outcome outcome = CheckIdentity(Static(test.address, test.netmask, test.gateway));
    EXPECT_EQ(outcome.result, Result::INVALID) << test.address;
    EXPECT_NE(outcome.message.find(test.message), string::npos) << outcome.message;
  }
  EXPECT_TRUE(CheckIdentity(Static("10.0.0.1", "255.255.255.252", "10.0.0.2")).IsDone());
}

TEST(ClientIdentity, NamesThatAreNoNamesAreRefused) {
  for (const char *name :
       {"-a", "a-", "a.b", "a b", "a_b", "seventeen-letters", "\x1B", "\xC3\xA9"}) {
    IdentityChange change;
    change.host_name = name;
    EXPECT_EQ(CheckIdentity(change).result, Result::INVALID) << name;
  }
  IdentityChange change;
  change.host_name = "Sixteen-letters1";
  change.workgroup = "A group";
  EXPECT_TRUE(CheckIdentity(change).IsDone());
}

Appliance Seen(uint8_t mac, uint32_t address, const string &name = "") {
  Appliance appliance;
  appliance.answer.mac = {mac};
  appliance.info.address = address;
  name.copy(appliance.info.host_name, sizeof(appliance.info.host_name));
  return appliance;
}

TEST(ClientAppliances, AreMarkedWhenTheyComeGoAndMove) {
  const vector<Appliance> before = {Seen(1, 10), Seen(2, 10), Seen(3, 10), Seen(4, 10)};
  const vector<Appliance> now =
      Compare(before, {Seen(5, 10), Seen(4, 10), Seen(2, 9), Seen(3, 10, "n")}, 0);
  const struct {
    uint8_t mac;
    Change change;
  } wanted[] = {{2, Change::MOVED},
                {1, Change::GONE},
                {3, Change::MOVED},
                {4, Change::NONE},
                {5, Change::NEW}};
  ASSERT_EQ(now.size(), std::size(wanted));  // by address, then by MAC
  for (size_t i = 0; i < now.size(); ++i) {
    EXPECT_EQ(now[i].answer.mac[0], wanted[i].mac) << i;
    EXPECT_EQ(now[i].change, wanted[i].change) << i;
  }
  EXPECT_EQ(Compare(now, {}, 0).size(), 4U) << "one that is gone comes only once";
}

TEST(ClientAppliances, AreNotGoneAfterALostRound) {
  vector<Appliance> known = {Seen(1, 10)};
  known = Compare(known, {}, MAX_SILENT);
  known = Compare(known, {}, MAX_SILENT);
  ASSERT_EQ(known.size(), 1U);
  EXPECT_EQ(known[0].change, Change::NONE);
  EXPECT_EQ(Compare(known, {Seen(1, 10)}, MAX_SILENT)[0].change, Change::NONE);
  EXPECT_EQ(Compare(known, {}, MAX_SILENT)[0].change, Change::GONE);
}

TEST(ClientFleet, StartsNoMoreThanItsLimits) {
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  const auto task = [&](size_t number) {
    const int now = ++running;
    for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);)
      continue;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    --running;
    return number != 3;
  };
  EXPECT_EQ(RunFleet(20, {4, {}, -1}, task), 20U);
  EXPECT_EQ(most, 4);
  EXPECT_EQ(RunFleet(20, {1, 1, -1}, task), 4U);
}

TEST(ClientFormat, MacAddressesHaveOneForm) {
  EXPECT_EQ(ParseMac("02:bb:00:00:00:01"), APPLIANCE);
  EXPECT_EQ(ParseMac("02-BB-00-00-00-01"), APPLIANCE);
  for (const char *wrong : {"02:bb:00:00:00", "02:bb:00:00:00:01:", "02:bb:00:00:00:0g",
                            "2:bb:00:00:00:001", "02:bb-00:00:00:01", "02.bb.00.00.00.01"})
    EXPECT_FALSE(ParseMac(wrong)) << wrong;
}

}  // namespace
