// Passwords and their transport: the cipher's bytes, the life of keys, which hashes accept what.

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

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
  const std::tuple<uint32_t, string, size_t, std::optional<string>> CASES[] = {
      {0x80FF01C3, "C6B5C6F99EA0379A", 8, "FernGat"},
      {0xFEDCBA98, "9044EDD4F25848B5 8D378EA5E43044DC", 15, {}},
      {0x80FF01C3, "C6B5C6F9FBA0379A", 8, {}},  // the text's NUL does not fit
      {0x12345678, "00658D63F1475151", 33, "\x12\x65\x33x\xAF\xD7gW"},
      {0x12345678, "", 33, "\x12\x34\x56\x78\x22\x90\xEC\xB0"},
      {0xFEDCBA98, "9044EDD4F25848B5 8D378EA5E43044DC", 33, "ninechars"},
      {0xFEDCBA98, "9044EDD4F25848B5 00378EA5", 33, "ninechar"},
      {0xFEDCBA98, "9044EDD4F25848B5 8D", 33, "ninechars\xDC\x37\x98\x8E\x30\x1C\x90"},
      {0xFEDCBA98, full + "00C8", 33, "abcdefghijklmnopqrstuvwxyz012345"},
      {0xFEDCBA98, full + "C8", 33, {}},
      {0xFEDCBA98, full + "C8728EE0E43044DC", 41, "abcdefghijklmnopqrstuvwxyz0123456"},
  };
  for (const auto &[key, field, capacity, text] : CASES)
    EXPECT_EQ(DecodePassword(Hex(field), key, capacity), text) << field << " in " << capacity;
}

constexpr uint8_t MACS[][6] = {{2, 0xAB, 0, 0, 0, 1}, {2, 0xAB, 0, 0, 0, 2}, {2, 0xAB, 1, 0, 0, 1}};

TEST(Keys, LiveHalfAnHourFromTheirIssue) {
  constexpr uint32_t START = 1700000000;
  // When, in seconds past START, who asks how, and of which second the key is; -1: none is left.
  const std::tuple<uint32_t, uint32_t (*)(const uint8_t *), size_t, int> CASES[] = {
      {0, GetKey, 0, -1},     {0, IssueKey, 0, 0},       {0, IssueKey, 1, 0},
      {100, IssueKey, 0, 0},  {100, IssueKey, 2, 100},   {1799, GetKey, 0, 0},
      {1799, IssueKey, 1, 0}, {1800, IssueKey, 1, 1800}, {1800, GetKey, 2, 100},
      {1800, GetKey, 0, -1},  {0, GetKey, 1, -1}};  // the clock is set back
  for (const auto &[at, call, mac, second] : CASES) {
    const struct timeval now = {static_cast<time_t>(START + at), 0};
    ASSERT_EQ(settimeofday(&now, nullptr), 0);
    const uint32_t key = call(MACS[mac]);
    srandom(START + static_cast<uint32_t>(second));
    EXPECT_EQ(key, second < 0 ? 0 : static_cast<uint32_t>(random())) << at << " " << mac;
  }
}

TEST(Keys, AnyOfThemIsRemovedWithATrace) {
  const string lines[] = {"CleanKey 02:ab:00-00:00:01\n", "CleanKey 02:ab:00-00:00:02\n",
                          "CleanKey 02:ab:01-00:00:01\n"};
  for (unsigned old = 0; old < 8; ++old) {  // a bit for each
    const auto is_old = [old](size_t i) { return (old >> i & 1) != 0; };
    string removed;
    for (const auto &mac : MACS)
      EXPECT_NE(IssueKey(mac), 0U);
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

TEST(Password, HashOfEveryKindAcceptsItsOwn) {
  const string md5 = "$1$saltsalt$9rZyqvtW7soTYM8ycZdmq";
  const string sha = "$6$saltstring$ZyQV/43YfpEWaAFCXzRNRbLaGn17s1NTaNvY8ZAkcxNZ5TJzwuu1ga7E8ZGfT";
  const std::tuple<const char *, int32_t, int32_t, std::vector<string>> CASES[] = {
      {"FernGate7", 0, 0, {GOOD, md5 + "/", sha + "nZwohC4gQrkka8reviT.EmAV0"}},
      {"FernGate7", -1, -1, {md5, "", "*0"}},
      {"fernGate7", -1, -1, {GOOD, md5 + "/"}},
      {"", 0, -1, {FIXED}},
      {"", -1, 0, {"abmF1QH4PEr.E"}},  // the empty text's own
      {"", -1, -1, {GOOD, "", "*", "!", "x", "*0", "*1"}},
  };
  for (const auto &[password, by_file, by_account, hashes] : CASES) {
    for (const string &hash : hashes) {
      EXPECT_EQ(ByFile("root:" + hash + "\n", password), by_file) << hash;
      EXPECT_EQ(ByAccount(hash, password), by_account) << hash;
    }
  }
}

TEST(Password, HashOfARareKindToo) {
  const string yes = "$y$j9T$F5Jx5fExrKuPp53xLKQ..1$UmDbsYVl5whkTfUYbYhw5o6po2gy/JjinqElsTQ6V06";
  const string sun = "$md5,rounds=1$" + string(217, 'a'), at_255 = "$$yHc5sxladdPRjL28KnZvQ.";
  const std::pair<string, int32_t> CASES[] = {{yes, 0},
                                              {sun + at_255, 0},
                                              {sun + at_255 + "x", -1},
                                              {sun + "a$$qm4KrGJHRKGpRtANLmtxL1", -1}};
  for (const auto &[hash, result] : CASES) {
    EXPECT_EQ(ByFile("root:" + hash + "\n", "FernGate7"), result) << hash;
    EXPECT_EQ(ByAccount(hash, "FernGate7"), result) << hash;
  }
}

TEST(Password, OnlyTheFirstLineOfTheFileCounts) {
  for (const string &hash : {GOOD, FIXED}) {
    for (const string &text : {"root:" + hash, "root: \t" + hash + "\r\n", "root:" + hash + " x\n"})
      EXPECT_EQ(ByFile(text, hash == GOOD ? "FernGate7" : ""), 0) << text;
    for (const string &text : {"admin:x\nroot:" + hash, "Root:" + hash, "root:\n" + hash, string(),
                               "root:" + hash + ":0", "root:" + hash + string(300, 'x'), hash})
      EXPECT_EQ(ByFile(text, hash == GOOD ? "FernGate7" : ""), -1) << text;
  }
  for (const char *password : {"any", "", static_cast<const char *>(nullptr)}) {
    strcpy(daemon_state.password_file, "/www/none");
    EXPECT_EQ(CheckPassword_OLD("root", password), 0);
    strcpy(daemon_state.password_file, "/www");  // opens, but does not read
    EXPECT_EQ(CheckPassword_OLD("root", password), -1);
  }
}

TEST(Password, ProductChoosesTheSchemeAndTheTraceTells) {
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
  EXPECT_EQ(CheckPassword_NEW("admin", nullptr), -1);
  EXPECT_EQ(TraceOf([] { EXPECT_EQ(CheckPassword_NEW("adm", ""), -1); }), "CheckPassword_NEW().\n");
  EXPECT_EQ(CheckPassword_NEW("admin", "FernGate7"), 0) << "the enumeration was not ended";
}

}  // namespace
