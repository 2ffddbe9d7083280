// Host name, workgroup, clock, NTP and maintenance: what each call answers, writes and starts.

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "board/board.h"
#include "lib/libbh.h"
#include "tests/files.h"

using namespace fixture;
using namespace std::string_literals;
using std::string, std::to_string, board::CALL_LOG;
using Ints = std::vector<int32_t>;
constexpr const char *HOSTS = "/etc/hosts", *INFO = "/etc/korvo/info", *CRONTAB = "/etc/crontab";
constexpr const char *PRODUCT = "/proc/brackenhold", *ZONE = "/etc/localtime";
const string NTP = "* * * root /usr/sbin/ntpdate_script -b -s ", X250(250, 'x');

static string Fill(int32_t (*getter)(char *, int32_t), const Ints &sizes) {
  string seen;  // the results, each with 6 bytes of the buffer
  for (const int32_t size : sizes) {
    char buffer[] = "!!!!!!";
    seen.append(to_string(getter(buffer, size))).append(buffer, 6);
  }
  return seen;
}

// The result, the crontab and how many names it has then, and what is read from it.
static string Ntp(const char *before, int32_t enabled, string server, int32_t hours) {
  NtpConfig config = {enabled, server.data(), hours};
  before == nullptr ? RemoveFile(CRONTAB) : WriteFile(CRONTAB, before);
  string seen = to_string(libbh_SetNtpConfig(0, &config)) + " ";
  seen += ReadFile(CRONTAB) + to_string(std::filesystem::hard_link_count(CRONTAB));
  libbh_GetNtpConfig(&config);
  seen += (config.enabled == 1 ? " on " : " off ") + to_string(config.interval_hours) + " ";
  if (config.server != nullptr) seen += config.server;
  libbh_FreeNtpConfig(&config);
  return seen;
}

static void Zone(const char *rule) {
  RemoveFile(ZONE);
  WriteFile(ZONE, "TZif2" + string(39, '\0') + "TZif2" + string(27, '\0') +
                      "\0\0\0\1\0\0\0\1\0\0\0\4"s + string(15, '\0') + "GMT\0\n"s + rule + "\n");
}

// Most significant byte first, as zone files have it.
static string Big(int64_t number, int bytes) {
  string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
    text += static_cast<char>(number >> shift);
  return text;
}

// Its clocks are put on by an hour at that time, from UTC+3 to UTC+4, without any daylight saving.
static void ZoneOfANewOffset(time_t change) {
  const string head = "TZif2" + string(15, '\0');
  const string no_counts(24, '\0');
  const string counts = string(12, '\0') + Big(1, 4) + Big(2, 4) + Big(4, 4);
  const string types = Big(10800, 4) + Big(0, 2) + Big(14400, 4) + Big(0, 2);
  const string change_to_second = Big(change, 8) + Big(1, 1);
  RemoveFile(ZONE);
  WriteFile(ZONE, head + no_counts + head + counts + change_to_second + types + "MSK\0\nMSK-4\n"s);
}

