// Commands that only read: ping, disk, raid, partition, show. They return the program's exit
// status.

#ifndef BH_TOOLS_BHCTL_STATUS_H_
#define BH_TOOLS_BHCTL_STATUS_H_

#include "acp/packet.h"
#include "tools/bhctl/options.h"

namespace bhctl {

int Ping(const Options &options);  // optional argument --count
int Disk(const Options &options);  // optional argument DIRECTORY
int Raid(const Options &options);
int Partition(const Options &options);  // argument PATH
int Show(const Options &options);

// Whether the array or disk is mounted.
bool IsMounted(const RaidInfoEntry &entry);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_STATUS_H_
