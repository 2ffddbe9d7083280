// Commands that only read: ping, disk, raid, partition. They return the program's exit status.

#ifndef BH_TOOLS_BHCTL_STATUS_H_
#define BH_TOOLS_BHCTL_STATUS_H_

#include "tools/bhctl/options.h"

namespace bhctl {

int Ping(const Options &options);
int Disk(const Options &options);  // optional argument DIRECTORY
int Raid(const Options &options);
int Partition(const Options &options);  // argument PATH

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_STATUS_H_
