// Whole datagrams are converted, with the same table that the daemon uses.

#include "client/datagram.h"

#include <algorithm>

#include "acp/body.h"
#include "acp/convert.h"

namespace acp {
namespace {

bool SameMac(const uint8_t (&field)[MAC_SIZE], const Mac &mac) {
  return std::equal(mac.begin(), mac.end(), field);
}

Request Repeatable(Request request) {
  request.repeatable = true;
  return request;
}

template <size_t SIZE>
void EndText(char (&text)[SIZE]) {
  text[SIZE - 1] = '\0';
}

}  // namespace

void Append(std::vector<uint8_t> &body, Bytes more) {
  body.insert(body.end(), more.begin(), more.end());
}

// Waits for the whole timeout: an appliance reads a dozen files before it answers.
Request MakeDiscoverRequest() {
  return Repeatable({ACP_DISCOVER, ACP_DISCOVER_REPLY, sizeof(DiscoverInfo), {}, true});
}

Request MakePingRequest() {
  return Repeatable({ACP_PING, ACP_PING_REPLY, 0, {}});
}

Request MakeRaidRequest() {
  return Repeatable({ACP_INFO_RAID, ACP_INFO_RAID_REPLY, sizeof(RaidInfo), {}});
}

// Padded because the appliance ignores the text in a datagram of less than 96 bytes.
Request MakeDiskRequest(const std::string &directory) {
  Request request = Repeatable({ACP_INFO_HDD, ACP_INFO_HDD_REPLY, sizeof(DiskInfo), {}});
  if (directory.empty()) return request;
  request.body.assign(directory.begin(), directory.end());
  request.body.resize(std::max(directory.size() + 1, sizeof(DiskRequest)));
  return request;
}

Request MakePartitionRequest(const std::string &path) {
  Request request = Repeatable({ACP_PART, ACP_PART_REPLY, sizeof(PartitionInfo), {}});
  request.body.assign(path.begin(), path.end());
  request.body.push_back(0);
  return request;
}

std::vector<uint8_t> EncodeRequest(const Request &request, const Mac &src_mac, const Mac &dst_mac) {
  ACPHeader header = {};
  header.header_size = ACP_HEADER_SIZE;
  header.packet_version = REPLY_VERSION;
  header.command = request.command;
  header.option_size = static_cast<uint16_t>(request.body.size());
  std::copy(src_mac.begin(), src_mac.end(), header.src_mac);
  std::copy(dst_mac.begin(), dst_mac.end(), header.dst_mac);
  header.result = request.result;
  std::vector<uint8_t> datagram(ACP_HEADER_SIZE + request.body.size());
  memcpy(datagram.data(), &header, sizeof(header));
  std::copy(request.body.begin(), request.body.end(), datagram.begin() + ACP_HEADER_SIZE);
  SwapAcpHeader(datagram, Conversion::TO_WIRE);
  return datagram;
}

// A ping reply is the header of the request, sent back without its body. So its option_size may be
// anything.
std::optional<Reply> DecodeReply(Bytes datagram) {
  if (datagram.size() < ACP_HEADER_SIZE) return std::nullopt;
  std::vector<uint8_t> packet(datagram.begin(), datagram.end());
  SwapAcpHeader(packet, Conversion::TO_HOST);
  const auto header = BodyRecord<ACPHeader>(packet);
  if (header.header_size != ACP_HEADER_SIZE) return std::nullopt;
  const bool bare_ping = header.command == ACP_PING_REPLY && packet.size() == ACP_HEADER_SIZE;
  if (!bare_ping && ACP_HEADER_SIZE + header.option_size != packet.size()) return std::nullopt;
  return Reply{header, {packet.begin() + ACP_HEADER_SIZE, packet.end()}};
}

bool AnswersRequest(const Reply &reply, const Request &request, std::span<const Mac> own_macs,
                    const std::optional<Mac> &wanted) {
  const uint16_t command = reply.header.command;
  if (command == 0 || (command != request.reply_command && command != request.second_reply))
    return false;
  const bool refusal = reply.header.result != ACP_STATE_OK && reply.body.empty();
  if (!refusal && reply.body.size() < request.reply_body) return false;
  if (wanted && !SameMac(reply.header.src_mac, *wanted)) return false;
  return std::any_of(own_macs.begin(), own_macs.end(),
                     [&](const Mac &mac) { return SameMac(reply.header.dst_mac, mac); });
}

DiscoverInfo ReadDiscoverInfo(Bytes body) {
  return BodyRecord<DiscoverInfo>(body);
}

uint32_t DiscoverKey(const DiscoverInfo &info) {
  uint32_t key = 0;
  for (const uint8_t byte : info.key)
    key = key << 8 | byte;
  return key;
}

DiskInfo ReadDiskInfo(Bytes body) {
  return BodyRecord<DiskInfo>(body);
}

RaidInfo ReadRaidInfo(Bytes body) {
  auto info = BodyRecord<RaidInfo>(body);
  for (RaidInfoEntry &entry : info.entries)
    EndText(entry.path);
  return info;
}

PartitionInfo ReadPartitionInfo(Bytes body) {
  auto info = BodyRecord<PartitionInfo>(body);
  EndText(info.path);
  return info;
}

}  // namespace acp
