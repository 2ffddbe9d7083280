// One table of the body numbers and one conversion for both directions.
//
// On the wire a number has its least significant byte first. Storing a number that was read in host
// order byte by byte through shifts is therefore the conversion, and its own inverse.

#include "acp/convert.h"

#include <cstddef>
#include <cstring>

#include "acp/packet.h"
#include "daemon/trace.h"

namespace {

// `count` numbers of `width` bytes one after another from `offset` of the body, and so in each of
// `records` records of `record_size` bytes.
struct NumberRun {
  uint16_t command;
  uint8_t width;
  uint16_t offset;
  uint16_t count;
  uint16_t records = 1;
  uint16_t record_size = 0;
};

constexpr NumberRun BODY_NUMBERS[] = {
    {ACP_DISCOVER, 2, 0, 1},
    {ACP_DISCOVER_REPLY, 2, 112, 2},
    {ACP_DISCOVER_REPLY, 2, 124, 6},
    {ACP_DISCOVER_REPLY, 4, 0, 3},
    {ACP_DISCOVER_REPLY, 4, 136, 5},
    {ACP_DISCOVER_REPLY, 4, 160, 1},
    {ACP_CHANGE_IP, 2, 0, 1},
    {ACP_CHANGE_IP, 2, 76, 6},
    {ACP_CHANGE_IP, 4, 12, 3},
    {ACP_CHANGE_IP, 4, 88, 6},
    {ACP_FIRMUP2, 4, 0, 4},
    {ACP_FIRMUP2, 4, 32, 1},
    {ACP_FIRMUP3, 4, 0, 4},
    {ACP_FIRMUP3, 4, 32, 1},
    {ACP_INFO_HDD_REPLY, 2, 0, 256},
    {ACP_INFO_RAID_REPLY, 4, 0, 7, RAID_ENTRIES, sizeof(RaidInfoEntry)},
    {ACP_PART_REPLY, 4, 0, 7},
    {ACP_SPECIAL, 4, 4, 1},
    {ACP_CMD, 4, 0, 2},
    {ACP_RESULT_REPLY, 4, 0, 2},
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

void SwapHeaderNumbers(std::span<uint8_t> packet) {
  SwapIfInside(packet, offsetof(ACPHeader, header_size), sizeof(uint16_t));
  SwapIfInside(packet, offsetof(ACPHeader, packet_version), sizeof(uint32_t));
  SwapIfInside(packet, offsetof(ACPHeader, command), sizeof(uint16_t));
  SwapIfInside(packet, offsetof(ACPHeader, option_size), sizeof(uint16_t));
  SwapIfInside(packet, offsetof(ACPHeader, result), sizeof(uint32_t));
}

void SwapRun(std::span<uint8_t> packet, const NumberRun &run) {
  for (size_t record = 0; record < run.records; ++record) {
    const size_t start = ACP_HEADER_SIZE + record * run.record_size + run.offset;
    for (size_t i = 0; i < run.count; ++i)
      SwapIfInside(packet, start + i * run.width, run.width);
  }
}

// `header` in host order, whichever the direction.
void SwapBodyNumbers(std::span<uint8_t> packet, const ACPHeader &header) {
  if (header.option_size == 0) return;
  if (header.command == ACP_CHANGE_IP_REPLY) DebugPrint("ACP_CHANGE_IP_REPLY option swap\n");
  if (header.header_size != ACP_HEADER_SIZE) return;
  for (const NumberRun &run : BODY_NUMBERS) {
    if (run.command == header.command) SwapRun(packet, run);
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
