// The client that enabled command mode.

#include "access/command_mode.h"

#include <cstring>

#include "daemon/state.h"
#include "daemon/trace.h"

void EnableCommandMode(const uint8_t *mac) {
  set_mode_flags(get_mode_flags() | MODE_COMMAND_ENABLED);
  daemon_state.enable_state = 0;
  memcpy(daemon_state.enable_mac, mac, sizeof(daemon_state.enable_mac));
  DebugPrint("Enable Command : Password OK!!! MAC=%02X:%02X:%02X:%02X:%02X:%02X\n", mac[0], mac[1],
             mac[2], mac[3], mac[4], mac[5]);
}

void DisableCommandMode() {
  DebugPrint("Disnable Command : Done.\n");
  set_mode_flags(get_mode_flags() & ~MODE_COMMAND_ENABLED);
  daemon_state.enable_state = -1;
  memset(daemon_state.enable_mac, 0, sizeof(daemon_state.enable_mac));
}

int32_t CheckEnabledClient(const AcpRequest &request) {
  if (daemon_state.enable_state != 0) return -1;
  return memcmp(RequesterMac(request), daemon_state.enable_mac, MAC_SIZE) == 0 ? 0 : -1;
}
