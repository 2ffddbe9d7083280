// The block cipher under which passwords travel, shared by the appliance and its client.
//
// Blocks have 8 bytes; the key is the 32-bit number that the discover reply handed out. A text is
// filled up with zero bytes to whole blocks before it is encoded. An encoded byte may turn out
// zero, and the appliance decodes only the blocks that begin before the first such byte, the first
// block always: a longer text is then lost under that key.

#ifndef BH_ACCESS_CIPHER_H_
#define BH_ACCESS_CIPHER_H_

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

constexpr size_t CIPHER_BLOCK = 8;      // bytes
constexpr size_t PASSWORD_BUFFER = 33;  // bytes: four blocks and a NUL

// One block each; `dst` and `src` must not overlap.
void DecryptBlock(uint8_t *dst, const uint8_t *src, uint32_t key);
void EncryptBlock(uint8_t *dst, const uint8_t *src, uint32_t key);

// Decodes the text `src`, which ends with its first zero byte. Whole blocks are read and written,
// at least one: both must have capacity for them, and `dst` must be zeroed, since no terminator is
// written. For requests, take DecodePassword.
void DecryptPassword(uint8_t *dst, const uint8_t *src, uint32_t key);

// The decoded text, up to its first zero byte, of the encoded one at the start of `field`. The
// field may end anywhere, as a request does: the rest of a block that it cuts reads as zero.
// Nothing when the whole blocks, or the text and its NUL, do not fit a buffer of `capacity` bytes.
std::optional<std::string> DecodePassword(std::span<const uint8_t> field, uint32_t key,
                                          size_t capacity = PASSWORD_BUFFER);

#endif  // BH_ACCESS_CIPHER_H_
