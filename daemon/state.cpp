// Storage of the daemon's process state.

#include "daemon/state.h"

DaemonState daemon_state{};

uint32_t get_mode_flags() {
  return daemon_state.mode_flags;
}

void set_mode_flags(uint32_t value) {
  daemon_state.mode_flags = value;
}

int is_fw_updating() {
  return daemon_state.fw_updating;
}

bool is_zeph_product() {
  return daemon_state.product_id == 0x2001 || daemon_state.product_id == 0x2002;
}
