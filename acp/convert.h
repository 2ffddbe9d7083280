// Conversion of packets between wire order and host order.

#ifndef BH_ACP_CONVERT_H_
#define BH_ACP_CONVERT_H_

#include <cstdint>
#include <span>

enum class Conversion { TO_HOST, TO_WIRE };

// Converts the header's numbers and the body numbers that the packet's command defines, in place.
// `packet` is the whole packet as far as it exists; a number that does not lie within it whole
// stays as it is, and so does a body that `header_size` puts anywhere but behind the header.
void SwapAcpHeader(std::span<uint8_t> packet, Conversion conversion);

#endif  // BH_ACP_CONVERT_H_
