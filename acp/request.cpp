// Access to the header of a received datagram.

#include "acp/request.h"

#include <cstring>

#include "daemon/state.h"

ACPHeader RequestHeader(const AcpRequest &request) {
  ACPHeader header = {};
  memcpy(&header, request.packet, sizeof(header));
  return header;
}

const uint8_t *RequesterMac(const AcpRequest &request) {
  return request.packet + offsetof(ACPHeader, src_mac);
}

int32_t CheckEnabledClient(const AcpRequest &request) {
  if (daemon_state.enable_state != 0) return -1;
  return memcmp(RequesterMac(request), daemon_state.enable_mac, MAC_SIZE) == 0 ? 0 : -1;
}