TEST(Settings, NamesAndServices) {
  const auto host = [](auto to, int mode = 0) { return libbh_SetApHostName(mode, to, 1, "eth0"); };
  const auto group = [](const char *name) { return libbh_SetGroupName(0, name, 0); };
  libbh_lock();
  ASSERT_EQ(sethostname("abc", 3), 0);
  WriteFile(CALL_LOG, "");
  WriteFile(HOSTS, "::1 ip6\n1.2.3.4 abc\n#xabcx\n" + X250 + "xxabc\n" + X250 + "xxxxabc\n::2 x");
  EXPECT_EQ((Ints{host("seventeen-letters"), host(""), host("abc")}), (Ints{-108, -108, 0}));
  EXPECT_EQ((Ints{host("new", 1), host("sixteen-letters0")}), (Ints{0, 0}));
  EXPECT_EQ(ReadFile(HOSTS),
            "::1 ip6\n" + X250 + "xxabc\n" + X250 + "xxxx::2 x\n192.168.40.2 sixteen-letters0\n");
  EXPECT_EQ((RemoveFile(HOSTS), host("abc")), -10002);
  EXPECT_EQ(Fill(libbh_GetHostName, {0, 1, 2, 3, 5}), "-4!!!!!!0\0!!!!!0\0!!!!!0a\0!!!!0abc\0!!"s);
  WriteFile("/etc/samba/smb.conf", "[x]\n workgroup = OLD\n");
  WriteFile(INFO, "wg=\"OLD\"\ntimezone=\"1\"\n");
  WriteFile(PRODUCT, "PRODUCTID=0x2000");
  EXPECT_EQ((Ints{group("SEVENTEEN-LETTERS"), group(""), group("ABCD")}), (Ints{-112, -112, 0}));
  EXPECT_EQ(Fill(libbh_GetGroupName, {3, 4, 5}), "-112!!!!!!0ABCD!!0ABCD\0!"s);
  EXPECT_EQ(libbh_GetGroupName(nullptr, 0), -112);
  EXPECT_EQ(libbh_GetGroupName(nullptr, 5), -10000 - EINVAL);
  EXPECT_EQ(libbh_GetAtalkWorkgroup(nullptr, 0), -113);
  EXPECT_EQ(libbh_SetTimeZone(330) + access("/tmp/libbh_tmp", F_OK), -1);
  EXPECT_EQ(ReadFile(INFO), "wg=ABCD\ntimezone=-5.5\n");
  WriteFile(PRODUCT, "PRODUCTID=0x2001");
  WriteFile("/run/stand-ins/set_timezone.sh", "exit 3");
  EXPECT_EQ((Ints{group("SIXTEEN-LETTERS."), libbh_SetTimeZone(0)}), (Ints{0, 768}));
  EXPECT_EQ(ReadFile(INFO), "wg=SIXTEEN-LETTERS.\ntimezone=0\n");
  RemoveFile(INFO);
  WriteFile("/etc/korsub_info.sh", "wg=OLD\n");
  EXPECT_EQ((Ints{group("NEW"), libbh_SetTimeZone(-540), access(INFO, F_OK)}), (Ints{0, 768, -1}));
  libbh_unlock();
  EXPECT_EQ(host("x") + group("x") + libbh_SetTimeZoneName("x") + libbh_SetNtpConfig(0, nullptr),
            -80000);
  EXPECT_EQ(ReadFile("/etc/korsub_info.sh"), "wg=NEW\n");
  EXPECT_EQ((WriteFile(INFO, string(200000, '\xFF') + "\0\1\2"s), libbh_FileChksum(INFO)), 0xFDFE);
  EXPECT_EQ((Ints{libbh_Reboot(), libbh_Shutdown(), libbh_LoadConfig()}), (Ints{0, 0, 0}));
  const auto told = [] { return ReadFile(board::SYSLOG).find("Now Rebooting.") != string::npos; };
  EXPECT_TRUE(board::WaitFor(told));
  EXPECT_EQ(ReadFile(CALL_LOG),
            "/etc/init.d/networking restart\n/etc/init.d/smb restart\n/etc/init.d/atalk "
            "restart\n/usr/bin/nkf -e /tmp/libbh_tmp\n/usr/local/bin/set_timezone.sh "
            "330\n/usr/local/bin/set_timezone.sh 0\n/usr/local/bin/set_timezone.sh "
            "-540\n/www/script/korsub_shutdown2.sh 1\n/www/script/korsub_shutdown2.sh "
            "2\n/usr/local/bin/load_config.sh\n");
}

TEST(Settings, WorkgroupIsSetInAProgramThatIgnoresItsChildren) {
  signal(SIGCHLD, SIG_IGN);  // no command has a status then
  libbh_lock();
  WriteFile(INFO, "wg=OLD\n");
  WriteFile(PRODUCT, "PRODUCTID=0x2000");
  EXPECT_EQ(libbh_SetGroupName(0, "NEW", 0), 0);
  signal(SIGCHLD, SIG_DFL);
  EXPECT_EQ(ReadFile(INFO), "wg=NEW\n");
}

TEST(Settings, WorkgroupNeedsAWholeCopy) {
  libbh_lock();
  WriteFile(INFO, "wg=OLD\n");
  WriteFile(PRODUCT, "PRODUCTID=0x2000");
  WriteFile("/usr/local/bin/cp", "#!/bin/sh\nhead -c 3 $1 > $2\n");
  ASSERT_EQ(system("chmod +x /usr/local/bin/cp"), 0);
  EXPECT_EQ(libbh_SetGroupName(0, "NEW", 0), 0);
  RemoveFile("/usr/local/bin/cp");
  EXPECT_EQ(ReadFile(INFO), "wg=OLD\n");
}

// The name that a program on the board reads from a stand-in of /bin/hostname.
static string HostNameFrom(const string &script) {
  char name[64] = "";
  EXPECT_EQ(rename("/bin/hostname", "/bin/hostname.real"), 0);
  WriteFile("/bin/hostname", "#!/bin/sh\n" + script);
  std::filesystem::permissions("/bin/hostname", std::filesystem::perms::owner_all);
  EXPECT_EQ(libbh_GetHostName(name, sizeof(name)), 0);
  EXPECT_EQ(rename("/bin/hostname.real", "/bin/hostname"), 0);
  return name;
}

