// The settings library on a board: settings files, product identity, hardware addresses.

#include "lib/libbh.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <vector>

#include "tests/files.h"

namespace {

using std::string;
using namespace fixture;
using namespace std::string_literals;

constexpr const char *SETTINGS = "/tmp/settings";
constexpr const char *PRODUCT = "/proc/brackenhold";
constexpr const char *RELEASE = "/etc/brackenhold_release";

using Value = std::optional<string>;  // nothing: the key is not set, or there is no such file

Value Get(const char *path, const string &key) {
  char *text = libbh_GetConfigValue(path, key.c_str());
  Value value = text == nullptr ? Value() : Value(text);
  free(text);
  return value;
}

void Put(const char *path, const Value &content) {
  RemoveFile(path);
  if (content) WriteFile(path, *content);
}

constexpr auto V = [](size_t length, string head = "") { return head.append(length, 'v'); };

TEST(ConfigValue, IsReadFromEveryShapeOfLine) {
  const string x255(255, 'x'), b60(60, ' ');
  const struct {
    Value value;
    std::vector<string> contents;
  } cases[] = {
      {"a text", {"KEY=a text\nKEY=2\n", "KEY=\"a text\"\n", " \t KEY\t = \t a text"}},
      {"a text", {"KEY=\"a text\"\r\nB=1\r\n", "KEY=x \"a text\" # note\n"}},
      {"", {"A=1\nKEY=\nB=2\n", "KEY= ", "KEY=\"\"\n"}},
      {"1", {"KEY\n#KEY=2\n #KEY=3\nkey=4\nKEY2=5\nMYKEY=6\nK=EY=7\nKEY\0=8\nKEY=1\n"s}},
      {{}, {"", "#KEY=1\n #KEY=1\n", "KEY" + b60 + "=1\n", x255 + "#KEY=1\n"}},
      {"text \t\r", {"KEY=text \t\r\nB=1\r\n"}},
      {"a=b", {"KEY=a=b\n"}},
      {"\"abc", {"KEY=\"abc\n", "KEY=\"abc\0\"\n"s}},
      {"a\"b", {"KEY=\"a\"b\"\n", "KEY=a\\\\\\\"b\n", "KEY=\"a\\\\\\\"b\"\n"}},
      {"abc", {"KEY=a\\bc\n", "KEY=a\\\\bc\n", "KEY=abc\\\n", "KEY=abc\\\\\\\n", "KEY=abc\0de\n"s}},
      {"a\\bc", {"KEY=a\\\\\\\\bc\n"}},
      {V(249), {V(249, "KEY=\"") + "\"\nB=1\n"}},  // the first piece ends before the line end
      {V(300), {V(300, "KEY=\"") + "\"\nB=1\n", V(300, "KEY=")}},
      {"piece", {x255 + "KEY=piece\n", string(9000, '\n') + "KEY=piece"}},
  };
  for (const auto &c : cases) {
    for (const string &content : c.contents) {
      WriteFile(SETTINGS, content);
      EXPECT_EQ(Get(SETTINGS, "KEY"), c.value) << content;
    }
  }
  const string k62(62, 'k');
  WriteFile(SETTINGS, k62 + "k=too long\n \t" + k62 + "=fits\n#KEY=1\n");
  EXPECT_EQ(Get(SETTINGS, k62), "fits");
  EXPECT_EQ(Get(SETTINGS, k62 + "k"), std::nullopt);
  EXPECT_EQ(Get(SETTINGS, "#KEY"), std::nullopt);
}

TEST(SetConfigValue, ChangesOnlyTheValueOfDefiningLinesOrCreatesTheFile) {
  const string x510(510, 'x');
  const struct {
    Value before;
    string value;
    int32_t result;
    string after;
  } cases[] = {
      {{}, "a\"b", 0, "KEY=\"a\\\\\\\"b\"\n"},
      {{}, V(300), 0, V(300, "KEY=\"") + "\"\n"},
      {"A=1\nKEY=1\nA=\n KEY \t= \t2\n", "a text", 0, "A=1\nKEY=a text\nA=\n KEY \t= \ta text\n"},
      {"KEY=\"old\"\r\nB=\"2\"\r\n", "new", 0, "KEY=new\r\nB=\"2\"\r\n"},
      {"KEY=o\rd", "new", 0, "KEY=new\r\n"},
      {"A=1\nKEY=old", "new", 0, "A=1\nKEY=new"},
      {"KEY= old\n", "", 0, "KEY= \n"},
      {" # KEY=1\nKEY\nKEYS=1\nkey=1", "new", 0, " # KEY=1\nKEY\nKEYS=1\nkey=1"},
      {"\0A=\0\n\0\nKEY=o\0d\n\0"s, "new", 0, "\0A=\0\n\0\nKEY=new\n\0"s},
      {"KEY=old\n", "a\"b\"\\c\\", 0, "KEY=a\\\\\\\"b\\\\\\\"\\c\\\n"},
      {V(300, "KEY=") + "\nB=2\n", "new", 0, "KEY=new\nB=2\n"},
      {x510 + "\nA=1\n" + x510 + "KEY=old\n", "new", 0, x510 + "\nA=1\n" + x510 + "KEY=new\n"},
      {"A=1\nKEY=old\n", V(250), 0, V(250, "A=1\nKEY=") + "\n"},
      {"A=1\nKEY=old\n", V(251), -10000 - EMSGSIZE, "A=1\nKEY=old\n"},
      {"KEY=old\n", V(247, "\""), -10000 - EMSGSIZE, "KEY=old\n"},
  };
  for (const auto &c : cases) {
    Put(SETTINGS, c.before);
    EXPECT_EQ(libbh_SetConfigValue(SETTINGS, "KEY", c.value.c_str()), c.result) << c.after;
    EXPECT_EQ(ReadFile(SETTINGS), c.after);
  }
}

TEST(SettingsFile, ThatCannotBeUsedIsReported) {
  openlog("lib", LOG_PERROR, LOG_DAEMON);
  setlogmask(LOG_MASK(LOG_DEBUG));  // nothing of another priority passes
  const struct {
    const char *path, *key;
    int32_t result;
  } cases[] = {
      {"/tmp", "KEY", -10000 - EISDIR},        {"/tmp/missing/settings", "KEY", -10000 - ENOENT},
      {nullptr, "KEY", -10000 - EINVAL},       {SETTINGS, nullptr, -10000 - EINVAL},
      {"/proc/self/mem", "KEY", -10000 - EIO},  // opens, but its start does not read
  };
  WriteFile(SETTINGS, "KEY=old\n");
  testing::internal::CaptureStderr();
  for (const auto &c : cases) {
    EXPECT_EQ(libbh_SetConfigValue(c.path, c.key, "new"), c.result);
    EXPECT_EQ(libbh_GetConfigValue(c.path, c.key), nullptr);
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "lib: misc.c 501 Is a directory\n");
  EXPECT_EQ(libbh_SetConfigValue(SETTINGS, "KEY", nullptr), -10000 - EINVAL);
}

TEST(SettingsFile, FullDiskIsReported) {
  signal(SIGXFSZ, SIG_IGN);
  rlimit limit = {};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  const rlimit full = {0, limit.rlim_max};
  // The second does not fit the stream's buffer, so it fails before the file is closed.
  for (const Value &before : {Value("KEY=old\n"), Value(string(9000, '\n')), Value()}) {
    Put(SETTINGS, before);
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
    const int32_t result = libbh_SetConfigValue(SETTINGS, "KEY", "new");
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    EXPECT_EQ(result, -10000 - EFBIG);
  }
  // The first write, the last of these, has left no file in which later ones would find no key.
  EXPECT_EQ(libbh_SetConfigValue(SETTINGS, "KEY", "new"), 0);
  EXPECT_EQ(Get(SETTINGS, "KEY"), "new");
}

TEST(SettingsFile, LinkToAFileThatCannotBeWrittenStays) {
  const rlimit full = {0, RLIM_INFINITY};
  signal(SIGXFSZ, SIG_IGN);
  RemoveFile(SETTINGS);
  ASSERT_EQ(symlink("/tmp/behind", SETTINGS), 0);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &full), 0);
  EXPECT_EQ(libbh_SetConfigValue(SETTINGS, "KEY", "new"), -10000 - EFBIG);
  const rlimit none = {RLIM_INFINITY, RLIM_INFINITY};
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &none), 0);
  EXPECT_EQ(libbh_SetConfigValue(SETTINGS, "KEY", "new"), 0);
  EXPECT_EQ(Get("/tmp/behind", "KEY"), "new");
  RemoveFile(SETTINGS);
}

