#ifndef BH_TESTS_BYTES_H_
#define BH_TESTS_BYTES_H_

#include <string>
#include <string_view>

// The bytes of hexadecimal digits. Ignores spaces.
inline std::string Hex(std::string_view text) {
  std::string bytes;
  std::string digits;
  for (const char each : text) {
    if (each != ' ') digits += each;
    if (digits.size() < 2) continue;
    bytes += static_cast<char>(std::stoi(digits, nullptr, 16));
    digits.clear();
  }
  return bytes;
}

inline std::string Zeros(size_t count) {
  return std::string(count, '\0');
}

inline std::string Letters(size_t count) {
  return std::string(count, 'd');
}

#endif  // BH_TESTS_BYTES_H_
