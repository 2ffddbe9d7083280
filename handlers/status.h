// Status queries: ping, disk identification, RAID list and partition. They change nothing and need
// no right. Each returns 0 after its reply, -1 when there was no memory for one.

#ifndef BH_HANDLERS_STATUS_H_
#define BH_HANDLERS_STATUS_H_

#include <sys/vfs.h>

#include <cstdint>

#include "acp/packet.h"
#include "acp/request.h"

int32_t ACP_Ping_Reply(const AcpRequest &request);
int32_t ACP_Info_HDD_Reply(const AcpRequest &request);
int32_t ACP_Info_RAID_Reply(const AcpRequest &request);
int32_t ACP_Partition_Reply(const AcpRequest &request);

// Fills up to 256 words from the file "identify" of a drive's directory; words that the file does
// not give stay as they are. Returns -1 when it cannot be opened, else 0.
int32_t ReadIdentify(const char *directory, uint16_t *words);

// Clears and fills the 8 entries: arrays, then single disks, then USB disks. Returns 0.
int32_t GetRaidInfo(RaidInfoEntry *entries);

// Returns 1 when `path` occurs in the mount table and its statistics could be read, else 0.
int32_t GetMountStat(const char *path, struct statfs *result);

#endif  // BH_HANDLERS_STATUS_H_
