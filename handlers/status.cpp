// Status queries, read afresh from the kernel and the settings files for every request.

#include "handlers/status.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <utility>

#include "acp/body.h"
#include "acp/reply.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/libbh.h"
#include "lib/text.h"

namespace {

constexpr char DEFAULT_DRIVE[] = "/proc/ide/hda";
constexpr char DISK_CONFIG[] = "/etc/korvo/diskinfo";
constexpr char MOUNT_TABLE[] = "/proc/mounts";
constexpr size_t MOUNTS_FOR_USB = 1023;  // characters of the mount table that are looked at
constexpr size_t MOUNTS_FOR_STAT = 1499;
constexpr size_t IDENTIFY_LINES = 32;
constexpr size_t WORDS_PER_LINE = 8;

// False when the file cannot be read; `text` then stays empty.
bool ReadStart(const char *path, size_t limit, std::string &text) {
  const FilePtr stream(fopen(path, "re"));
  if (!stream) return false;
  text.resize(limit);
  text.resize(fread(text.data(), 1, limit, stream.get()));
  return true;
}

// File systems outgrow the reply's fields. The largest number that fits is nearer to the truth than
// the low 32 bits.
template <typename Count>
uint32_t Saturate(Count count) {
  return static_cast<uint32_t>(
      std::min<uint64_t>(static_cast<uint64_t>(count), std::numeric_limits<uint32_t>::max()));
}

// Eight hexadecimal numbers; a line with fewer leaves the other words as they are.
void ScanWords(const char *line, uint16_t *words) {
  for (size_t i = 0; i < WORDS_PER_LINE; ++i) {
    char *end = nullptr;
    const unsigned long long number = strtoull(line, &end, 16);
    if (end == line) return;
    words[i] = static_cast<uint16_t>(number);
    line = end;
  }
}

// The fields that RAID entries and partition replies share.
template <typename Record>
void CopyCounts(Record &record, const struct statfs &status) {
  record.fs_type = static_cast<uint32_t>(status.f_type);
  record.block_size = Saturate(status.f_bsize);
  record.blocks = Saturate(status.f_blocks);
  record.blocks_free = Saturate(status.f_bfree);
  record.blocks_avail = Saturate(status.f_bavail);
}

// A table that is filled from the front.
struct RaidList {
  RaidInfoEntry *entries;
  size_t count = 0;
};

void FillMountStat(RaidInfoEntry &entry) {
  struct statfs status = {};
  if (GetMountStat(entry.path, &status) == 0) {
    entry.block_size = UNMOUNTED_BLOCK_SIZE;
    entry.blocks = UNMOUNTED_BLOCKS;
    return;
  }
  CopyCounts(entry, status);
}

void AddEntry(RaidList &list, RaidType type, const std::string &path) {
  if (list.count == RAID_ENTRIES) return;
  RaidInfoEntry &entry = list.entries[list.count];
  entry.type = type;
  const bool is_array = type >= RAID_TYPE_JBOD;
  entry.index = is_array ? static_cast<uint32_t>(list.count) : 0;
  path.copy(entry.path, sizeof(entry.path) - 1);
  FillMountStat(entry);
  ++list.count;
}

std::string DiskSetting(const std::string &key) {
  const HeapText value(libbh_GetConfigValue(DISK_CONFIG, key.c_str()));
  return value ? std::string(value.get()) : std::string();
}

void AddArrays(RaidList &list) {
  static const struct {
    const char *value;
    RaidType type;
  } kinds[] = {{"jbod", RAID_TYPE_JBOD}, {"raid1", RAID_TYPE_RAID1}, {"raid5", RAID_TYPE_RAID5}};

  for (int n = 1; n <= 2; ++n) {
    const std::string name = "array" + std::to_string(n);
    const std::string value = DiskSetting(name);
    for (const auto &kind : kinds) {
      if (value == kind.value) AddEntry(list, kind.type, "/mnt/" + name);
    }
  }
}

void AddDisks(RaidList &list) {
  for (int n = 1; n <= 4; ++n) {
    const std::string name = "disk" + std::to_string(n);
    if (DiskSetting(name) == "normal") AddEntry(list, RAID_TYPE_SINGLE, "/mnt/" + name);
  }
}

void AddUsbDisks(RaidList &list) {
  std::string mounts;
  if (!ReadStart(MOUNT_TABLE, MOUNTS_FOR_USB, mounts)) return;
  DebugPrint("GetRaidInfo : data=%s\n", mounts.c_str());
  for (int n = 1; n <= 4; ++n) {
    const std::string path = "/mnt/usbdisk" + std::to_string(n);
    if (mounts.find(path) == std::string::npos) continue;
    DebugPrint("GetRaidInfo : found usb%d\n", n);
    AddEntry(list, RAID_TYPE_USB, path);
  }
}

// The drive's directory of a disk request; a request too short to hold one means the first drive.
std::string DriveDirectory(const AcpRequest &request) {
  const auto body = RequestBody(request);
  return body.size() < sizeof(DiskRequest) ? DEFAULT_DRIVE : BodyText(body, 0);
}

void FillPartition(PartitionInfo &info, const struct statfs &status, const std::string &path) {
  CopyCounts(info, status);
  info.inodes = Saturate(status.f_files);
  info.inodes_free = Saturate(status.f_ffree);
  path.copy(info.path, sizeof(info.path) - 1);
}

}  // namespace