TEST(Settings, HostNameIsTheFirstLineHoweverItComes) {
  while (waitpid(-1, nullptr, 0) > 0)  // other tests' children
    continue;
  EXPECT_EQ(HostNameFrom("printf abc\n"), "abc");
  EXPECT_EQ(HostNameFrom("printf ab; sleep .1; printf 'c\\nd\\n'\n"), "abc");
  EXPECT_EQ(HostNameFrom("echo abc; yes\n"), "abc");
  EXPECT_EQ(waitpid(-1, nullptr, 0), -1) << "a child is left";
  const itimerval often = {{0, 500}, {0, 500}};
  const itimerval never = {};
  struct sigaction interrupt = {};
  interrupt.sa_handler = [](int) {};
  sigaction(SIGALRM, &interrupt, nullptr);
  setitimer(ITIMER_REAL, &often, nullptr);
  EXPECT_EQ(HostNameFrom("sleep .1; echo abc; sleep .1\n"), "abc");
  setitimer(ITIMER_REAL, &never, nullptr);
  EXPECT_EQ(waitpid(-1, nullptr, 0), -1) << "a child is left by a signal";
}

TEST(Settings, HostNameIsReadByAProgramWithoutStandardDescriptors) {
  ASSERT_EQ(sethostname("abc", 3), 0);
  const pid_t program = fork();
  if (program == 0) {
    close(STDIN_FILENO);
    close(STDOUT_FILENO);
    char name[64] = "";
    libbh_GetHostName(name, sizeof(name));
    _exit(name == "abc"s ? 0 : 1);
  }
  EXPECT_EQ(AwaitEnd(program).si_status, 0);
  waitpid(program, nullptr, 0);
}

// A line of more than 255 characters, whose NTP command ends at the given one.
static string LineWithCommandUpTo(size_t character) {
  const string command = "/usr/sbin/ntpdate_script -b -s";
  return string(character - command.size(), 'x') + command + X250 + "\n";
}

static string WithNtpLine(const string &jobs) {
  return jobs + "#0 */6 " + NTP + "b \n";
}

TEST(Settings, LongCrontabLineIsKeptOrDroppedWhole) {
  NtpConfig config = {0, const_cast<char *>("b"), 6};
  const string in_the_front = LineWithCommandUpTo(255);
  const string behind_it = LineWithCommandUpTo(256);
  libbh_lock();
  WriteFile(CRONTAB, in_the_front);
  EXPECT_EQ(libbh_SetNtpConfig(0, &config), 0);
  EXPECT_EQ(ReadFile(CRONTAB), WithNtpLine("\n"));
  WriteFile(CRONTAB, behind_it);
  EXPECT_EQ(libbh_SetNtpConfig(0, &config), 0);
  EXPECT_EQ(ReadFile(CRONTAB), WithNtpLine(behind_it));
}

TEST(Settings, NtpSchedule) {
  libbh_lock();
  EXPECT_EQ(Ntp("a\n0 9 * * * root /usr/sbin/ntpdate_script -b -s old\nb", 1, "n-1.org", 6),
            "0 a\nb\n0 */6 " + NTP + "n-1.org \n2 on 6 n-1.org");
  EXPECT_EQ(Ntp("", 1, "10.0.0.1", 0), "0 \n#0 */0 " + NTP + "10.0.0.1 \n2 off 0 10.0.0.1");
  EXPECT_EQ(Ntp("a\n", 0, "b", 99), "0 a\n#0 */99 " + NTP + "b \n2 off 99 b");
  EXPECT_EQ(Ntp("", 0, "", 7), "0 \n#0 */7 " + NTP + " \n1 off 7 ");
  EXPECT_EQ(Ntp(nullptr, 1, "c", 24), "0 \n0 */24 " + NTP + "c \n2 on 24 c");
  for (const string &server : {""s, ".a"s, "a..b"s, "a."s, "a_b"s, X250 + "abcdef"})
    EXPECT_EQ(Ntp("a\n", 1, server, 25), "-111 a\n2 off 11 ") << server;
  EXPECT_EQ(Ntp("", 0, "a..b", 6), "-111 2 off 12 ");
  EXPECT_EQ(Ntp("", 1, "a", 25) + Ntp("", 1, "a", -1), "-110 2 off 12 -110 2 off 12 ");
  EXPECT_TRUE(ReadFile(CALL_LOG).ends_with(
      "/usr/sbin/ntpdate_script -b -s n-1.org\n/usr/sbin/ntpdate_script -b -s "
      "10.0.0.1\n/usr/sbin/ntpdate_script -b -s c\n"));
  const NtpConfig config = {0, const_cast<char *>("a"), 1};
  EXPECT_EQ((RemoveFile(CRONTAB), symlink("/dev/full", CRONTAB)), 0);
  EXPECT_EQ(libbh_SetNtpConfig(0, &config), -10028);
}

