// Sums of 16-bit words, most significant byte first.

#include "lib/checksum.h"

uint32_t AddToSum(uint32_t sum, const uint8_t *data, size_t length) {
  uint64_t total = sum;
  size_t i = 0;
  for (; i + 1 < length; i += 2)
    total += static_cast<uint64_t>(data[i] << 8 | data[i + 1]);
  if (i < length) total += static_cast<uint64_t>(data[i] << 8);
  while (total > 0xFFFF)
    total = (total & 0xFFFF) + (total >> 16);
  return static_cast<uint32_t>(total);
}

uint16_t IpChecksum(const uint8_t *data, size_t length) {
  return static_cast<uint16_t>(~AddToSum(0, data, length));
}