TEST(Misc, DefaultsAndGrownTexts) {
  const char *const defaults[] = {
      "1.1.1.1", "255.255.255.0",      "11", "3", "0", "1", "0", "0", "60",
      "5",       "0x000000000000000F", "12", "4", "1", "0"};
  for (uint32_t i = 0; i < 15; ++i)
    EXPECT_STREQ(libbh_GetDefaultValue(i), defaults[i]) << i;
  EXPECT_EQ(libbh_GetDefaultValue(15), nullptr);
  EXPECT_EQ(libbh_GetDefaultValue(0xFFFFFFFF), nullptr);
  char *text = libbh_AppendString(nullptr, nullptr);
  EXPECT_STREQ(text, "");
  text = libbh_AppendString(libbh_AppendString(text, "auto "), "eth0\n");
  EXPECT_STREQ(text, "auto eth0\n");
  free(text);
}

TEST(Identity, TextsFitOrAreRefused) {
  const struct {
    int32_t (*getter)(char *, int32_t);
    const char *path, *content;
    int32_t size, result;
    const char *text;
  } cases[] = {
      {libbh_GetProductName, PRODUCT, "PRODUCTNAME=\"QBX-200\"\n", 11, -65, "?"},
      {libbh_GetProductName, PRODUCT, "PRODUCTNAME=twelve-chars\n", 13, 0, "twelve-chars"},
      {libbh_GetProductName, PRODUCT, "PRODUCTNAME=twelve-chars\n", 12, -65, "?"},
      {libbh_GetProductName, PRODUCT, "PRODUCTNAME=\n", 12, 0, "Brackenhold"},
      {libbh_GetSeries, PRODUCT, "QR_SERISE=\"QBX\"\n", 4, 0, "QBX"},
      {libbh_GetSeries, PRODUCT, "QR_SERISE=\"QBX\"\n", 3, -4, "?"},
      {libbh_GetSeries, PRODUCT, "QR_SERISE=\"\"\n", 12, 0, "Brackenhold"},
      {libbh_GetSeries, PRODUCT, "", 11, -12, "?"},
      {libbh_GetSubVersion, PRODUCT, "SUBVERSION=\"b12\"\n", 4, 0, "b12"},
      {libbh_GetSubVersion, PRODUCT, "SUBVERSION=\"b123\"\n", 4, -5, ""},
      {libbh_GetSubVersion, PRODUCT, "SUBVERSION=b12", -1, -4, "?"},
      {libbh_GetSubVersion, PRODUCT, "VERSION=1\n", 1, 0, ""},
      {libbh_GetSubVersion, PRODUCT, "VERSION=1\n", 0, 0, "?"},
      {libbh_GetReleaseSubVersion, RELEASE, "SUBVERSION=\"r7\"\n", 3, 0, "r7"},
      {libbh_GetReleaseSubVersion, RELEASE, "SUBVERSION=\"r7\"\n", 2, -3, ""},
      {libbh_GetBuildDate, PRODUCT, "BUILDDATE=\"2006/03/01\"\n", 11, 0, "2006/03/01"},
      {libbh_GetBuildDate, PRODUCT, "BUILDDATE=\"2006/03/01\"\n", 10, -11, "?"},
      {libbh_GetBuildDate, PRODUCT, "BUILDDATE=\n", 1, 0, ""},
      {libbh_GetBuildDate, PRODUCT, "", 11, -10000, "?"},
      {libbh_GetReleaseBuildDate, RELEASE, "BUILDDATE=today\n", 6, 0, "today"},
      {libbh_GetReleaseBuildDate, RELEASE, "BUILDDATE=today\n", 5, -6, "?"},
  };
  for (const auto &c : cases) {
    RemoveFile(PRODUCT);
    RemoveFile(RELEASE);
    WriteFile(c.path, c.content);
    char buffer[64] = "?";
    memset(buffer + 2, '!', 60);
    EXPECT_EQ(c.getter(buffer, c.size), c.result) << c.content << " in " << c.size;
    EXPECT_STREQ(buffer, c.text) << c.content << " in " << c.size;
    EXPECT_EQ(buffer[std::max(c.size, 2)], '!') << c.content << " in " << c.size;
  }
  EXPECT_EQ(libbh_GetReleaseBuildDate(nullptr, 64), -6);
  WriteFile(RELEASE, "BUILDDATE=today\n");
  EXPECT_EQ(libbh_GetReleaseSubVersion(nullptr, 64), 0) << "there is nothing to fit";
}