// The calls that an attempt to set date and time has made, as the call log has them.
static string CallsToSet(time_t before, const DateTime &wanted) {
  const timeval clock = {before, 0};
  settimeofday(&clock, nullptr);
  WriteFile(CALL_LOG, "");
  EXPECT_EQ(libbh_SetDateAndTime(0, &wanted), 0);
  return ReadFile(CALL_LOG);
}

static string SetTo(time_t time) {
  return "settimeofday " + to_string(time) + ".000000\n";
}

constexpr const char *CENTRAL_EUROPE = "CET-1CEST,M3.5.0,M10.5.0/3";
const string SCRIPT = "/usr/local/bin/time_set.sh\n";

TEST(Settings, DateAndTimeComeOutAsAskedWheneverDaylightSavingChanges) {
  const struct {
    const char *what;
    time_t before;
    DateTime wanted;
    time_t after;
    int calls;
    const char *zone = CENTRAL_EUROPE;
  } cases[] = {
      {"no change", 1168000000, {2007, 2, 3, 4, 5, 6}, 1170471906, 2},
      {"to a summer day", 1168000000, {2007, 7, 1, 12, 0, 0}, 1183284000, 2},
      {"to a winter day, near midnight", 1151706600, {2006, 12, 24, 18, 30, 15}, 1166981415, 3},
      {"to the day that begins it, before", 1168000000, {2007, 3, 25, 1, 0, 0}, 1174780800, 3},
      {"to the day that begins it, after", 1174780800, {2007, 3, 25, 18, 0, 0}, 1174838400, 3},
      {"to that day from a summer's", 1151706600, {2007, 3, 25, 18, 0, 0}, 1174838400, 3},
      {"to the day that ends it, before", 1168000000, {2007, 10, 28, 1, 0, 0}, 1193526000, 3},
      {"to the day that ends it, after", 1183284000, {2007, 10, 28, 18, 0, 0}, 1193590800, 2},
      {"by half an hour",
       1301713215,
       {2017, 10, 1, 0, 58, 45},
       1506781725,
       3,
       "LHST-10:30LHDT-11,M10.1.0,M4.1.0"},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.what);
    Zone(test.zone);
    const string calls = CallsToSet(test.before, test.wanted);
    EXPECT_TRUE(calls.ends_with(SetTo(test.after) + SCRIPT)) << calls;
    EXPECT_EQ(std::count(calls.begin(), calls.end(), '\n'), test.calls + 1) << calls;
  }
}

// Stands before the board's: if it is told so, a second passes after each look at the clock.
static bool seconds_pass = false;

time_t time(time_t *) noexcept {
  static time_t passed = 0;
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec + (seconds_pass ? passed++ : 0);
}

TEST(Settings, SecondThatPassesAtMidnightIsNoDay) {
  Zone(CENTRAL_EUROPE);
  seconds_pass = true;
  const time_t before_midnight = 1168037999;  // 2007-01-05 23:59:59 local
  const string calls = CallsToSet(before_midnight, {2007, 2, 3, 4, 5, 6});
  seconds_pass = false;
  EXPECT_EQ(calls, SetTo(1170543599) + SetTo(1170471906) + SCRIPT);
}

TEST(Settings, DateIsNotLostWhereItsDayLeavesTheTimeOut) {
  ZoneOfANewOffset(1301180400);             // at 2011-03-27 2:00, when it becomes 3:00
  const time_t half_past_two = 1306881000;  // on another day
  const string calls = CallsToSet(half_past_two, {2011, 3, 27, 18, 0, 0});
  EXPECT_TRUE(calls.ends_with(SetTo(1301234400) + SCRIPT)) << calls;
}

TEST(Settings, DateAndTimeAreHalvesWhereOneFails) {
  const struct {
    const char *failing;
    DateTime now;
  } cases[] = {
      {"*/settimeofday:1", {2006, 7, 1, 18, 30, 15}},
      {"*/settimeofday:2", {2006, 12, 23, 23, 30, 0}},
  };
  for (const auto &test : cases) {
    Zone(CENTRAL_EUROPE);
    const time_t summer = 1151706600;  // 2006-07-01 00:30:00 local
    CallsToSet(summer, {2006, 7, 1, 0, 30, 0});
    setenv("BOARD_FAIL", test.failing, 1);
    const DateTime wanted = {2006, 12, 24, 18, 30, 15};
    EXPECT_EQ(libbh_SetDateAndTime(0, &wanted), 0);
    unsetenv("BOARD_FAIL");
    DateTime now = {};
    libbh_GetDateAndTime(&now);
    EXPECT_EQ(now.month, test.now.month) << test.failing;
    EXPECT_EQ(now.day, test.now.day) << test.failing;
    EXPECT_EQ(now.hour, test.now.hour) << test.failing;
  }
}

