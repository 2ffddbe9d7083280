// Formats and parses with integer arithmetic only.

#include "tools/bhctl/text.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cstdio>

namespace bhctl {
namespace {

struct SizeUnit {
  uint64_t bytes;
  const char *name;
};

constexpr SizeUnit GIGABYTE = {1'000'000'000, "GB"};
constexpr SizeUnit UNITS[] = {
    {1'000'000'000'000, "TB"}, GIGABYTE, {1'000'000, "MB"}, {1'000, "kB"}};

std::string InUnit(uint64_t bytes, const SizeUnit &unit) {
  const uint64_t tenths = bytes % unit.bytes * 10 / unit.bytes;
  return std::to_string(bytes / unit.bytes) + "." + std::to_string(tenths) + " " + unit.name;
}

// Zero-width characters, and those that change the text direction.
bool Reorders(uint32_t code) {
  return (code >= 0x200B && code <= 0x200F) || (code >= 0x202A && code <= 0x202E) ||
         (code >= 0x2066 && code <= 0x2069);
}

// Whether a terminal may get it: control characters (U+0080 to U+009F, too) are commands.
bool IsSafe(const CodePoint &point) {
  return point.code >= 0x20 && !(point.code >= 0x7F && point.code <= 0x9F) && !Reorders(point.code);
}

// Returns nullopt if a character is not a digit.
std::optional<uint16_t> ParseDigits(std::string_view text, size_t at, size_t count) {
  unsigned int number = 0;
  for (const char digit : text.substr(at, count)) {
    if (digit < '0' || digit > '9') return std::nullopt;
    number = number * 10 + static_cast<unsigned int>(digit - '0');
  }
  return static_cast<uint16_t>(number);
}

unsigned int DaysOf(const DateTime &time) {
  constexpr unsigned int DAYS[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = time.year % 4 == 0 && (time.year % 100 != 0 || time.year % 400 == 0);
  return time.month == 2 && leap ? 29 : DAYS[time.month - 1];
}

bool IsInCalendar(const DateTime &time) {
  return time.month >= 1 && time.month <= 12 && time.day >= 1 && time.day <= DaysOf(time) &&
         time.hour < 24 && time.minute < 60 && time.second < 60;
}

}  // namespace

std::optional<DateTime> ParseDateTime(std::string_view text) {
  constexpr std::string_view PATTERN = "YYYY-MM-DD HH:MM:SS";
  if (text.size() != PATTERN.size()) return std::nullopt;
  for (size_t i = 0; i < PATTERN.size(); ++i) {
    const bool digit = PATTERN[i] >= 'A' && PATTERN[i] <= 'Z';
    if (!digit && text[i] != PATTERN[i] && !(PATTERN[i] == ' ' && text[i] == 'T'))
      return std::nullopt;
  }
  const std::optional<uint16_t> numbers[] = {ParseDigits(text, 0, 4),  ParseDigits(text, 5, 2),
                                             ParseDigits(text, 8, 2),  ParseDigits(text, 11, 2),
                                             ParseDigits(text, 14, 2), ParseDigits(text, 17, 2)};
  if (!std::all_of(std::begin(numbers), std::end(numbers), [](auto &each) { return each; }))
    return std::nullopt;
  const DateTime time = {*numbers[0], *numbers[1], *numbers[2],
                         *numbers[3], *numbers[4], *numbers[5]};
  return IsInCalendar(time) ? std::optional(time) : std::nullopt;
}

CodePoint FirstCodePoint(std::string_view text) {
  const auto lead = static_cast<uint8_t>(text[0]);
  if (lead < 0x80) return {lead, 1};
  if (lead < 0xC2 || lead > 0xF4) return {};
  const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (text.size() < length) return {};
  uint32_t code = lead & (0x7FU >> length);
  for (size_t i = 1; i < length; ++i) {
    const auto byte = static_cast<uint8_t>(text[i]);
    if ((byte & 0xC0) != 0x80) return {};
    code = code << 6 | (byte & 0x3FU);
  }
  constexpr uint32_t LOWEST[] = {0, 0, 0x80, 0x800, 0x10000};
  if (code < LOWEST[length] || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return {};
  return {code, length};
}

std::string SafeText(std::string_view text) {
  std::string safe;
  while (!text.empty()) {
    const CodePoint point = FirstCodePoint(text);
    const bool replaced = point.length == 0 || !IsSafe(point);
    const size_t length = std::max<size_t>(replaced ? 1 : point.length, 1);
    safe += replaced ? "?" : text.substr(0, length);
    text.remove_prefix(length);
  }
  return safe;
}

std::string SafeLines(std::string_view text) {
  std::string safe;
  while (!text.empty()) {
    const size_t length = std::min(text.find_first_of("\n\t"), text.size());
    safe += SafeText(text.substr(0, length));
    safe += text.substr(length, 1);
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return safe;
}

std::string SizeText(uint64_t bytes) {
  for (const SizeUnit &unit : UNITS)
    if (bytes >= unit.bytes) return InUnit(bytes, unit);
  return std::to_string(bytes) + " B";
}

std::string GigabytesText(uint64_t bytes) {
  return InUnit(bytes, GIGABYTE);
}

std::string UsedText(uint32_t blocks, uint32_t blocks_free, uint32_t blocks_avail) {
  const uint64_t used = blocks > blocks_free ? blocks - blocks_free : 0;
  const uint64_t usable = used + blocks_avail;
  if (usable == 0) return "-";
  return std::to_string((used * 100 + usable - 1) / usable) + "%";
}

std::optional<uint32_t> ParseU32(std::string_view text) {
  const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
  if (hexadecimal) text.remove_prefix(2);
  uint32_t number = 0;
  const char *end = text.data() + text.size();
  const auto [after, error] = std::from_chars(text.data(), end, number, hexadecimal ? 16 : 10);
  if (error != std::errc() || after != end) return std::nullopt;
  return number;
}

std::string MillisecondsText(std::chrono::microseconds time) {
  const auto microseconds = static_cast<int64_t>(time.count());
  char text[32];
  snprintf(text, sizeof(text), "%" PRId64 ".%03" PRId64 " ms", microseconds / 1000,
           microseconds % 1000);
  return text;
}

}  // namespace bhctl
