// The NTP line of the crontab, and the time zone's link.

#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr const char *CRONTAB = "/etc/crontab";
constexpr const char *NTP_MARK = "/etc/tmp/ntp.manual";  // a second link to the crontab
constexpr const char *NTP_COMMAND = "/usr/sbin/ntpdate_script -b -s";
constexpr size_t MAX_CRONTAB_LINE = 510;
constexpr size_t MAX_SERVER = 255;
constexpr uint32_t MAX_INTERVAL = 24;       // hours
constexpr int32_t INTERVAL_UNSET = 11;      // hours, where the crontab has no NTP line
constexpr uint32_t DEFAULT_NTP_HOURS = 11;  // index of the default setting

constexpr const char *ZONE_LINK = "/etc/localtime";
constexpr const char *ZONE_DIRECTORY = "/usr/share/zoneinfo/";
constexpr const char *ZONE_MARK = "/zoneinfo/";
constexpr size_t MAX_LINK = 4095;  // of a path; the link is not removed for one that cannot be
constexpr size_t LINK_CAPACITY = 4096;

// 0 or the code of the first thing wrong.
int32_t CheckNtpConfig(const NtpConfig &config) {
  if (config.server == nullptr) return BAD_NTP_SERVER;
  if (config.enabled == 1 && (config.server[0] == '\0' || strlen(config.server) > MAX_SERVER))
    return BAD_NTP_SERVER;
  if (libbh_CheckHostName(config.server) != 0) return BAD_NTP_SERVER;
  if (config.enabled == 1 && static_cast<uint32_t>(config.interval_hours) > MAX_INTERVAL)
    return BAD_NTP_INTERVAL;
  return 0;
}

// All of the crontab but its NTP lines. Returns 0 or an errno; a missing file has no lines.
int ReadOtherJobs(std::string &kept) {
  kept.clear();
  if (libbh_IsEmptyFile(CRONTAB) != 0) return 0;
  std::string content;
  const int error = ReadTextFile(CRONTAB, content);
  if (error != 0) return error;
  std::string_view rest = content;
  while (!rest.empty()) {
    const std::string_view line = NextChunk(rest, rest.npos);
    if (!Contains(FrontOf(line), NTP_COMMAND)) kept.append(line);
  }
  return 0;
}

std::string NtpLine(const NtpConfig &config) {
  const long hours = config.interval_hours;
  if (config.enabled == 1 && hours != 0)
    return FormatText("0 */%ld * * * root /usr/sbin/ntpdate_script -b -s %s \n", hours,
                      config.server);
  return FormatText("#0 */%ld * * * root /usr/sbin/ntpdate_script -b -s %s \n", hours,
                    config.server);
}

void MarkNtp(const NtpConfig &config) {
  if (config.enabled == 1) {
    const int linked = link(CRONTAB, NTP_MARK);
    (void)linked;  // one that exists stays, and it only informs others
  } else if (config.server[0] == '\0') {
    unlink(NTP_MARK);
  }
}

std::string FindNtpLine(std::string_view crontab) {
  while (!crontab.empty()) {
    const std::string_view line = NextChunk(crontab, MAX_CRONTAB_LINE);
    if (Contains(line, NTP_COMMAND)) return std::string(line);
  }
  return "";
}

int32_t ReadNtpLine(const std::string &line, NtpConfig &config) {
  char hours[NUMBER_CAPACITY] = "";
  char server[MAX_SERVER + 1] = "";
  const bool active = line[0] != '#';
  sscanf(line.c_str() + (active ? 0 : 1),
         "0 */%31[0-9+-] * * * root /usr/sbin/ntpdate_script -b -s %255s", hours, server);
  config.enabled = active ? 1 : 0;
  config.interval_hours = ToNumber(hours);
  config.server = HeapCopy(server);
  return config.server == nullptr ? NO_MEMORY : 0;
}

}  // namespace

int32_t libbh_SetNtpConfig(int32_t mode, const NtpConfig *config) {
  if (libbh_checklock() != 0) return NOT_LOCKED;
  const int32_t refused = config == nullptr ? BAD_NTP_SERVER : CheckNtpConfig(*config);
  if (refused != 0 || mode != 0) return refused;
  std::string crontab;
  int error = ReadOtherJobs(crontab);
  if (error != 0) return libbh_SysError(error);
  if (crontab.empty() || crontab.back() != '\n') crontab.push_back('\n');
  error = WriteTextFile(CRONTAB, crontab + NtpLine(*config));
  if (error != 0) return libbh_SysError(error);
  MarkNtp(*config);
  if (config->enabled == 1)
    RunShell(FormatText("/usr/sbin/ntpdate_script -b -s %s", config->server));
  return 0;
}

int32_t libbh_GetNtpConfig(NtpConfig *config) {
  if (config == nullptr) return libbh_SysError(EINVAL);
  *config = {};
  if (libbh_IsEmptyFile(CRONTAB) == 1) {
    config->interval_hours = ToNumber(libbh_GetDefaultValue(DEFAULT_NTP_HOURS));
    return 0;
  }
  std::string content;
  const int error = ReadTextFile(CRONTAB, content);
  if (error != 0) return libbh_SysError(error);
  const std::string line = FindNtpLine(content);
  if (!line.empty()) return ReadNtpLine(line, *config);
  config->interval_hours = INTERVAL_UNSET;
  return 0;
}

int32_t libbh_FreeNtpConfig(NtpConfig *config) {
  if (config == nullptr) return 0;
  free(config->server);
  config->server = nullptr;
  return 0;
}

int32_t libbh_GetTimeZoneName(char *buffer, int32_t size) {
  char target[LINK_CAPACITY + 1] = "";
  const ssize_t length = readlink(ZONE_LINK, target, LINK_CAPACITY);
  if (length < 0) return -1;
  const char *zone = nullptr;
  const int32_t zone_length = libbh_SplitString(1, target, ZONE_MARK, &zone);
  if (buffer == nullptr || size < zone_length + 1) return -zone_length;
  if (zone == nullptr) return -1;
  memcpy(buffer, zone, static_cast<size_t>(zone_length));
  buffer[zone_length] = '\0';
  return 0;
}

int32_t libbh_SetTimeZoneName(const char *name) {
  if (name == nullptr || name[0] == '\0') return -1;
  if (libbh_checklock() != 0) return NOT_LOCKED;
  const std::string path = std::string(ZONE_DIRECTORY) + name;
  if (path.size() > MAX_LINK) return -1;
  unlink(ZONE_LINK);
  return symlink(path.c_str(), ZONE_LINK) == 0 ? 0 : -1;
}