TEST(Settings, ZoneOfTheCallerIsFollowedAtEachCall) {
  const timeval before = {1151706600, 0};  // 22:30 UTC
  DateTime now = {};
  settimeofday(&before, nullptr);
  setenv("TZ", "UTC0", 1);
  libbh_GetDateAndTime(&now);
  EXPECT_EQ(now.hour, 22);
  setenv("TZ", "MSK-3", 1);
  libbh_GetDateAndTime(&now);
  EXPECT_EQ(now.hour, 1);
  unsetenv("TZ");
}

TEST(Settings, ClockAndZone) {
  const auto date = libbh_SetDate, time = libbh_SetTime;
  const timeval summer = {1151706600, 0};  // 2006-07-01 00:30:00 local
  DateTime now = {}, winter = {2006, 12, 24, 18, 30, 15};
  settimeofday(&summer, nullptr);
  Zone("CET-1CEST,M3.5.0,M10.5.0/3");
  EXPECT_EQ(date(0, 2000, 12, 31) + date(0, 2100, 2, 29) + date(0, 2001, 4, 31), -303);
  EXPECT_EQ(date(0, 2001, 2, 29) + date(0, 2001, 0, 1) + date(0, 2001, 13, 1), -303);
  EXPECT_EQ(time(0, 24, 0, 0) + time(0, -1, 0, 0) + time(0, 0, 60, 0) + time(0, 0, 0, -1), -404);
  EXPECT_EQ(date(1, 2001, 1, 31) + date(1, 2004, 2, 29) + libbh_SetDateAndTime(1, &winter), 0);
  EXPECT_EQ((libbh_GetDateAndTime(&now), now.hour), 0);
  EXPECT_EQ(libbh_SetDateAndTime(0, &winter), 0);
  EXPECT_TRUE(ReadFile(CALL_LOG).ends_with(" 1166981415.000000\n/usr/local/bin/time_set.sh\n"));
  Zone("<-03>3");  // as another process does
  EXPECT_EQ((libbh_GetDateAndTime(&now), now.hour), 14);
  libbh_lock();
  EXPECT_EQ((Ints{libbh_SetTimeZoneName(""), libbh_SetTimeZoneName("a/b/c")}), (Ints{-1, 0}));
  EXPECT_EQ(std::filesystem::read_symlink(ZONE), "/usr/share/zoneinfo/a/b/c");
  EXPECT_EQ(Fill(libbh_GetTimeZoneName, {5, 6}), "-5!!!!!!0a/b/c\0"s);
  const char *piece = nullptr;
  EXPECT_TRUE(libbh_SplitString(1, "ab//c/d", "/", &piece) == 1 && piece == "c/d"s);
}

static string ToTheMinute(const DateTime &date) {
  string text;
  for (const int16_t part : {date.year, date.month, date.day, date.hour, date.minute})
    text += to_string(part) + " ";
  return text;
}

TEST(Settings, DatesBeyondTheYear2038) {
  const struct {
    const char *name;
    DateTime date;
    const char *clock;  // what is set, in seconds since 1970
  } cases[] = {
      {"the last seconds of 31 bits", {2038, 1, 19, 3, 14, 5}, "settimeofday 2147483645.000000\n"},
      {"the first beyond 31 bits", {2038, 1, 19, 3, 14, 8}, "settimeofday 2147483648.000000\n"},
      {"a leap day", {2040, 2, 29, 12, 30, 5}, "settimeofday 2214131405.000000\n"},
      {"the first beyond 32 bits", {2106, 2, 7, 6, 28, 16}, "settimeofday 4294967296.000000\n"},
  };
  for (const auto &[name, date, clock] : cases) {
    SCOPED_TRACE(name);
    WriteFile(CALL_LOG, "");
    EXPECT_EQ(libbh_SetDateAndTime(0, &date), 0);
    EXPECT_TRUE(ReadFile(CALL_LOG).ends_with(clock + "/usr/local/bin/time_set.sh\n"s));
    DateTime now = {};
    EXPECT_EQ(libbh_GetDateAndTime(&now), 0);
    EXPECT_EQ(ToTheMinute(now), ToTheMinute(date));
  }
}
