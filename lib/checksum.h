// The Internet checksum (RFC 1071), of packets and of files.

#ifndef BH_LIB_CHECKSUM_H_
#define BH_LIB_CHECKSUM_H_

#include <cstddef>
#include <cstdint>

// The sum of 16-bit words that `length` bytes add to `sum`, folded to 16 bits; a last odd byte is
// the high-order byte of its word.
uint32_t AddToSum(uint32_t sum, const uint8_t *data, size_t length);

// The checksum of `length` bytes, as the number whose most significant byte goes first into the
// packet.
uint16_t IpChecksum(const uint8_t *data, size_t length);

#endif  // BH_LIB_CHECKSUM_H_
