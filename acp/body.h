// Bounded readers of request bodies: nothing past the received bytes is ever seen.

#ifndef BH_ACP_BODY_H_
#define BH_ACP_BODY_H_

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>

#include "acp/request.h"

// The body as received. Empty when there is none, and when `header_size` is not 32: the body then
// stands where no handler expects it.
std::span<const uint8_t> RequestBody(const AcpRequest &request);

// Numbers at byte `offset`, in host order for the fields that the dispatcher converted. A number
// that does not lie within the body whole reads as 0.
uint16_t BodyU16(std::span<const uint8_t> body, size_t offset);
uint32_t BodyU32(std::span<const uint8_t> body, size_t offset);

// The record that the body begins with; all zero when the body does not hold it whole.
template <typename Record>
Record BodyRecord(std::span<const uint8_t> body) {
  Record record = {};
  if (body.size() >= sizeof(record)) memcpy(&record, body.data(), sizeof(record));
  return record;
}

// What the body has from byte `offset` on; empty past its end.
std::span<const uint8_t> BodyFrom(std::span<const uint8_t> body, size_t offset);

// Text from byte `offset` up to the first NUL or the end of the body.
std::string BodyText(std::span<const uint8_t> body, size_t offset);

#endif  // BH_ACP_BODY_H_
