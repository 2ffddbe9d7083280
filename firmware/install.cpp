// What every installation has around it.

#include "firmware/install.h"

#include <unistd.h>

#include <cstring>

#include "daemon/process.h"
#include "daemon/state.h"
#include "firmware/update_script.h"

int32_t set_fw_updating(int32_t on) {
  daemon_state.fw_updating = on != 0 ? 1 : 0;
  if (on != 0) return RunCommandLine("echo \"fwupdate\" >/var/run/fwupdate");
  return unlink("/var/run/fwupdate");
}

// An array that is being rebuilt would slow the installation down; its speed stays limited.
int32_t write_firm(const char *device) {
  if (device == nullptr) return -1;
  RunCommandLine("echo 4000 >/proc/sys/dev/raid/speed_limit_max");
  run_fw_update_script(1);
  set_fw_updating(1);
  const int32_t result = strcmp(device, DISK_TARGET) == 0
                             ? write_firmInHdd(daemon_state.zip_part, daemon_state.system_part)
                             : write_firmInflash(device);
  set_fw_updating(0);
  run_fw_update_script(0);
  return result;
}
