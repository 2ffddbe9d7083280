// The password cipher. Its state is two lanes of four bytes, for the even and for the odd clear
// bytes; each clear byte is mixed into its lane as soon as it is known.

#include "access/cipher.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <vector>

namespace {

using State = std::array<std::array<uint8_t, 4>, 2>;

// Where clear byte 0, 1, ... stands in the encoded block.
constexpr std::array<size_t, CIPHER_BLOCK> ENCODED_AT = {0, 7, 1, 6, 2, 5, 3, 4};

State StateFromKey(uint32_t key) {
  uint8_t bytes[CIPHER_BLOCK] = {static_cast<uint8_t>(key >> 24), static_cast<uint8_t>(key >> 16),
                                 static_cast<uint8_t>(key >> 8), static_cast<uint8_t>(key)};
  for (size_t i = 0; i < 4; ++i)
    bytes[4 + i] = static_cast<uint8_t>(bytes[i] * (bytes[i] ^ bytes[3 - i]));
  State state = {};
  for (size_t i = 0; i < CIPHER_BLOCK; ++i)
    state[i % 2][i / 2] = bytes[i];
  return state;
}

// What clear byte `k` is masked with: its lane as far as the byte's number there.
uint8_t Mask(const State &state, size_t k) {
  uint8_t mask = 0;
  for (size_t i = 0; i <= k / 2; ++i)
    mask ^= state[k % 2][i];
  return mask;
}

void Absorb(State &state, size_t k, uint8_t clear) {
  uint8_t carry = clear;
  for (size_t i = 0; i <= k / 2; ++i)
    carry = state[k % 2][i] ^= carry;
}

}  // namespace

void DecryptBlock(uint8_t *dst, const uint8_t *src, uint32_t key) {
  State state = StateFromKey(key);
  for (size_t k = 0; k < CIPHER_BLOCK; ++k) {
    dst[k] = src[ENCODED_AT[k]] ^ Mask(state, k);
    Absorb(state, k, dst[k]);
  }
}

void EncryptBlock(uint8_t *dst, const uint8_t *src, uint32_t key) {
  State state = StateFromKey(key);
  for (size_t k = 0; k < CIPHER_BLOCK; ++k) {
    dst[ENCODED_AT[k]] = src[k] ^ Mask(state, k);
    Absorb(state, k, src[k]);
  }
}

void DecryptPassword(uint8_t *dst, const uint8_t *src, uint32_t key) {
  const size_t length = strlen(reinterpret_cast<const char *>(src));
  size_t offset = 0;
  do {
    DecryptBlock(dst + offset, src + offset, key);
    offset += CIPHER_BLOCK;
  } while (offset < length);
}

std::optional<std::string> DecodePassword(std::span<const uint8_t> field, uint32_t key,
                                          size_t capacity) {
  const auto zero = std::find(field.begin(), field.end(), uint8_t{0});
  const auto length = std::max<size_t>(1, static_cast<size_t>(zero - field.begin()));
  const size_t whole = (length + CIPHER_BLOCK - 1) / CIPHER_BLOCK * CIPHER_BLOCK;
  if (whole > capacity) return std::nullopt;

  std::vector<uint8_t> encoded(whole + 1);
  std::copy_n(field.begin(), std::min(whole, field.size()), encoded.begin());
  std::vector<uint8_t> clear(whole);
  DecryptPassword(clear.data(), encoded.data(), key);
  std::string text(clear.begin(), std::find(clear.begin(), clear.end(), uint8_t{0}));
  if (text.size() >= capacity) return std::nullopt;
  return text;
}
