// Values as texts and back. The results do not depend on the locale.

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

// Dotted form of an address whose most significant byte is its first octet.
std::string AddressText(uint32_t address);

// Four decimal numbers up to 255, without leading zeros; the first is the most significant byte.
std::optional<uint32_t> ParseAddress(const std::string &text);

struct DateTime {
  uint16_t year = 0;
  uint16_t month = 0;
  uint16_t day = 0;
  uint16_t hour = 0;
  uint16_t minute = 0;
  uint16_t second = 0;
};

// "YYYY-MM-DD HH:MM:SS", also with a T for the blank; a day of the calendar and no leap second.
std::optional<DateTime> ParseDateTime(std::string_view text);

// The state code's name; "0x" and eight digits for a code without one.
std::string StateName(uint32_t state);

// What a field of a record holds: up to its NUL, or all of it.
template <size_t SIZE>
std::string FieldText(const char (&field)[SIZE]) {
  return {field, strnlen(field, SIZE)};
}

// The text with '?' in place of what a terminal could take for a command: control characters, and
// bytes that are not UTF-8.
std::string SafeText(std::string_view text);

// Decimal units and one digit after the point, rounded down: "999 B", "1.5 kB", "500.1 GB".
std::string SizeText(uint64_t bytes);
// The same, always in GB, as drives are sold.
std::string GigabytesText(uint64_t bytes);

// Used part of what an unprivileged user could use, rounded up: "25%"; "-" where nothing is.
std::string UsedText(uint32_t blocks, uint32_t blocks_free, uint32_t blocks_avail);

// The whole text is a decimal number, or a hexadecimal one that begins with "0x".
std::optional<uint32_t> ParseU32(std::string_view text);

std::string HexText(uint32_t number);
std::string WordText(uint32_t word);  // "0x" and eight digits
std::string MillisecondsText(std::chrono::microseconds time);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_TEXT_H_
