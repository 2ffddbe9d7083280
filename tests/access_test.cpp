// Passwords and their transport: the cipher's bytes, the life of keys, which hashes accept what.

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>

#include "access/cipher.h"
#include "access/keys.h"
#include "access/password.h"
#include "board/client_end.h"
#include "daemon/state.h"
#include "tests/files.h"

namespace {

using std::string;
using wire::Hex;

string TraceOf(void (*work)()) {
  set_mode_flags(MODE_DEBUG);
  testing::internal::CaptureStdout();
  work();
  set_mode_flags(0);
  return testing::internal::GetCapturedStdout();
}

TEST(Cipher, FieldIsDecodedAsFarAsItsTextGoes) {
  const string full = "9F46EBD6EC5642BE 9746E3D6FC5E42B6 8F46FBD6EC4642AE 870DBC99A9030FA6";
  const struct {
    const char *name;
    uint32_t key;
    string field;
    size_t capacity;
    std::optional<string> text;
  } cases[] = {
      {"seven characters", 0x80FF01C3, "C6B5C6F99EA0379A", 8, "FernGat"},
      {"no room for the NUL", 0x80FF01C3, "C6B5C6F9FBA0379A", 8, {}},
      {"zero first", 0x12345678, "00658D63F1475151", 33, "\x12\x65\x33x\xAF\xD7gW"},
      {"nothing", 0x12345678, "", 33, "\x12\x34\x56\x78\x22\x90\xEC\xB0"},
      {"cut block", 0xFEDCBA98, "9044EDD4F25848B5 8D", 33, "ninechars\xDC\x37\x98\x8E\x30\x1C\x90"},
      {"up to a zero", 0xFEDCBA98, full + "00C8", 33, "abcdefghijklmnopqrstuvwxyz012345"},
      {"no room for its blocks", 0xFEDCBA98, "9044EDD4F25848B5 8D378EA5E43044DC", 15, {}},
  };
  for (const auto &test : cases)
    EXPECT_EQ(DecodePassword(Hex(test.field), test.key, test.capacity), test.text) << test.name;
}

constexpr uint8_t MACS[][6] = {{2, 0xAB, 0, 0, 0, 1}, {2, 0xAB, 0, 0, 0, 2}, {2, 0xAB, 1, 0, 0, 1}};

TEST(Keys, LiveHalfAnHourFromTheirIssue) {
  constexpr uint32_t START = 1700000000;
  constexpr uint32_t NONE = UINT32_MAX;
  const struct {
    const char *name;
    uint32_t at;  // seconds past START
    uint32_t (*call)(const uint8_t *);
    size_t mac;
    uint32_t drawn_at;  // the key
  } cases[] = {
      {"none yet", 0, GetKey, 0, NONE},
      {"first", 0, IssueKey, 0, 0},
      {"second client's of the same second", 0, IssueKey, 1, 0},
      {"first once more", 100, IssueKey, 0, 0},
      {"third client's", 100, IssueKey, 2, 100},
      {"first in its last second", 1799, GetKey, 0, 0},
      {"second after its end", 1800, IssueKey, 1, 1800},
      {"third after the others' end", 1800, GetKey, 2, 100},
      {"first after its end", 1800, GetKey, 0, NONE},
      {"clock set back", 0, GetKey, 1, NONE},
  };
  for (const auto &test : cases) {
    const struct timeval now = {static_cast<time_t>(START + test.at), 0};
    ASSERT_EQ(settimeofday(&now, nullptr), 0);
    const uint32_t key = test.call(MACS[test.mac]);
    srandom(START + test.drawn_at);
    EXPECT_EQ(key, test.drawn_at == NONE ? 0 : static_cast<uint32_t>(random())) << test.name;
  }
}

TEST(Keys, AnyOfThemIsRemovedWithATrace) {
  const string lines[] = {"CleanKey 02:ab:00-00:00:01\n", "CleanKey 02:ab:00-00:00:02\n",
                          "CleanKey 02:ab:01-00:00:01\n"};
  for (unsigned old = 0; old < 8; ++old) {  // a bit for each
    const auto is_old = [old](size_t i) { return (old >> i & 1) != 0; };
    string removed;
    for (const auto &mac : MACS)
      ASSERT_NE(IssueKey(mac), 0U);
    for (size_t i = 0; i < 3; ++i) {
      FindKey(MACS[i])->created = is_old(i) ? 0xFFFFFFF0 : 0xFFFFFFF1;
      if (is_old(i)) removed.insert(0, lines[i]);
    }
    EXPECT_EQ(TraceOf([] { CleanKey(1784); }), removed);  // 1800 seconds on, past the wrap to 0
    for (size_t i = 0; i < 3; ++i)
      EXPECT_EQ(FindKey(MACS[i]) == nullptr, is_old(i)) << old << ", key " << i;
  }
}

const string GOOD = "abcHKXPavTczo", FIXED = "Tq8.Rw3mZbK/c";  // the first: "FernGate7"

int32_t ByFile(const string &content, const char *password) {
  fixture::WriteFile("/www/.htpasswd", content);
  strcpy(daemon_state.password_file, "/www/.htpasswd");
  return CheckPassword_OLD("nobody", password);
}

int32_t ByAccount(const string &hash, const char *password) {
  fixture::WriteFile("/etc/passwd", "Admin:" + GOOD + ":0:0:" + string(5000, 'x') +
                                        ":/:\nadmin:" + hash + ":500:500::/:\n");
  return CheckPassword_NEW("admin", password);
}

struct HashCase {
  const char *name;
  const char *password;
  string hash;
  int32_t by_file, by_account;
};

void ExpectResults(const std::vector<HashCase> &cases) {
  for (const HashCase &test : cases) {
    EXPECT_EQ(ByFile("root:" + test.hash + "\n", test.password), test.by_file) << test.name;
    EXPECT_EQ(ByAccount(test.hash, test.password), test.by_account) << test.name;
  }
}

TEST(Password, HashOfEveryKindAcceptsItsOwn) {
  const string md5 = "$1$saltsalt$9rZyqvtW7soTYM8ycZdmq/";
  const string sha =
      "$6$saltstring$ZyQV/43YfpEWaAFCXzRNRbLaGn17s1NTaNvY8ZAkcxNZ5TJzwuu1ga7E8ZGfT"
      "nZwohC4gQrkka8reviT.EmAV0";
  ExpectResults({
      {"DES", "FernGate7", GOOD, 0, 0},
      {"MD5", "FernGate7", md5, 0, 0},
      {"SHA-512", "FernGate7", sha, 0, 0},
      {"no hash", "FernGate7", "", -1, -1},
      {"refusal of a salt", "FernGate7", "*0", -1, -1},
      {"another password", "fernGate7", md5, -1, -1},
      {"empty password, fixed hash", "", FIXED, 0, -1},
      {"empty password, its own hash", "", "abmF1QH4PEr.E", -1, 0},
      {"empty password, another hash", "", GOOD, -1, -1},
  });
}

TEST(Password, HashOfARareKindToo) {
  const string sun = "$md5,rounds=1$" + string(217, 'a');
  ExpectResults({
      {"255 characters", "FernGate7", sun + "$$yHc5sxladdPRjL28KnZvQ.", 0, 0},
      {"one more in the hash", "FernGate7", sun + "$$yHc5sxladdPRjL28KnZvQ.x", -1, -1},
      {"one more in the salt", "FernGate7", sun + "a$$qm4KrGJHRKGpRtANLmtxL1", -1, -1},
  });
}

TEST(Password, OnlyTheFirstLineOfTheFileCounts) {
  const struct {
    string file;
    int32_t result;
  } cases[] = {
      {"root:" + GOOD, 0},
      {"root: \t" + GOOD + "\r\n", 0},
      {"root:" + GOOD + " x\n", 0},
      {"admin:x\nroot:" + GOOD, -1},
      {"Root:" + GOOD, -1},
      {"root:\n" + GOOD, -1},
      {"root:" + GOOD + ":0", -1},
      {"", -1},
      {GOOD, -1},
  };
  for (const auto &test : cases)
    EXPECT_EQ(ByFile(test.file, "FernGate7"), test.result) << test.file;
  EXPECT_EQ(ByFile("root:\n" + FIXED, ""), -1);
  for (const char *password : {"any", "", static_cast<const char *>(nullptr)}) {
    strcpy(daemon_state.password_file, "/www/none");
    EXPECT_EQ(CheckPassword_OLD("root", password), 0) << "without a file";
    strcpy(daemon_state.password_file, "/www");  // opens, but does not read
    EXPECT_EQ(CheckPassword_OLD("root", password), -1);
  }
}

TEST(Password, ProductChoosesTheScheme) {
  const string by_file =
      "CheckPassword_OLD().\ncheck_pass=\"abiQ6Ep3EYTHc\"\nroot_pass =\"" + GOOD + "\"\n";
  const string by_account =
      "CheckPassword_NEW().\ncheck_pass=\"abiQ6Ep3EYTHc\"\ntrue_pass =\"" + GOOD + "\"\n";
  ByFile("root:" + GOOD, "");
  ByAccount(GOOD, "");
  for (const uint32_t product : {0x2000U, 0x2001U, 0x2002U, 0x2003U}) {
    daemon_state.product_id = product;
    const string &expected = product == 0x2001 || product == 0x2002 ? by_account : by_file;
    EXPECT_EQ(TraceOf([] { EXPECT_EQ(CheckPassword("x"), -1); }), expected) << product;
  }
  EXPECT_EQ(TraceOf([] { EXPECT_EQ(CheckPassword_NEW("adm", ""), -1); }), "CheckPassword_NEW().\n");
}

}  // namespace
