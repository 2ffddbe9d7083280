// Encoded passwords: the input is the key, the capacity of the caller's buffer and the request's
// field. A block that is encoded comes out as it was.

#include "access/cipher.h"
#include "fuzz/input.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 5) return 0;
  uint32_t key = 0;
  memcpy(&key, data, sizeof(key));
  const std::vector<uint8_t> field(data + 5, data + size);  // not a byte more is there
  const std::optional<std::string> text = DecodePassword(field, key, data[4]);
  if (text) Require(text->size() < data[4] && text->find('\0') == text->npos);
  uint8_t clear[CIPHER_BLOCK] = {}, encoded[CIPHER_BLOCK], decoded[CIPHER_BLOCK];
  std::copy_n(field.begin(), std::min(field.size(), CIPHER_BLOCK), clear);
  EncryptBlock(encoded, clear, key);
  DecryptBlock(decoded, encoded, key);
  Require(memcmp(clear, decoded, CIPHER_BLOCK) == 0);
  return 0;
}
