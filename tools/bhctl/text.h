// Formats and parses values, independent of the locale.

#ifndef BH_TOOLS_BHCTL_TEXT_H_
#define BH_TOOLS_BHCTL_TEXT_H_

#include <chrono>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "tools/bhctl/datagram.h"

namespace bhctl {

// Six groups of two hexadecimal digits, all separated by ':' or all by '-'.
std::optional<Mac> ParseMac(std::string_view text);
std::string MacText(const Mac &mac);

// The most significant byte is the first octet.
std::string AddressText(uint32_t address);

// Four decimal numbers up to 255 without leading zeros, as AddressText prints them.
std::optional<uint32_t> ParseAddress(const std::string &text);

struct DateTime {
  uint16_t year = 0;
  uint16_t month = 0;
  uint16_t day = 0;
  uint16_t hour = 0;
  uint16_t minute = 0;
  uint16_t second = 0;
};

// "YYYY-MM-DD HH:MM:SS", or with T instead of the blank. The date must exist; no leap seconds.
std::optional<DateTime> ParseDateTime(std::string_view text);

// The state code's name, or "0x" and eight digits.
std::string StateName(uint32_t state);

// The text of a field, up to its NUL or its end.
template <size_t SIZE>
std::string FieldText(const char (&field)[SIZE]) {
  return {field, strnlen(field, SIZE)};
}

// Replaces control characters and bytes that are not UTF-8 with '?'. A terminal could take them for
// commands.
std::string SafeText(std::string_view text);

// Decimal units, one decimal place, rounded down: "999 B", "1.5 kB", "500.1 GB".
std::string SizeText(uint64_t bytes);
// The same, always in GB.
std::string GigabytesText(uint64_t bytes);

// The used part of the blocks open to ordinary users, rounded up: "25%"; "-" if there are none.
std::string UsedText(uint32_t blocks, uint32_t blocks_free, uint32_t blocks_avail);

// The text must be a decimal number, or a hexadecimal number that starts with "0x".
std::optional<uint32_t> ParseU32(std::string_view text);

std::string HexText(uint32_t number);
std::string WordText(uint32_t word);  // "0x" and eight digits
std::string MillisecondsText(std::chrono::microseconds time);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_TEXT_H_
