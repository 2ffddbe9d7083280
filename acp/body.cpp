// Bounded readers of request bodies.

#include "acp/body.h"

#include <algorithm>
#include <cstring>

namespace {

template <typename Number>
Number BodyNumber(std::span<const uint8_t> body, size_t offset) {
  Number number = 0;
  if (offset > body.size() || body.size() - offset < sizeof(number)) return 0;
  memcpy(&number, body.data() + offset, sizeof(number));
  return number;
}

}  // namespace

std::span<const uint8_t> RequestBody(const AcpRequest &request) {
  if (RequestHeader(request).header_size != ACP_HEADER_SIZE) return {};
  const size_t length = static_cast<size_t>(request.recvlen);
  if (length <= ACP_HEADER_SIZE) return {};
  return std::span(request.packet).subspan(ACP_HEADER_SIZE, length - ACP_HEADER_SIZE);
}

uint16_t BodyU16(std::span<const uint8_t> body, size_t offset) {
  return BodyNumber<uint16_t>(body, offset);
}

uint32_t BodyU32(std::span<const uint8_t> body, size_t offset) {
  return BodyNumber<uint32_t>(body, offset);
}

std::span<const uint8_t> BodyFrom(std::span<const uint8_t> body, size_t offset) {
  return body.subspan(std::min(offset, body.size()));
}

std::string BodyText(std::span<const uint8_t> body, size_t offset) {
  const std::span<const uint8_t> rest = BodyFrom(body, offset);
  return {rest.begin(), std::find(rest.begin(), rest.end(), uint8_t{0})};
}
