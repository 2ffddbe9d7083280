// Encodes and decodes byte by byte, least significant byte first, whatever the host's order is.

#include "tools/bhctl/datagram.h"

#include <algorithm>

namespace bhctl {
namespace {

uint8_t GetU8(Bytes bytes, size_t at) {
  return at < bytes.size() ? bytes[at] : uint8_t{0};
}

uint16_t GetU16(Bytes bytes, size_t at) {
  return static_cast<uint16_t>(GetU8(bytes, at) | GetU8(bytes, at + 1) << 8);
}

}  // namespace

uint32_t GetU32(Bytes bytes, size_t at) {
  return GetU16(bytes, at) | static_cast<uint32_t>(GetU16(bytes, at + 2)) << 16;
}

void AddU16(std::vector<uint8_t> *out, uint16_t value) {
  out->push_back(static_cast<uint8_t>(value & 0xFF));
  out->push_back(static_cast<uint8_t>(value >> 8));
}

void AddU32(std::vector<uint8_t> *out, uint32_t value) {
  for (int shift = 0; shift < 32; shift += 8)
    out->push_back(static_cast<uint8_t>(value >> shift & 0xFF));
}

namespace {

void PutU16(std::vector<uint8_t> &out, size_t at, uint16_t value) {
  out[at] = static_cast<uint8_t>(value & 0xFF);
  out[at + 1] = static_cast<uint8_t>(value >> 8);
}

void PutU32(std::vector<uint8_t> &out, size_t at, uint32_t value) {
  PutU16(out, at, static_cast<uint16_t>(value & 0xFFFF));
  PutU16(out, at + 2, static_cast<uint16_t>(value >> 16));
}

// Always leaves `text` terminated.
template <size_t SIZE>
void GetText(Bytes bytes, size_t at, char (&text)[SIZE]) {
  for (size_t i = 0; i < SIZE - 1; ++i)
    text[i] = static_cast<char>(GetU8(bytes, at + i));
  text[SIZE - 1] = '\0';
}

// The field as it is, with or without a NUL in it.
template <typename BYTE, size_t SIZE>
void GetField(Bytes bytes, size_t at, BYTE (&field)[SIZE]) {
  for (size_t i = 0; i < SIZE; ++i)
    field[i] = static_cast<BYTE>(GetU8(bytes, at + i));
}

bool SameMac(const uint8_t (&field)[MAC_SIZE], const Mac &mac) {
  return std::equal(mac.begin(), mac.end(), field);
}

ACPHeader DecodeHeader(Bytes datagram) {
  ACPHeader header = {};
  header.header_size = GetU16(datagram, offsetof(ACPHeader, header_size));
  header.packet_version = GetU32(datagram, offsetof(ACPHeader, packet_version));
  header.command = GetU16(datagram, offsetof(ACPHeader, command));
  header.option_size = GetU16(datagram, offsetof(ACPHeader, option_size));
  std::copy_n(datagram.begin() + offsetof(ACPHeader, src_mac), MAC_SIZE, header.src_mac);
  std::copy_n(datagram.begin() + offsetof(ACPHeader, dst_mac), MAC_SIZE, header.dst_mac);
  header.result = GetU32(datagram, offsetof(ACPHeader, result));
  return header;
}

RaidInfoEntry DecodeRaidEntry(Bytes bytes, size_t at) {
  RaidInfoEntry entry = {};
  entry.type = GetU32(bytes, at + offsetof(RaidInfoEntry, type));
  entry.index = GetU32(bytes, at + offsetof(RaidInfoEntry, index));
  entry.fs_type = GetU32(bytes, at + offsetof(RaidInfoEntry, fs_type));
  entry.block_size = GetU32(bytes, at + offsetof(RaidInfoEntry, block_size));
  entry.blocks = GetU32(bytes, at + offsetof(RaidInfoEntry, blocks));
  entry.blocks_free = GetU32(bytes, at + offsetof(RaidInfoEntry, blocks_free));
  entry.blocks_avail = GetU32(bytes, at + offsetof(RaidInfoEntry, blocks_avail));
  GetText(bytes, at + offsetof(RaidInfoEntry, path), entry.path);
  return entry;
}

void DecodeTime(Bytes body, DiscoverInfo *info) {
  info->year = GetU16(body, offsetof(DiscoverInfo, year));
  info->month = GetU16(body, offsetof(DiscoverInfo, month));
  info->day = GetU16(body, offsetof(DiscoverInfo, day));
  info->hour = GetU16(body, offsetof(DiscoverInfo, hour));
  info->minute = GetU16(body, offsetof(DiscoverInfo, minute));
  info->second = GetU16(body, offsetof(DiscoverInfo, second));
}

void DecodeVersions(Bytes body, DiscoverInfo *info) {
  info->daemon_version = GetU16(body, offsetof(DiscoverInfo, daemon_version));
  info->firmware_major = GetU8(body, offsetof(DiscoverInfo, firmware_major));
  info->firmware_minor = GetU8(body, offsetof(DiscoverInfo, firmware_minor));
  GetField(body, offsetof(DiscoverInfo, firmware_build_date), info->firmware_build_date);
  GetField(body, offsetof(DiscoverInfo, firmware_sub_version), info->firmware_sub_version);
  info->system_major = GetU8(body, offsetof(DiscoverInfo, system_major));
  info->system_minor = GetU8(body, offsetof(DiscoverInfo, system_minor));
  GetField(body, offsetof(DiscoverInfo, system_sub_version), info->system_sub_version);
  GetField(body, offsetof(DiscoverInfo, system_build_date), info->system_build_date);
}

}  // namespace

// Every answer counts, and an appliance takes its time: it reads a dozen files for one.
Request MakeDiscoverRequest() {
  return {ACP_DISCOVER, ACP_DISCOVER_REPLY, sizeof(DiscoverInfo), {}, true};
}

Request MakePingRequest() {
  return {ACP_PING, ACP_PING_REPLY, 0, {}};
}

Request MakeRaidRequest() {
  return {ACP_INFO_RAID, ACP_INFO_RAID_REPLY, sizeof(RaidInfo), {}};
}

// The appliance looks at the text only in a datagram of 96 bytes or more, hence the padding.
Request MakeDiskRequest(const std::string &directory) {
  Request request = {ACP_INFO_HDD, ACP_INFO_HDD_REPLY, sizeof(DiskInfo), {}};
  if (directory.empty()) return request;
  request.body.assign(directory.begin(), directory.end());
  request.body.resize(std::max(directory.size() + 1, sizeof(DiskRequest)));
  return request;
}

Request MakePartitionRequest(const std::string &path) {
  Request request = {ACP_PART, ACP_PART_REPLY, sizeof(PartitionInfo), {}};
  request.body.assign(path.begin(), path.end());
  request.body.push_back(0);
  return request;
}

std::vector<uint8_t> EncodeRequest(const Request &request, const Mac &src_mac, const Mac &dst_mac) {
  std::vector<uint8_t> out(ACP_HEADER_SIZE + request.body.size());
  PutU16(out, offsetof(ACPHeader, header_size), ACP_HEADER_SIZE);
  PutU32(out, offsetof(ACPHeader, packet_version), REPLY_VERSION);
  PutU16(out, offsetof(ACPHeader, command), request.command);
  PutU16(out, offsetof(ACPHeader, option_size), static_cast<uint16_t>(request.body.size()));
  std::copy(src_mac.begin(), src_mac.end(), out.begin() + offsetof(ACPHeader, src_mac));
  std::copy(dst_mac.begin(), dst_mac.end(), out.begin() + offsetof(ACPHeader, dst_mac));
  PutU32(out, offsetof(ACPHeader, result), request.result);
  std::copy(request.body.begin(), request.body.end(), out.begin() + ACP_HEADER_SIZE);
  return out;
}

// A ping reply is the request's header sent back alone, its option_size included, so that a bare
// header is in order for it whatever the field says.
std::optional<Reply> DecodeReply(Bytes datagram) {
  if (datagram.size() < ACP_HEADER_SIZE) return std::nullopt;
  const ACPHeader header = DecodeHeader(datagram);
  if (header.header_size != ACP_HEADER_SIZE) return std::nullopt;
  const bool bare_ping = header.command == ACP_PING_REPLY && datagram.size() == ACP_HEADER_SIZE;
  if (!bare_ping && ACP_HEADER_SIZE + header.option_size != datagram.size()) return std::nullopt;
  return Reply{header, {datagram.begin() + ACP_HEADER_SIZE, datagram.end()}};
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

DiscoverInfo DecodeDiscoverInfo(Bytes body) {
  DiscoverInfo info = {};
  info.address = GetU32(body, offsetof(DiscoverInfo, address));
  info.netmask = GetU32(body, offsetof(DiscoverInfo, netmask));
  info.status = GetU32(body, offsetof(DiscoverInfo, status));
  GetField(body, offsetof(DiscoverInfo, key), info.key);
  GetField(body, offsetof(DiscoverInfo, host_name), info.host_name);
  GetField(body, offsetof(DiscoverInfo, workgroup), info.workgroup);
  GetField(body, offsetof(DiscoverInfo, product_name), info.product_name);
  info.gateway = GetU32(body, offsetof(DiscoverInfo, gateway));
  info.product_id = GetU32(body, offsetof(DiscoverInfo, product_id));
  info.product_state = GetU8(body, offsetof(DiscoverInfo, product_state));
  GetField(body, offsetof(DiscoverInfo, eth0_mac), info.eth0_mac);
  DecodeTime(body, &info);
  DecodeVersions(body, &info);
  return info;
}

uint32_t DiscoverKey(const DiscoverInfo &info) {
  uint32_t key = 0;
  for (const uint8_t byte : info.key)
    key = key << 8 | byte;
  return key;
}

DiskInfo DecodeDiskInfo(Bytes body) {
  DiskInfo info = {};
  for (size_t i = 0; i < std::size(info.words); ++i)
    info.words[i] = GetU16(body, 2 * i);
  return info;
}

RaidInfo DecodeRaidInfo(Bytes body) {
  RaidInfo info = {};
  for (size_t i = 0; i < RAID_ENTRIES; ++i)
    info.entries[i] = DecodeRaidEntry(body, i * sizeof(RaidInfoEntry));
  return info;
}

PartitionInfo DecodePartitionInfo(Bytes body) {
  PartitionInfo info = {};
  info.fs_type = GetU32(body, offsetof(PartitionInfo, fs_type));
  info.block_size = GetU32(body, offsetof(PartitionInfo, block_size));
  info.blocks = GetU32(body, offsetof(PartitionInfo, blocks));
  info.blocks_free = GetU32(body, offsetof(PartitionInfo, blocks_free));
  info.blocks_avail = GetU32(body, offsetof(PartitionInfo, blocks_avail));
  info.inodes = GetU32(body, offsetof(PartitionInfo, inodes));
  info.inodes_free = GetU32(body, offsetof(PartitionInfo, inodes_free));
  GetText(body, offsetof(PartitionInfo, path), info.path);
  return info;
}

}  // namespace bhctl
