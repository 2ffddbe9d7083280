// One received datagram.

#ifndef BH_ACP_REQUEST_H_
#define BH_ACP_REQUEST_H_

#include <cstddef>
#include <cstdint>

#include "acp/packet.h"

constexpr size_t RECEIVE_BUFFER = 7500;  // bytes

// Reused for every datagram: do not keep a reference to it. Handlers read `packet` only through
// RequestHeader, RequesterMac and the readers of acp/body.h; beyond `recvlen` it holds what earlier
// datagrams left.
struct AcpRequest {
  int32_t sock;
  int32_t recvlen;     // bytes received
  uint32_t peer_addr;  // sender, network byte order
  uint8_t packet[RECEIVE_BUFFER];
  uint16_t peer_port;  // sender, network byte order
  uint8_t if_mac[MAC_SIZE];
};
static_assert(offsetof(AcpRequest, packet) == 12);
static_assert(offsetof(AcpRequest, peer_port) == 7512);
static_assert(offsetof(AcpRequest, if_mac) == 7514);

// A copy of the packet's header; its numbers are in host order once the dispatcher converted it.
ACPHeader RequestHeader(const AcpRequest &request);

// The requester's MAC, 6 bytes within the packet: a reply is addressed to it.
const uint8_t *RequesterMac(const AcpRequest &request);
#endif  // BH_ACP_REQUEST_H_
