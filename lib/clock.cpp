// The system clock in local time, and the time zone's offset.

#include <sys/time.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr int32_t LAST_REFUSED_YEAR = 2000;
constexpr int32_t FIRST_TM_YEAR = 1900;  // struct tm counts years from here
constexpr int MONTH_DAYS[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};

// The C library reads the zone's file once for a process and again only when TZ changes. The zone
// may have been set since, by ourselves or by another process, and TZ by the caller.
void ReadZoneAgain() {
  if (getenv("TZ") == nullptr) {
    setenv("TZ", "UTC0", 1);
    tzset();
    unsetenv("TZ");
  }
  tzset();
}

tm LocalNow() {
  ReadZoneAgain();
  const time_t now = time(nullptr);
  tm local = {};
  localtime_r(&now, &local);
  return local;
}

bool IsDate(int32_t year, int32_t month, int32_t day) {
  if (year <= LAST_REFUSED_YEAR || month < 1 || month > 12) return false;
  const bool leap_day = month == 2 && libbh_IsLeapYear(year) != 0;
  return day >= 1 && day <= MONTH_DAYS[month - 1] + (leap_day ? 1 : 0);
}

bool IsTime(int32_t hour, int32_t minute, int32_t second) {
  return hour >= 0 && hour <= 23 && minute >= 0 && minute <= 59 && second >= 0 && second <= 59;
}

// -1 when no such time can be had. An hour that a zone's change of offset has left out can be had
// only with the daylight saving left open.
time_t TimeOf(tm &local) {
  const time_t found = mktime(&local);
  if (found != -1) return found;
  local.tm_isdst = -1;
  return mktime(&local);
}

// Sets the clock, and leaves in `local` what it shows then: under the daylight saving of its own
// day that may be another hour.
int32_t SetClock(tm &local) {
  timeval now = {};
  now.tv_sec = TimeOf(local);
  if (now.tv_sec == -1) return libbh_SysError(EOVERFLOW);
  return settimeofday(&now, nullptr) == 0 ? 0 : libbh_SysError(errno);
}

void PutDate(tm &local, int32_t year, int32_t month, int32_t day) {
  local.tm_mon = month - 1;
  local.tm_year = year - FIRST_TM_YEAR;
  local.tm_mday = day;
}

void PutTime(tm &local, int32_t hour, int32_t minute, int32_t second) {
  local.tm_hour = hour;
  local.tm_min = minute;
  local.tm_sec = second;
}

bool Shows(const tm &local, const DateTime &record) {
  return local.tm_year + FIRST_TM_YEAR == record.year && local.tm_mon + 1 == record.month &&
         local.tm_mday == record.day && local.tm_hour == record.hour &&
         local.tm_min == record.minute && local.tm_sec == record.second;
}

// The date goes first, so that the time is set under the daylight saving of its own day. The time
// half goes on from what the date half has set, not from the clock: a second that passes at
// midnight must not become a day.
void ApplyDateAndTime(const DateTime &record) {
  tm local = LocalNow();
  PutDate(local, record.year, record.month, record.day);
  const bool date_set = SetClock(local) == 0;
  if (!date_set) local = LocalNow();
  PutTime(local, record.hour, record.minute, record.second);
  const bool time_set = SetClock(local) == 0;
  if (!date_set || !time_set || Shows(local, record)) return;
  // Each half was taken under the daylight saving of the time before it. Where that is not the
  // day's own, the clock is an hour off, near midnight a day.
  PutDate(local, record.year, record.month, record.day);
  PutTime(local, record.hour, record.minute, record.second);
  local.tm_isdst = -1;  // whatever holds then
  SetClock(local);
}

}  // namespace

int32_t libbh_IsLeapYear(int32_t year) {
  return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0) ? 1 : 0;
}

int32_t libbh_GetDateAndTime(DateTime *record) {
  if (record == nullptr) return libbh_SysError(EINVAL);
  const tm local = LocalNow();
  record->year = static_cast<int16_t>(local.tm_year + FIRST_TM_YEAR);
  record->month = static_cast<int16_t>(local.tm_mon + 1);
  record->day = static_cast<int16_t>(local.tm_mday);
  record->hour = static_cast<int16_t>(local.tm_hour);
  record->minute = static_cast<int16_t>(local.tm_min);
  record->second = static_cast<int16_t>(local.tm_sec);
  return 0;
}

int32_t libbh_SetDateAndTime(int32_t mode, const DateTime *record) {
  if (record == nullptr) return libbh_SysError(EINVAL);
  int32_t result = libbh_SetTime(1, record->hour, record->minute, record->second);
  if (result < 0) return result;
  result = libbh_SetDate(1, record->year, record->month, record->day);
  if (result < 0) return result;
  if (mode != 0) return 0;
  ApplyDateAndTime(*record);
  RunShell("/usr/local/bin/time_set.sh");
  return 0;
}

int32_t libbh_SetDate(int32_t mode, int16_t year, int16_t month, int16_t day) {
  if (!IsDate(year, month, day)) return BAD_DATE_OR_TIME;
  if (mode != 0) return 0;
  tm local = LocalNow();
  PutDate(local, year, month, day);
  return SetClock(local);
}

int32_t libbh_SetTime(int32_t mode, int16_t hour, int16_t minute, int16_t second) {
  if (!IsTime(hour, minute, second)) return BAD_DATE_OR_TIME;
  if (mode != 0) return 0;
  tm local = LocalNow();
  PutTime(local, hour, minute, second);
  return SetClock(local);
}

int32_t libbh_SetTimeZone(int32_t offset_minutes) {
  const long offset = offset_minutes;
  const int32_t status = RunShell(FormatText("sh /usr/local/bin/set_timezone.sh %ld", offset));
  if (FileExists(INFO_FILE)) {
    // Hours east of Greenwich; adding 0 turns the -0 of no offset into 0.
    const double hours = offset_minutes / -60.0 + 0.0;
    libbh_SetConfigValue(INFO_FILE, "timezone", FormatText("%g", hours).c_str());
  }
  return status;
}
