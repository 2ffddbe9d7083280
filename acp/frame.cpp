// Ethernet, IPv4 and UDP headers written field by field, most significant byte first.

#include "acp/frame.h"

#include <cstring>

#include "acp/packet.h"
#include "lib/checksum.h"

namespace {

constexpr uint8_t PROTOCOL_UDP = 17;
constexpr uint8_t TIME_TO_LIVE = 64;
constexpr uint16_t ETHERTYPE_IPV4 = 0x0800;

void PutU16(uint8_t *field, uint16_t number) {
  field[0] = static_cast<uint8_t>(number >> 8);
  field[1] = static_cast<uint8_t>(number);
}

// Addresses and ports that the caller has in network byte order go in as they are.
template <typename Number>
void PutNetwork(uint8_t *field, Number number) {
  memcpy(field, &number, sizeof(number));
}

// The pseudo-header lies where the IPv4 header will be, right in front of the UDP header.
void PutPseudoHeader(uint8_t *header, in_addr_t src_ip, in_addr_t dst_ip, uint16_t udp_length) {
  memset(header, 0, IP_HEADER_SIZE);
  header[9] = PROTOCOL_UDP;
  PutU16(header + 10, udp_length);
  PutNetwork(header + 12, src_ip);
  PutNetwork(header + 16, dst_ip);
}

void PutIpHeader(uint8_t *header, in_addr_t src_ip, in_addr_t dst_ip, uint16_t total_length,
                 uint16_t ip_id) {
  memset(header, 0, IP_HEADER_SIZE);
  header[0] = 0x45;  // version 4, five 32-bit words
  PutU16(header + 2, total_length);
  PutU16(header + 4, ip_id);
  header[8] = TIME_TO_LIVE;
  header[9] = PROTOCOL_UDP;
  PutNetwork(header + 12, src_ip);
  PutNetwork(header + 16, dst_ip);
  PutU16(header + 10, IpChecksum(header, IP_HEADER_SIZE));
}

}  // namespace

uint16_t MakeIpUdpHeader(uint8_t *ip_header, in_addr_t src_ip, in_addr_t dst_ip, in_port_t src_port,
                         in_port_t dst_port, uint16_t payload_length, uint16_t ip_id) {
  const uint16_t udp_length = static_cast<uint16_t>(payload_length + UDP_HEADER_SIZE);
  const uint16_t total_length = static_cast<uint16_t>(udp_length + IP_HEADER_SIZE);
  uint8_t *udp = ip_header + IP_HEADER_SIZE;

  PutPseudoHeader(ip_header, src_ip, dst_ip, udp_length);
  PutNetwork(udp, src_port);
  PutNetwork(udp + 2, dst_port);
  PutU16(udp + 4, udp_length);
  PutU16(udp + 6, 0);
  const uint16_t checksum = IpChecksum(ip_header, total_length);
  PutU16(udp + 6, checksum != 0 ? checksum : 0xFFFF);  // 0 would mean "no checksum"

  PutIpHeader(ip_header, src_ip, dst_ip, total_length, ip_id);
  return total_length;
}

void MakeEthernetHeader(uint8_t *frame, const uint8_t *dst_mac, const uint8_t *src_mac) {
  memcpy(frame, dst_mac, MAC_SIZE);
  memcpy(frame + 6, src_mac, MAC_SIZE);
  PutU16(frame + 12, ETHERTYPE_IPV4);
}
