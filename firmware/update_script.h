// The appliance's update script: what it does to services and lights while firmware is installed.

#ifndef BH_FIRMWARE_UPDATE_SCRIPT_H_
#define BH_FIRMWARE_UPDATE_SCRIPT_H_

#include <cstdint>

// Runs the script with "start", or with "stop" if `start` is 0, and waits for it. Its wait status,
// -1 when it cannot be started.
int32_t run_fw_update_script(int32_t start);

#endif  // BH_FIRMWARE_UPDATE_SCRIPT_H_
