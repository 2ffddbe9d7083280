// Replies: allocation, header, and transmission as a broadcast frame.
//
//   Reply reply = AllocateReply(sizeof(body));
//   if (!reply.bytes) { ... trace ...; return -1; }
//   PutBody(reply, body);
//   SendReply(request, std::move(reply), ACP_PART_REPLY, ACP_STATE_OK);

#ifndef BH_ACP_REPLY_H_
#define BH_ACP_REPLY_H_

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "acp/packet.h"
#include "acp/request.h"
#include "lib/text.h"

struct Reply {
  std::unique_ptr<uint8_t[], HeapRelease> bytes;  // null when there was no memory
  size_t length = 0;                              // header and body, bytes
  std::span<uint8_t> Bytes() const {
    return {bytes.get(), length};
  }
};

// A zeroed reply of a header and `body_size` bytes.
Reply AllocateReply(size_t body_size);

// Copies a body record, its numbers in host order, behind the header.
template <typename Body>
void PutBody(Reply &reply, const Body &body) {
  if (ACP_HEADER_SIZE + sizeof(body) > reply.length) return;
  memcpy(reply.bytes.get() + ACP_HEADER_SIZE, &body, sizeof(body));
}

// Writes the 32 header bytes in host order; `requester_mac` has 6 bytes. Always returns 0.
int32_t MakeReplyHeader(uint8_t *reply, uint16_t command, uint16_t option_size,
                        const uint8_t *requester_mac, uint32_t result);

// Header, conversion, frame and release in one: the option size is what the reply holds behind the
// header. Returns what SendPacket does.
int32_t SendReply(const AcpRequest &request, Reply reply, uint16_t command, uint32_t result);

// The same for a reply that has its header already; all of it in host order.
int32_t SendPreparedReply(const AcpRequest &request, std::span<uint8_t> reply);

// The same for a reply that is its header alone, which takes no memory.
int32_t SendState(const AcpRequest &request, uint16_t command, uint32_t state);

// Writes one Ethernet/IPv4/UDP frame to the served interface. `sock` is not used. Port and
// address in network byte order; `dst_ip` 0xFFFFFFFF is the broadcast. `payload`: `length` bytes in
// wire order, at most 7478; `src_mac`: 6 bytes. Returns -1 when the length does not fit or the
// packet socket cannot be had, else 0, even when the frame could not be sent (which is logged).
int32_t SendPacket(int32_t sock, in_port_t dst_port, const uint8_t *payload, size_t length,
                   in_addr_t dst_ip, const uint8_t *src_mac);

#endif  // BH_ACP_REPLY_H_
