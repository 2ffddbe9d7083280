// Formats and parses values, independent of the locale.

#ifndef BH_TOOLS_BHCTL_TEXT_H_
#define BH_TOOLS_BHCTL_TEXT_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "client/format.h"
#include "client/identity.h"

namespace bhctl {

using namespace acp;

// "YYYY-MM-DD HH:MM:SS", or with T instead of the blank. The date must exist; no leap seconds.
std::optional<DateTime> ParseDateTime(std::string_view text);

// Replaces control characters and bytes that are not UTF-8 with '?'. A terminal could take them for
// commands.
std::string SafeText(std::string_view text);

// Like SafeText, but keeps line feeds and tabs.
std::string SafeLines(std::string_view text);

struct CodePoint {
  uint32_t code = 0;
  size_t length = 0;  // in bytes; 0: the text does not start with UTF-8
};

// `text` is not empty.
CodePoint FirstCodePoint(std::string_view text);

// Decimal units, one decimal place, rounded down: "999 B", "1.5 kB", "500.1 GB".
std::string SizeText(uint64_t bytes);
// The same, always in GB.
std::string GigabytesText(uint64_t bytes);

// The used part of the blocks open to ordinary users, rounded up: "25%"; "-" if there are none.
std::string UsedText(uint32_t blocks, uint32_t blocks_free, uint32_t blocks_avail);

// The text must be a decimal number, or a hexadecimal number that starts with "0x".
std::optional<uint32_t> ParseU32(std::string_view text);

std::string MillisecondsText(std::chrono::microseconds time);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_TEXT_H_
