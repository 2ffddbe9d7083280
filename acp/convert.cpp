// One table of the body numbers and one conversion for both directions.
//
// On the wire a number has its least significant byte first. Storing a number that was read in host
// order byte by byte through shifts is therefore the conversion, and its own inverse.

#include "acp/convert.h"

#include <cstddef>
#include <cstring>
#include <type_traits>

#include "acp/packet.h"

namespace {

// Numbers of one width that follow each other in a record.
struct Numbers {
  size_t offset;
  size_t width;
  size_t count;
};

// From the field `first` to the field `last`; of arrays, their elements.
#define NUMBERS(record, first, last)                                                  \
  MakeNumbers(offsetof(record, first), offsetof(record, last) + sizeof(record::last), \
              sizeof(std::remove_all_extents_t<decltype(record::first)>))

constexpr Numbers MakeNumbers(size_t begin, size_t end, size_t width) {
  return {begin, width, (end - begin) / width};
}

// The numbers of a command's body, and so in each of `records` records of `record_size` bytes.
struct BodyNumbers {
  uint16_t command;
  Numbers numbers;
  size_t records = 1;
  size_t record_size = 0;
};

constexpr BodyNumbers BODY_NUMBERS[] = {
    {ACP_DISCOVER, NUMBERS(DiscoverRequest, reserved, reserved)},
    {ACP_DISCOVER_REPLY, NUMBERS(DiscoverInfo, address, status)},
    {ACP_DISCOVER_REPLY, NUMBERS(DiscoverInfo, reserved1, daemon_version)},
    {ACP_DISCOVER_REPLY, NUMBERS(DiscoverInfo, year, second)},
    {ACP_DISCOVER_REPLY, NUMBERS(DiscoverInfo, gateway, reserved3)},
    {ACP_DISCOVER_REPLY, NUMBERS(DiscoverInfo, product_id, product_id)},
    {ACP_CHANGE_IP, NUMBERS(ChangeIpRequest, flag, flag)},
    {ACP_CHANGE_IP, NUMBERS(ChangeIpRequest, change_mask, netmask)},
    {ACP_CHANGE_IP, NUMBERS(ChangeIpRequest, year, second)},
    {ACP_CHANGE_IP, NUMBERS(ChangeIpRequest, gateway, time_zone)},
    {ACP_FIRMUP2, NUMBERS(UpdateRequest, firm_type, true_chksum)},
    {ACP_FIRMUP2, NUMBERS(UpdateRequest, zip_pass_len, zip_pass_len)},
    {ACP_FIRMUP3, NUMBERS(UpdateRequest, firm_type, true_chksum)},
    {ACP_FIRMUP3, NUMBERS(UpdateRequest, zip_pass_len, zip_pass_len)},
    {ACP_INFO_HDD_REPLY, NUMBERS(DiskInfo, words, words)},
    {ACP_INFO_RAID_REPLY, NUMBERS(RaidInfoEntry, type, blocks_avail), RAID_ENTRIES,
     sizeof(RaidInfoEntry)},
    {ACP_PART_REPLY, NUMBERS(PartitionInfo, fs_type, inodes_free)},
    {ACP_SPECIAL, NUMBERS(SpecialRequest, extra, extra)},
    {ACP_CMD, NUMBERS(CommandRequest, length, type)},
    {ACP_RESULT_REPLY, NUMBERS(OutputReply, length, type)},
};

template <typename Number>
void SwapNumber(uint8_t *field) {
  Number number = 0;
  memcpy(&number, field, sizeof(number));
  for (size_t i = 0; i < sizeof(number); ++i)
    field[i] = static_cast<uint8_t>(number >> (8 * i));
}

void SwapIfInside(std::span<uint8_t> packet, size_t offset, size_t width) {
  if (offset + width > packet.size()) return;
  uint8_t *field = packet.data() + offset;
  if (width == sizeof(uint16_t)) SwapNumber<uint16_t>(field);
  if (width == sizeof(uint32_t)) SwapNumber<uint32_t>(field);
}

// From `start` of the packet, where the record stands that they are part of.
void SwapNumbers(std::span<uint8_t> packet, size_t start, const Numbers &numbers) {
  for (size_t i = 0; i < numbers.count; ++i)
    SwapIfInside(packet, start + numbers.offset + i * numbers.width, numbers.width);
}

void SwapHeaderNumbers(std::span<uint8_t> packet) {
  constexpr Numbers HEADER_NUMBERS[] = {
      NUMBERS(ACPHeader, header_size, header_size),
      NUMBERS(ACPHeader, packet_version, packet_version),
      NUMBERS(ACPHeader, command, option_size),
      NUMBERS(ACPHeader, result, result),
  };
  for (const Numbers &numbers : HEADER_NUMBERS)
    SwapNumbers(packet, 0, numbers);
}

// `header` in host order, whichever the direction.
void SwapBodyNumbers(std::span<uint8_t> packet, const ACPHeader &header) {
  if (header.option_size == 0 || header.header_size != ACP_HEADER_SIZE) return;
  for (const BodyNumbers &body : BODY_NUMBERS) {
    if (body.command != header.command) continue;
    for (size_t record = 0; record < body.records; ++record)
      SwapNumbers(packet, ACP_HEADER_SIZE + record * body.record_size, body.numbers);
  }
}

}  // namespace

void SwapAcpHeader(std::span<uint8_t> packet, Conversion conversion) {
  if (packet.size() < ACP_HEADER_SIZE) return;
  ACPHeader header = {};
  if (conversion == Conversion::TO_HOST) SwapHeaderNumbers(packet);
  memcpy(&header, packet.data(), sizeof(header));
  if (conversion == Conversion::TO_WIRE) SwapHeaderNumbers(packet);
  SwapBodyNumbers(packet, header);
}
