// Access to the header of a received datagram.

#include "acp/request.h"

#include <cstring>

ACPHeader RequestHeader(const AcpRequest &request) {
  ACPHeader header = {};
  memcpy(&header, request.packet, sizeof(header));
  return header;
}

const uint8_t *RequesterMac(const AcpRequest &request) {
  return request.packet + offsetof(ACPHeader, src_mac);
}
