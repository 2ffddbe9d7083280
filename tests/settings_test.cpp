// Host name, workgroup, clock, NTP and maintenance: what each call answers, writes and starts.

#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>

#include "board/board.h"
#include "lib/libbh.h"
#include "tests/files.h"

namespace {

using namespace fixture;
using namespace std::string_literals;
using board::CALL_LOG;
using std::string;
using std::to_string;

constexpr const char *HOSTS = "/etc/hosts";
constexpr const char *INFO = "/etc/korvo/info";
constexpr const char *CRONTAB = "/etc/crontab";
constexpr const char *PRODUCT = "/proc/brackenhold";
constexpr const char *ZONE = "/etc/localtime";
constexpr const char *CENTRAL_EUROPE = "CET-1CEST,M3.5.0,M10.5.0/3";
const string NTP = "* * * root /usr/sbin/ntpdate_script -b -s ";
const string X250(250, 'x');

// What a getter does with a buffer of that many bytes; 6 are looked at.
void ExpectText(int32_t (*getter)(char *, int32_t), int32_t size, int32_t result,
                const string &bytes) {
  char buffer[] = "!!!!!!";
  EXPECT_EQ(getter(buffer, size), result) << size;
  EXPECT_EQ(string(buffer, 6), bytes) << size;
}

void Zone(const char *rule) {
  RemoveFile(ZONE);
  WriteFile(ZONE, "TZif2" + string(39, '\0') + "TZif2" + string(27, '\0') +
                      "\0\0\0\1\0\0\0\1\0\0\0\4"s + string(15, '\0') + "GMT\0\n"s + rule + "\n");
}

// Most significant byte first, as zone files have it.
string Big(int64_t number, int bytes) {
  string text;
  for (int shift = 8 * (bytes - 1); shift >= 0; shift -= 8)
    text += static_cast<char>(number >> shift);
  return text;
}

// Its clocks are put on by an hour at that time, from UTC+3 to UTC+4, without any daylight saving.
void ZoneOfANewOffset(time_t change) {
  const string head = "TZif2" + string(15, '\0');
  const string no_counts(24, '\0');
  const string counts = string(12, '\0') + Big(1, 4) + Big(2, 4) + Big(4, 4);
  const string types = Big(10800, 4) + Big(0, 2) + Big(14400, 4) + Big(0, 2);
  const string change_to_second = Big(change, 8) + Big(1, 1);
  RemoveFile(ZONE);
  WriteFile(ZONE, head + no_counts + head + counts + change_to_second + types + "MSK\0\nMSK-4\n"s);
}

int32_t SetHost(const char *name, int32_t check_only = 0) {
  return libbh_SetApHostName(check_only, name, 1, "eth0");
}

int32_t SetGroup(const char *name) {
  return libbh_SetGroupName(0, name, 0);
}

TEST(HostName, TakesTheOldOnesPlaceInTheHostsFile) {
  libbh_lock();
  ASSERT_EQ(sethostname("abc", 3), 0);
  WriteFile(CALL_LOG, "");
  WriteFile(HOSTS, "::1 ip6\n1.2.3.4 abc\n#xabcx\n" + X250 + "xxabc\n" + X250 + "xxxxabc\n::2 x");
  EXPECT_EQ(SetHost("seventeen-letters"), -108);
  EXPECT_EQ(SetHost(""), -108);
  EXPECT_EQ(SetHost("abc"), 0);
  EXPECT_EQ(SetHost("new", 1), 0);
  EXPECT_EQ(SetHost("sixteen-letters0"), 0);
  EXPECT_EQ(ReadFile(HOSTS),
            "::1 ip6\n" + X250 + "xxabc\n" + X250 + "xxxx::2 x\n192.168.40.2 sixteen-letters0\n");
  EXPECT_EQ(ReadFile(CALL_LOG),
            "/etc/init.d/networking restart\n/etc/init.d/smb restart\n"
            "/etc/init.d/atalk restart\n");
  RemoveFile(HOSTS);
  EXPECT_EQ(SetHost("abc"), -10000 - ENOENT);
  ExpectText(libbh_GetHostName, 0, -4, "!!!!!!");
  ExpectText(libbh_GetHostName, 1, 0, "\0!!!!!"s);
  ExpectText(libbh_GetHostName, 3, 0, "a\0!!!!"s);
  ExpectText(libbh_GetHostName, 5, 0, "abc\0!!"s);
  libbh_unlock();
  EXPECT_EQ(SetHost("x"), -20000);
}

TEST(Workgroup, GoesWhereTheProductKeepsIt) {
  libbh_lock();
  WriteFile("/etc/samba/smb.conf", "[x]\n workgroup = OLD\n");
  WriteFile(INFO, "wg=\"OLD\"\n");
  WriteFile(PRODUCT, "PRODUCTID=0x2000");
  EXPECT_EQ(SetGroup("SEVENTEEN-LETTERS"), -112);
  EXPECT_EQ(SetGroup(""), -112);
  EXPECT_EQ(SetGroup("ABCD"), 0);
  EXPECT_EQ(ReadFile(INFO), "wg=ABCD\n");
  EXPECT_NE(access("/tmp/libbh_tmp", F_OK), 0) << "the copy is left";
  ExpectText(libbh_GetGroupName, 3, -112, "!!!!!!");
  ExpectText(libbh_GetGroupName, 4, 0, "ABCD!!");
  ExpectText(libbh_GetGroupName, 5, 0, "ABCD\0!"s);
  EXPECT_EQ(libbh_GetGroupName(nullptr, 0), -112);
  EXPECT_EQ(libbh_GetGroupName(nullptr, 5), -10000 - EINVAL);
  EXPECT_EQ(libbh_GetAtalkWorkgroup(nullptr, 0), -113);
  WriteFile(PRODUCT, "PRODUCTID=0x2001");
  EXPECT_EQ(SetGroup("SIXTEEN-LETTERS."), 0);
  EXPECT_EQ(ReadFile(INFO), "wg=SIXTEEN-LETTERS.\n");
  RemoveFile(INFO);
  WriteFile("/etc/korsub_info.sh", "wg=OLD\n");
  EXPECT_EQ(SetGroup("NEW"), 0);
  EXPECT_NE(access(INFO, F_OK), 0);
  libbh_unlock();
  EXPECT_EQ(SetGroup("x"), -20000);
  EXPECT_EQ(ReadFile("/etc/korsub_info.sh"), "wg=NEW\n");
}

TEST(TimeZone, ScriptAndInformationFileAreTold) {
  WriteFile(CALL_LOG, "");
  WriteFile(INFO, "timezone=\"1\"\n");
  EXPECT_EQ(libbh_SetTimeZone(330), 0);
  EXPECT_EQ(ReadFile(INFO), "timezone=-5.5\n");
  WriteFile("/run/stand-ins/set_timezone.sh", "exit 3");
  EXPECT_EQ(libbh_SetTimeZone(0), 3 << 8);
  EXPECT_EQ(ReadFile(INFO), "timezone=0\n");
  RemoveFile(INFO);
  EXPECT_EQ(libbh_SetTimeZone(-540), 3 << 8);
  EXPECT_NE(access(INFO, F_OK), 0);
  RemoveFile("/run/stand-ins/set_timezone.sh");
  const string script = "/usr/local/bin/set_timezone.sh ";
  EXPECT_EQ(ReadFile(CALL_LOG), script + "330\n" + script + "0\n" + script + "-540\n");
}

TEST(System, PowerScriptsAreRunAndLogged) {
  WriteFile(CALL_LOG, "");
  EXPECT_EQ(libbh_Reboot(), 0);
  EXPECT_EQ(libbh_Shutdown(), 0);
  EXPECT_EQ(ReadFile(CALL_LOG),
            "/www/script/korsub_shutdown2.sh 1\n/www/script/korsub_shutdown2.sh 2\n");
  const auto told = [] { return ReadFile(board::SYSLOG).find("Now Rebooting.") != string::npos; };
  EXPECT_TRUE(board::WaitFor(told));
}

TEST(System, ChecksumOfAFileOfManyPieces) {
  WriteFile("/tmp/file", string(200000, '\xFF') + "\0\1\2"s);
  EXPECT_EQ(libbh_FileChksum("/tmp/file"), 0xFDFE);
}

TEST(Workgroup, IsSetInAProgramThatIgnoresItsChildren) {
  signal(SIGCHLD, SIG_IGN);  // no command has a status then
  libbh_lock();
  WriteFile(INFO, "wg=OLD\n");
  WriteFile(PRODUCT, "PRODUCTID=0x2000");
  EXPECT_EQ(libbh_SetGroupName(0, "NEW", 0), 0);
  signal(SIGCHLD, SIG_DFL);
  EXPECT_EQ(ReadFile(INFO), "wg=NEW\n");
}

TEST(Workgroup, NeedsAWholeCopy) {
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
string HostNameFrom(const string &script) {
  char name[64] = "";
  EXPECT_EQ(rename("/bin/hostname", "/bin/hostname.real"), 0);
  WriteFile("/bin/hostname", "#!/bin/sh\n" + script);
  std::filesystem::permissions("/bin/hostname", std::filesystem::perms::owner_all);
  EXPECT_EQ(libbh_GetHostName(name, sizeof(name)), 0);
  EXPECT_EQ(rename("/bin/hostname.real", "/bin/hostname"), 0);
  return name;
}

TEST(HostName, IsTheFirstLineHoweverItComes) {
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

TEST(HostName, IsReadByAProgramWithoutStandardDescriptors) {
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
string LineWithCommandUpTo(size_t character) {
  const string command = "/usr/sbin/ntpdate_script -b -s";
  return string(character - command.size(), 'x') + command + X250 + "\n";
}

string WithNtpLine(const string &jobs) {
  return jobs + "#0 */6 " + NTP + "b \n";
}

TEST(Ntp, LongCrontabLineIsKeptOrDroppedWhole) {
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

TEST(Ntp, ScheduleIsTheLastLineOfTheCrontab) {
  const struct {
    const char *name;
    string before;
    int32_t enabled;
    string server;
    int32_t hours;
    string after;
    uint32_t links;   // a second one is the mark that others look for
    int32_t is_read;  // whether it is on then
  } cases[] = {
      {"in an old one's place", "a\n0 9 " + NTP + "old\nb", 1, "n-1.org", 6,
       "a\nb\n0 */6 " + NTP + "n-1.org \n", 2, 1},
      {"on, but never", "", 1, "10.0.0.1", 0, "\n#0 */0 " + NTP + "10.0.0.1 \n", 2, 0},
      {"off", "a\n", 0, "b", 99, "a\n#0 */99 " + NTP + "b \n", 2, 0},
      {"off and unmarked", "", 0, "", 7, "\n#0 */7 " + NTP + " \n", 1, 0},
      {"on again", "", 1, "c", 24, "\n0 */24 " + NTP + "c \n", 2, 1},
  };
  libbh_lock();
  WriteFile(CALL_LOG, "");
  for (const auto &each : cases) {
    SCOPED_TRACE(each.name);
    WriteFile(CRONTAB, each.before);
    NtpConfig config = {each.enabled, const_cast<char *>(each.server.c_str()), each.hours};
    EXPECT_EQ(libbh_SetNtpConfig(0, &config), 0);
    EXPECT_EQ(ReadFile(CRONTAB), each.after);
    EXPECT_EQ(std::filesystem::hard_link_count(CRONTAB), each.links);
    ASSERT_EQ(libbh_GetNtpConfig(&config), 0);
    EXPECT_EQ(config.enabled, each.is_read);
    EXPECT_EQ(config.interval_hours, each.hours);
    EXPECT_EQ(config.server, each.server);
    libbh_FreeNtpConfig(&config);
  }
  const string script = "/usr/sbin/ntpdate_script -b -s ";
  EXPECT_EQ(ReadFile(CALL_LOG), script + "n-1.org\n" + script + "10.0.0.1\n" + script + "c\n");
}

TEST(Ntp, BadServersAndIntervalsAreRefused) {
  const struct {
    int32_t enabled;
    string server;
    int32_t hours;
    int32_t result;
  } cases[] = {
      {1, "", 25, -111},    {1, ".a", 25, -111},  {1, "a..b", 25, -111},
      {1, "a.", 25, -111},  {1, "a_b", 25, -111}, {1, X250 + "abcdef", 25, -111},
      {0, "a..b", 6, -111}, {1, "a", 25, -110},   {1, "a", -1, -110},
  };
  libbh_lock();
  WriteFile(CRONTAB, "a\n");
  for (const auto &each : cases) {
    const NtpConfig config = {each.enabled, const_cast<char *>(each.server.c_str()), each.hours};
    EXPECT_EQ(libbh_SetNtpConfig(0, &config), each.result) << each.server << " " << each.hours;
  }
  EXPECT_EQ(ReadFile(CRONTAB), "a\n");
  libbh_unlock();
  EXPECT_EQ(libbh_SetNtpConfig(0, nullptr), -20000);
}

TEST(Ntp, DefaultsStandForAMissingLine) {
  NtpConfig config = {};
  WriteFile(CRONTAB, "a\n");
  EXPECT_EQ(libbh_GetNtpConfig(&config), 0);
  EXPECT_EQ(config.interval_hours, 11);
  WriteFile(CRONTAB, "");
  EXPECT_EQ(libbh_GetNtpConfig(&config), 0);
  EXPECT_EQ(config.interval_hours, 12);
}

TEST(Ntp, FullDiskIsReported) {
  const NtpConfig config = {0, const_cast<char *>("a"), 1};
  libbh_lock();
  RemoveFile(CRONTAB);
  EXPECT_EQ(libbh_SetNtpConfig(0, &config), 0) << "a missing crontab is made";
  RemoveFile(CRONTAB);
  ASSERT_EQ(symlink("/dev/full", CRONTAB), 0);
  EXPECT_EQ(libbh_SetNtpConfig(0, &config), -10000 - ENOSPC);
  RemoveFile(CRONTAB);
}

// The calls that an attempt to set date and time has made, as the call log has them.
string CallsToSet(time_t before, const DateTime &wanted) {
  const timeval clock = {before, 0};
  settimeofday(&clock, nullptr);
  WriteFile(CALL_LOG, "");
  EXPECT_EQ(libbh_SetDateAndTime(0, &wanted), 0);
  return ReadFile(CALL_LOG);
}

string SetTo(time_t time) {
  return "settimeofday " + to_string(time) + ".000000\n";
}

const string SCRIPT = "/usr/local/bin/time_set.sh\n";

TEST(Clock, DateAndTimeComeOutAsAskedWheneverDaylightSavingChanges) {
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

// If it is set, a second passes after each look at the clock.
bool seconds_pass = false;

}  // namespace

// Stands before the board's.
time_t time(time_t *) noexcept {
  static time_t passed = 0;
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec + (seconds_pass ? passed++ : 0);
}

namespace {

TEST(Clock, SecondThatPassesAtMidnightIsNoDay) {
  Zone(CENTRAL_EUROPE);
  seconds_pass = true;
  const time_t before_midnight = 1168037999;  // 2007-01-05 23:59:59 local
  const string calls = CallsToSet(before_midnight, {2007, 2, 3, 4, 5, 6});
  seconds_pass = false;
  EXPECT_EQ(calls, SetTo(1170543599) + SetTo(1170471906) + SCRIPT);
}

TEST(Clock, DateIsNotLostWhereItsDayLeavesTheTimeOut) {
  ZoneOfANewOffset(1301180400);             // at 2011-03-27 2:00, when it becomes 3:00
  const time_t half_past_two = 1306881000;  // on another day
  const string calls = CallsToSet(half_past_two, {2011, 3, 27, 18, 0, 0});
  EXPECT_TRUE(calls.ends_with(SetTo(1301234400) + SCRIPT)) << calls;
}

TEST(Clock, DateAndTimeAreHalvesWhereOneFails) {
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

TEST(Clock, ZoneOfTheCallerIsFollowedAtEachCall) {
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

TEST(Clock, RefusesWhatIsNoDateOrTime) {
  constexpr int32_t REFUSED = -101;
  const struct {
    int16_t year, month, day;
    int32_t result;
  } dates[] = {
      {2000, 12, 31, REFUSED}, {2100, 2, 29, REFUSED}, {2001, 4, 31, REFUSED},
      {2001, 2, 29, REFUSED},  {2001, 0, 1, REFUSED},  {2001, 13, 1, REFUSED},
      {2001, 1, 31, 0},        {2004, 2, 29, 0},
  };
  for (const auto &date : dates)
    EXPECT_EQ(libbh_SetDate(1, date.year, date.month, date.day), date.result)
        << date.year << "-" << date.month << "-" << date.day;
  EXPECT_EQ(libbh_SetTime(1, 24, 0, 0), REFUSED);
  EXPECT_EQ(libbh_SetTime(1, -1, 0, 0), REFUSED);
  EXPECT_EQ(libbh_SetTime(1, 0, 60, 0), REFUSED);
  EXPECT_EQ(libbh_SetTime(1, 0, 0, -1), REFUSED);
  EXPECT_EQ(libbh_SetTime(1, 23, 59, 59), 0);
}

TEST(Clock, FollowsAZoneThatAnotherProcessSets) {
  const timeval summer = {1151706600, 0};  // 2006-06-30 22:30 UTC
  DateTime now = {};
  settimeofday(&summer, nullptr);
  Zone(CENTRAL_EUROPE);
  libbh_GetDateAndTime(&now);
  EXPECT_EQ(now.hour, 0);
  Zone("<-03>3");
  libbh_GetDateAndTime(&now);
  EXPECT_EQ(now.hour, 19);
}

TEST(TimeZone, NameIsThatOfItsLink) {
  libbh_lock();
  EXPECT_EQ(libbh_SetTimeZoneName(""), -1);
  EXPECT_EQ(libbh_SetTimeZoneName("a/b/c"), 0);
  EXPECT_EQ(std::filesystem::read_symlink(ZONE), "/usr/share/zoneinfo/a/b/c");
  ExpectText(libbh_GetTimeZoneName, 5, -5, "!!!!!!");
  ExpectText(libbh_GetTimeZoneName, 6, 0, "a/b/c\0"s);
  libbh_unlock();
  EXPECT_EQ(libbh_SetTimeZoneName("x"), -20000);
}

TEST(Strings, PieceBehindSeveralSeparatorsEndsAtTheNext) {
  const char *piece = nullptr;
  EXPECT_EQ(libbh_SplitString(1, "ab//c/d", "/", &piece), 1);
  EXPECT_STREQ(piece, "c/d");
}

string ToTheMinute(const DateTime &date) {
  string text;
  for (const int16_t part : {date.year, date.month, date.day, date.hour, date.minute})
    text += to_string(part) + " ";
  return text;
}

TEST(Clock, DatesBeyondTheYear2038) {
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
  RemoveFile(ZONE);  // the clock shows UTC then
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

}  // namespace
