// Encodes requests, decodes replies, and matches replies to requests. A reply may be malformed:
// nothing is read past its end.

#ifndef BH_CLIENT_DATAGRAM_H_
#define BH_CLIENT_DATAGRAM_H_

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "acp/packet.h"

namespace acp {

using Mac = std::array<uint8_t, MAC_SIZE>;
using Bytes = std::span<const uint8_t>;

constexpr Mac BROADCAST_MAC = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// The longest text of a request, in bytes. The datagram still fits into one Ethernet frame.
constexpr size_t MAX_REQUEST_TEXT = 1400;

struct Request {
  uint16_t command = 0;
  uint16_t reply_command = 0;
  size_t reply_body = 0;       // minimum size of the reply's body
  std::vector<uint8_t> body;   // a record in host order, and what follows it
  bool whole_timeout = false;  // wait for it even when no more answers arrive
  uint32_t result = 0;         // the header's field; a parameter of some requests
  uint16_t second_reply = 0;   // command code of a second reply; 0: none
  bool repeatable = false;     // does no harm, and costs little, when it arrives again
};

struct Reply {
  ACPHeader header = {};
  std::vector<uint8_t> body;  // a record in host order
};

// A body that starts with this record, in host order.
template <typename Record>
std::vector<uint8_t> BodyOf(const Record &record) {
  std::vector<uint8_t> body(sizeof(record));
  memcpy(body.data(), &record, sizeof(record));
  return body;
}

void Append(std::vector<uint8_t> &body, Bytes more);

Request MakeDiscoverRequest();
Request MakePingRequest();
Request MakeRaidRequest();
// Texts have at most MAX_REQUEST_TEXT bytes and no NUL. With an empty directory the appliance
// chooses the drive.
Request MakeDiskRequest(const std::string &directory);
Request MakePartitionRequest(const std::string &path);

// The datagram in wire order.
std::vector<uint8_t> EncodeRequest(const Request &request, const Mac &src_mac, const Mac &dst_mac);

// Returns nullopt if the datagram is too short or its lengths are inconsistent.
std::optional<Reply> DecodeReply(Bytes datagram);

// Whether the reply is addressed to one of `own_macs`, comes from `wanted` if that is set, and
// matches the request's commands and size.
bool AnswersRequest(const Reply &reply, const Request &request, std::span<const Mac> own_macs,
                    const std::optional<Mac> &wanted);

// Decode a body in host order. A body that is too short reads as zero. Paths end with a NUL.
DiscoverInfo ReadDiscoverInfo(Bytes body);
uint32_t DiscoverKey(const DiscoverInfo &info);
DiskInfo ReadDiskInfo(Bytes body);
RaidInfo ReadRaidInfo(Bytes body);
PartitionInfo ReadPartitionInfo(Bytes body);

}  // namespace acp

#endif  // BH_CLIENT_DATAGRAM_H_
