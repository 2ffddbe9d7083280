// The appliance's update script.

#include "firmware/update_script.h"

#include "daemon/process.h"

int32_t run_fw_update_script(int32_t start) {
  return RunCommandLine(start != 0 ? "/usr/local/bin/fw_update.sh start"
                                   : "/usr/local/bin/fw_update.sh stop");
}
