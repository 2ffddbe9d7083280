// Product identity: what the kernel and the firmware installer say of this appliance in their
// key="value" files. Nothing is cached; each call reads its file anew.

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lib/libbh.h"
#include "lib/text.h"

namespace {

constexpr const char *PRODUCT_FILE = "/proc/brackenhold";
constexpr const char *RELEASE_FILE = "/etc/brackenhold_release";
constexpr const char *SECOND_PRODUCT_FILE = "/proc/qrconf_info";
constexpr const char *HARDWARE_FILE = "/proc/qr_info";
constexpr const char *TIMER_FILE = "/etc/korvo/timer_status";

constexpr const char *DEFAULT_NAME = "Brackenhold";
constexpr int32_t MIN_NAME_BUFFER = 12;  // the default name and its NUL
constexpr int32_t NAME_DOES_NOT_FIT = -65;
constexpr int32_t NO_BUILD_DATE = -10000;

enum ProductState : int32_t { NO_SYSTEM = 0, NORMAL_SYSTEM = 1, EMERGENCY_SYSTEM = 2 };

// The first that exists decides: a release file outweighs the emergency mark beside it.
constexpr struct {
  const char *path;
  ProductState state;
} MARKERS[] = {
    {RELEASE_FILE, NORMAL_SYSTEM},
    {"/etc/brackenhold_emergence", EMERGENCY_SYSTEM},
    {"/etc/qvnet_product", NORMAL_SYSTEM},
    {"/etc/qvnet_emergence", EMERGENCY_SYSTEM},
};

enum TimerStatus : int32_t { TIMER_UNKNOWN = 0, TIMER_OFF = 1, TIMER_SLEEP = 2, TIMER_BACKUP = 3 };

constexpr off_t MIN_TIMER_FILE = 8;
constexpr off_t TIMER_BYTES = 16;

constexpr struct {
  std::string_view text;
  TimerStatus status;
} TIMER_LINES[] = {
    {"type=sleep", TIMER_SLEEP},
    {"type=backup", TIMER_BACKUP},
    {"type=off", TIMER_OFF},
};

HeapText ReadValue(const char *file, const char *key) {
  return HeapText(libbh_GetConfigValue(file, key));
}

bool IsSet(const HeapText &value) {
  return value && *value != '\0';
}

// Copies `text` with its NUL. Returns 0, or minus the bytes that it needs when it does not fit (or
// there is no buffer); the buffer is untouched then.
int32_t CopyOut(const char *text, char *buffer, int32_t size) {
  const size_t needed = strlen(text) + 1;
  if (buffer == nullptr || size < 0 || needed > static_cast<size_t>(size))
    return -static_cast<int32_t>(needed);
  memcpy(buffer, text, needed);
  return 0;
}

// Decimal, hexadecimal behind 0x, or octal behind 0; the low 32 bits count.
int32_t ParseId(const HeapText &value) {
  return value ? static_cast<int32_t>(strtoll(value.get(), nullptr, 0)) : 0;
}

uint32_t ParseDecimal(const char *text) {
  return static_cast<uint32_t>(strtoll(text, nullptr, 10));
}

}  // namespace

int32_t libbh_GetProductName(char *buffer, int32_t size) {
  if (size < MIN_NAME_BUFFER) return NAME_DOES_NOT_FIT;
  const HeapText name = ReadValue(PRODUCT_FILE, "PRODUCTNAME");
  const int32_t result = CopyOut(IsSet(name) ? name.get() : DEFAULT_NAME, buffer, size);
  return result == 0 ? 0 : NAME_DOES_NOT_FIT;
}

int32_t libbh_GetSeries(char *buffer, int32_t size) {
  const HeapText series = ReadValue(PRODUCT_FILE, "QR_SERISE");
  return CopyOut(IsSet(series) ? series.get() : DEFAULT_NAME, buffer, size);
}

int32_t libbh_ReadVersion(const char *file, uint16_t *out) {
  if (out == nullptr) return libbh_SysError(EINVAL);
  *out = 0;
  const HeapText version = ReadValue(file, "VERSION");
  if (!IsSet(version)) return 0;
  const char *dot = strchr(version.get(), '.');
  const uint32_t minor = dot == nullptr ? 0 : ParseDecimal(dot + 1);
  *out = static_cast<uint16_t>(ParseDecimal(version.get()) * 256 + minor);
  return 0;
}

int32_t libbh_GetVersion(uint16_t *out) {
  return libbh_ReadVersion(PRODUCT_FILE, out);
}

int32_t libbh_GetReleaseVersion(uint16_t *out) {
  return libbh_ReadVersion(RELEASE_FILE, out);
}

int32_t libbh_ReadSubVersion(const char *file, char *buffer, int32_t size) {
  const HeapText value = ReadValue(file, "SUBVERSION");
  const int32_t result = value ? CopyOut(value.get(), buffer, size) : 0;
  if ((!value || result != 0) && buffer != nullptr && size > 0) *buffer = '\0';
  return result;
}

int32_t libbh_GetSubVersion(char *buffer, int32_t size) {
  return libbh_ReadSubVersion(PRODUCT_FILE, buffer, size);
}

int32_t libbh_GetReleaseSubVersion(char *buffer, int32_t size) {
  return libbh_ReadSubVersion(RELEASE_FILE, buffer, size);
}

int32_t libbh_ReadBuildDate(const char *file, char *buffer, int32_t size) {
  const HeapText value = ReadValue(file, "BUILDDATE");
  return value ? CopyOut(value.get(), buffer, size) : NO_BUILD_DATE;
}

int32_t libbh_GetBuildDate(char *buffer, int32_t size) {
  return libbh_ReadBuildDate(PRODUCT_FILE, buffer, size);
}

int32_t libbh_GetReleaseBuildDate(char *buffer, int32_t size) {
  return libbh_ReadBuildDate(RELEASE_FILE, buffer, size);
}

int32_t libbh_GetHwId(void) {
  return ParseId(ReadValue(HARDWARE_FILE, "hwid")) & 0xFFFF;
}

int32_t libbh_GetProductId(void) {
  const HeapText id = ReadValue(PRODUCT_FILE, "PRODUCTID");
  return IsSet(id) ? ParseId(id) : ParseId(ReadValue(SECOND_PRODUCT_FILE, "PRODUCTID"));
}

int32_t libbh_GetProductState(void) {
  for (const auto &marker : MARKERS)
    if (access(marker.path, F_OK) == 0) return marker.state;
  return NO_SYSTEM;
}

int32_t libbh_GetTimerStatus(void) {
  const FilePtr file(fopen(TIMER_FILE, "re"));
  struct stat status = {};
  if (!file || fstat(fileno(file.get()), &status) != 0) return TIMER_UNKNOWN;
  if (status.st_size < MIN_TIMER_FILE) return TIMER_BACKUP;
  // One byte less than the file holds is read, so a status needs its line end to be recognised.
  char line[TIMER_BYTES] = {};
  const int size = static_cast<int>(std::min(status.st_size, TIMER_BYTES));
  if (fgets(line, size, file.get()) == nullptr) return TIMER_UNKNOWN;
  for (const auto &known : TIMER_LINES)
    if (std::string_view(line).starts_with(known.text)) return known.status;
  return TIMER_UNKNOWN;
}
