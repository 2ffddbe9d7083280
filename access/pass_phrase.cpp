// Each byte of the pass phrase is stored with MASK subtracted.

#include "access/pass_phrase.h"

#include <cstddef>
#include <cstring>
#include <iterator>

namespace {

constexpr uint8_t MASK = 0x9D;

// Volatile, or the compiler would restore the text itself and store that.
const volatile uint8_t STORED[8] = {0xA9, 0xC8, 0xD5, 0xD1, 0xAA, 0xC4, 0xD7, 0xC8};

}  // namespace

int32_t ComparePassPhrase(const char *text) {
  char phrase[std::size(STORED)] = {};
  for (size_t i = 0; i < std::size(STORED); ++i)
    phrase[i] = static_cast<char>(STORED[i] + MASK);
  return strncmp(text, phrase, std::size(phrase)) == 0 ? 0 : -1;
}
