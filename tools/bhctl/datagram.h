// Builds requests from the wire's records, takes replies apart and says which reply belongs to
// which request. Replies may hold anything: nothing is read past what was received.

#ifndef BH_TOOLS_BHCTL_DATAGRAM_H_
#define BH_TOOLS_BHCTL_DATAGRAM_H_

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "acp/packet.h"

namespace bhctl {

using Mac = std::array<uint8_t, MAC_SIZE>;
using Bytes = std::span<const uint8_t>;

constexpr Mac BROADCAST_MAC = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

// The longest text (path or directory) that a request carries, in bytes: the datagram then still
// fits one Ethernet frame.
constexpr size_t MAX_REQUEST_TEXT = 1400;

struct Request {
  uint16_t command = 0;
  uint16_t reply_command = 0;
  size_t reply_body = 0;       // a reply with fewer bytes of body is not one
  std::vector<uint8_t> body;   // its record in host order, and what follows it
  bool whole_timeout = false;  // answers are waited for to the end, even when they have ceased
  uint32_t result = 0;         // a parameter in the header
  uint16_t second_reply = 0;   // its command code, if the request gets two; 0: none
};

struct Reply {
  ACPHeader header = {};
  std::vector<uint8_t> body;  // its record in host order
};

// The bytes of a body that begins with this record, its numbers in host order.
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
// Texts are at most MAX_REQUEST_TEXT bytes and hold no NUL; an empty directory leaves the choice of
// the drive to the appliance.
Request MakeDiskRequest(const std::string &directory);
Request MakePartitionRequest(const std::string &path);

// The datagram in wire order.
std::vector<uint8_t> EncodeRequest(const Request &request, const Mac &src_mac, const Mac &dst_mac);

// Nothing when the datagram is too short or its lengths contradict each other.
std::optional<Reply> DecodeReply(Bytes datagram);

// Whether the reply is addressed to one of `own_macs`, comes from `wanted` when that is set, and is
// what the request asks for.
bool AnswersRequest(const Reply &reply, const Request &request, std::span<const Mac> own_macs,
                    const std::optional<Mac> &wanted);

// Bodies of replies, in host order; one that is too short reads as zero. Paths end with a NUL.
DiscoverInfo ReadDiscoverInfo(Bytes body);
uint32_t DiscoverKey(const DiscoverInfo &info);
DiskInfo ReadDiskInfo(Bytes body);
RaidInfo ReadRaidInfo(Bytes body);
PartitionInfo ReadPartitionInfo(Bytes body);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_DATAGRAM_H_
