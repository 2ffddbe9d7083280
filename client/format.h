// Texts of addresses and codes, independent of the locale. Safe to use from several threads.

#ifndef BH_CLIENT_FORMAT_H_
#define BH_CLIENT_FORMAT_H_

#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

#include "client/datagram.h"

namespace acp {

// Six groups of two hexadecimal digits, all separated by ':' or all by '-'.
std::optional<Mac> ParseMac(std::string_view text);
std::string MacText(const Mac &mac);

// The most significant byte is the first octet.
std::string AddressText(uint32_t address);

// Four decimal numbers up to 255 without leading zeros, as AddressText prints them.
std::optional<uint32_t> ParseAddress(const std::string &text);

// The state code's name, or "0x" and eight digits.
std::string StateName(uint32_t state);

// What the errno value means.
std::string ErrorText(int error);

std::string HexText(uint32_t number);
std::string WordText(uint32_t word);  // "0x" and eight digits

// The text of a field, up to its NUL or its end.
template <size_t SIZE>
std::string FieldText(const char (&field)[SIZE]) {
  return {field, strnlen(field, SIZE)};
}

}  // namespace acp

#endif  // BH_CLIENT_FORMAT_H_
