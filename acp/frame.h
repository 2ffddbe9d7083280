// The Internet headers of a reply frame.

#ifndef BH_ACP_FRAME_H_
#define BH_ACP_FRAME_H_

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>

constexpr size_t ETHERNET_HEADER_SIZE = 14;
constexpr size_t IP_HEADER_SIZE = 20;
constexpr size_t UDP_HEADER_SIZE = 8;

// Fills the 28 bytes of IPv4 and UDP header in front of a payload that already lies behind them.
// Addresses and ports in network byte order, `payload_length` in bytes; `ip_id` is the packet's
// identification. Returns the IPv4 total length.
uint16_t MakeIpUdpHeader(uint8_t *ip_header, in_addr_t src_ip, in_addr_t dst_ip, in_port_t src_port,
                         in_port_t dst_port, uint16_t payload_length, uint16_t ip_id);

// Fills the 14 bytes of the Ethernet header of an IPv4 frame; each MAC has 6 bytes.
void MakeEthernetHeader(uint8_t *frame, const uint8_t *dst_mac, const uint8_t *src_mac);

#endif  // BH_ACP_FRAME_H_