template <int32_t (*GETTER)(uint16_t *)>
int32_t Version() {
  uint16_t version = 0xEEEE;
  EXPECT_EQ(GETTER(&version), 0);
  return version;
}

TEST(Identity, NumbersAndStatesAreTold) {
  constexpr const char *TIMER = "/etc/korvo/timer_status";
  const struct {
    int32_t (*getter)();
    const char *path;
    int32_t number;
    std::vector<Value> contents;
  } cases[] = {
      {Version<libbh_GetReleaseVersion>, RELEASE, 0x0225, {"VERSION=2.37\n"}},
      {Version<libbh_GetReleaseVersion>, RELEASE, 0x0A08, {"VERSION=\"010.08\"\r\n"}},
      {Version<libbh_GetVersion>, PRODUCT, 0x0300, {"VERSION=3\n", "VERSION=2.256\n"}},
      {Version<libbh_GetVersion>, PRODUCT, 0x0001, {"VERSION=.1\n", "VERSION=256.1\n"}},
      {Version<libbh_GetVersion>, PRODUCT, 0, {{}, "VERSION=\n"}},
      {libbh_GetHwId, "/proc/qr_info", 0x9876, {"hwid = 0xABCD9876\n"}},
      {libbh_GetHwId, "/proc/qr_info", 0, {{}, "hwid=\n", "HWID=1\n"}},
      {libbh_GetProductId, "/proc/qrconf_info", 0, {{}, "PRODUCTID=\n"}},
      {libbh_GetProductId, "/proc/qrconf_info", 077, {"PRODUCTID=\"077\"\n"}},  // and stays
      {libbh_GetProductId, PRODUCT, 077, {{}, "PRODUCTID=\n"}},
      {libbh_GetProductId, PRODUCT, 8194, {"PRODUCTID=\"8194\"\n", "PRODUCTID=0x2002\r\n"}},
      {libbh_GetProductId, PRODUCT, -0x7FFFFFFF, {"PRODUCTID=0x80000001\n"}},
      {libbh_GetProductId, PRODUCT, 0, {"PRODUCTID=0\n"}},
      {libbh_GetTimerStatus, TIMER, 0, {{}, "type=off", "Type=off\n", "\ntype=off\n"}},
      {libbh_GetTimerStatus, TIMER, 1, {"type=off\n", "type=offline\n"}},
      {libbh_GetTimerStatus, TIMER, 2, {"type=sleep\n"}},
      {libbh_GetTimerStatus, TIMER, 3, {"", "type=\n\n", V(300, "type=backup")}},
      {libbh_GetProductState, RELEASE, 0, {{}}},
      {libbh_GetProductState, "/etc/qvnet_emergence", 2, {""}},
      {libbh_GetProductState, "/etc/qvnet_product", 1, {""}},  // each outweighs those before
      {libbh_GetProductState, "/etc/brackenhold_emergence", 2, {""}},
      {libbh_GetProductState, RELEASE, 1, {""}},
  };
  for (const auto &c : cases) {
    for (const Value &content : c.contents) {
      Put(c.path, content);
      EXPECT_EQ(c.getter(), c.number) << content.value_or("no file ") << c.path;
    }
  }
}

TEST(MacAddress, IsTheKernelsOrZero) {
  const std::vector<int> board = {0x02, 0x0B, 0x4A, 0x00, 0x00, 0x10, 0xEE};
  const std::vector<int> none = {0, 0, 0, 0, 0, 0, 0xEE};  // the byte behind must stay
  for (const string &name : {"eth0"s, "lo"s, ""s, "missing0"s, V(200)}) {
    uint8_t mac[7];
    memset(mac, 0xEE, sizeof(mac));
    EXPECT_EQ(libbh_GetMacAddress(name.c_str(), mac), 0);
    EXPECT_EQ(std::vector<int>(mac, mac + 7), name == "eth0" ? board : none) << name;
  }
}

}  // namespace