int32_t ACP_Ping_Reply(const AcpRequest &request) {
  Reply reply = AllocateReply(0);
  if (!reply.bytes) {
    DebugPrint("ACP_Ping_Reply fail to allocate Memory\n");
    return -1;
  }
  // The echo keeps the request's sizes, reserved bytes and result.
  ACPHeader header = RequestHeader(request);
  header.packet_version = REPLY_VERSION;
  header.command = ACP_PING_REPLY;
  memcpy(header.dst_mac, header.src_mac, MAC_SIZE);
  libbh_GetMacAddress(daemon_state.ifname.c_str(), header.src_mac);
  memcpy(reply.bytes.get(), &header, sizeof(header));
  SendPreparedReply(request, reply.Bytes());
  return 0;
}

int32_t ACP_Info_HDD_Reply(const AcpRequest &request) {
  Reply reply = AllocateReply(sizeof(DiskInfo));
  if (!reply.bytes) {
    DebugPrint("ACP_Info_HDD_Reply fail to allocate Memory\n");
    return -1;
  }
  DiskInfo info = {};
  ReadIdentify(DriveDirectory(request).c_str(), info.words);
  PutBody(reply, info);
  SendReply(request, std::move(reply), ACP_INFO_HDD_REPLY, ACP_STATE_OK);
  return 0;
}

int32_t ACP_Info_RAID_Reply(const AcpRequest &request) {
  Reply reply = AllocateReply(sizeof(RaidInfo));
  if (!reply.bytes) {
    DebugPrint("ACP_Info_HDD_Reply fail to allocate Memory\n");  // sic
    return -1;
  }
  RaidInfo info = {};
  GetRaidInfo(info.entries);
  PutBody(reply, info);
  SendReply(request, std::move(reply), ACP_INFO_RAID_REPLY, ACP_STATE_OK);
  return 0;
}

int32_t ACP_Partition_Reply(const AcpRequest &request) {
  DebugPrint("-> ACP_Partition_Reply\r\n");
  Reply reply = AllocateReply(sizeof(PartitionInfo));
  if (!reply.bytes) {
    DebugPrint("ACP_Partition_Reply fail to allocate Memory\r\n");
    return -1;
  }
  const std::string path = BodyText(RequestBody(request), 0);
  PartitionInfo info = {};
  struct statfs status = {};
  const bool known = statfs(path.c_str(), &status) == 0;
  if (known) {
    FillPartition(info, status, path);
    DebugPrint("ACP_Partition_Reply success statfs(). path=%s\r\n", path.c_str());
  } else {
    DebugPrint("ACP_Partition_Reply fail statfs(). path=%s\r\n", path.c_str());
  }
  PutBody(reply, info);
  SendReply(request, std::move(reply), ACP_PART_REPLY, known ? ACP_STATE_OK : ACP_STATE_FAILURE);
  return 0;
}

int32_t ReadIdentify(const char *directory, uint16_t *words) {
  std::string path = directory;
  path += path.ends_with('/') ? "identify" : "/identify";
  const FilePtr stream = OpenRegularFile(path.c_str());
  if (!stream) return -1;

  char line[256];
  for (size_t n = 0; n < IDENTIFY_LINES && fgets(line, sizeof(line), stream.get()); ++n) {
    ScanWords(line, words + n * WORDS_PER_LINE);
  }
  return 0;
}

int32_t GetRaidInfo(RaidInfoEntry *entries) {
  std::fill_n(entries, RAID_ENTRIES, RaidInfoEntry{});
  RaidList list = {entries};
  AddArrays(list);
  AddDisks(list);
  AddUsbDisks(list);
  return 0;
}

int32_t GetMountStat(const char *path, struct statfs *result) {
  std::string mounts;
  if (!ReadStart(MOUNT_TABLE, MOUNTS_FOR_STAT, mounts)) return 0;
  if (mounts.find(path) == std::string::npos) return 0;
  return statfs(path, result) == 0 ? 1 : 0;
}
