// Network interfaces as the kernel reports them: the list of those that are up, and the record of
// one.

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "lib/codes.h"
#include "lib/dev_ctl/socket.h"
#include "lib/libbh.h"
#include "lib/text.h"

namespace {

constexpr size_t MAC_BYTES = 6;
constexpr uint16_t ALIAS_MARK = 1;
constexpr uint32_t WITH_COUNTERS = 0x2;  // bit 0, which all callers set, means nothing

constexpr const char *DEVICE_TABLE = "/proc/net/dev";
constexpr size_t MAX_DEVICE_LINE = 1023;

// Requests in the kernel's interface table: the first try, each next try, and the end of patience.
constexpr size_t TABLE_START = 100;
constexpr size_t TABLE_STEP = 10;
constexpr size_t TABLE_MAX = 65536;

struct ListRelease {
  void operator()(IfListEntry *list) const {
    libbh_FreeIfList(list);
  }
};
using IfListPtr = std::unique_ptr<IfListEntry, ListRelease>;

// The kernel fills what fits and does not say that more is there; two equal lengths in growing
// tables do.
bool ReadInterfaceTable(int sock, std::vector<ifreq> &table) {
  int last_length = -1;
  for (size_t size = TABLE_START; size <= TABLE_MAX; size += TABLE_STEP) {
    table.resize(size);
    ifconf request = {};
    request.ifc_len = static_cast<int>(size * sizeof(ifreq));
    request.ifc_req = table.data();
    if (ioctl(sock, SIOCGIFCONF, &request) != 0) {
      if (errno != EINVAL || last_length >= 0) return false;
      continue;  // some kernels refuse a table that is too small
    }
    if (request.ifc_len == last_length) {
      table.resize(static_cast<size_t>(last_length) / sizeof(ifreq));
      return true;
    }
    last_length = request.ifc_len;
  }
  return false;
}

sockaddr_in *HeapAddress(const sockaddr &address) {
  auto *copy = static_cast<sockaddr_in *>(malloc(sizeof(sockaddr_in)));
  if (copy != nullptr) *copy = ToInet(address);
  return copy;
}

// Asks about the table's entry, zeros when there is no answer: its address goes along, for the
// kernel to find the right one of an interface that has several.
ifreq Ask(int sock, unsigned long question, const ifreq &entry) {
  ifreq request = entry;
  if (ioctl(sock, question, &request) != 0) request = {};
  return request;
}

// False when there is no memory.
bool FillAddresses(int sock, const ifreq &entry, IfListEntry &record) {
  record.addr = HeapAddress(entry.ifr_addr);
  record.netmask = HeapAddress(Ask(sock, SIOCGIFNETMASK, entry).ifr_netmask);
  bool complete = record.addr != nullptr && record.netmask != nullptr;
  if ((record.flags & IFF_BROADCAST) != 0) {
    record.broadcast = HeapAddress(Ask(sock, SIOCGIFBRDADDR, entry).ifr_broadaddr);
    complete = complete && record.broadcast != nullptr;
  }
  if ((record.flags & IFF_POINTOPOINT) != 0) {
    record.peer = HeapAddress(Ask(sock, SIOCGIFDSTADDR, entry).ifr_dstaddr);
    complete = complete && record.peer != nullptr;
  }
  return complete;
}

void FillHardware(int sock, const ifreq &entry, IfListEntry &record) {
  const ifreq hardware = Ask(sock, SIOCGIFHWADDR, entry);
  memcpy(record.hw_addr, hardware.ifr_hwaddr.sa_data, sizeof(record.hw_addr));
  record.hw_addr_len = MAC_BYTES;
  ifreq mtu = entry;
  record.mtu = ioctl(sock, SIOCGIFMTU, &mtu) == 0 ? mtu.ifr_mtu : 0;
}

// Null when there is no memory.
IfListPtr MakeListEntry(int sock, const ifreq &entry, uint16_t flags) {
  IfListPtr record(static_cast<IfListEntry *>(calloc(1, sizeof(IfListEntry))));
  if (!record) return nullptr;
  memcpy(record->name, entry.ifr_name, strcspn(entry.ifr_name, ":"));
  record->flags = flags;
  record->alias = ALIAS_MARK;
  if (entry.ifr_addr.sa_family != AF_INET) return record;
  if (!FillAddresses(sock, entry, *record)) return nullptr;
  FillHardware(sock, entry, *record);
  return record;
}

// Its flags when the entry is wanted and up, else 0.
uint16_t WantedFlags(int sock, const ifreq &entry, int32_t family, bool with_aliases) {
  if (entry.ifr_addr.sa_family != family) return 0;
  if (!with_aliases && strchr(entry.ifr_name, ':') != nullptr) return 0;
  ifreq request = entry;
  if (ioctl(sock, SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_UP) == 0) return 0;
  return static_cast<uint16_t>(request.ifr_flags);
}

const IfListEntry *FindByName(const IfListEntry *list, const char *name) {
  while (list != nullptr && strcmp(list->name, name) != 0)
    list = list->next;
  return list;
}

void CopyListEntry(const IfListEntry &entry, IfInfo &record) {
  memset(record.hw_addr, 0, sizeof(record.hw_addr));
  if (entry.hw_addr_len != 0) memcpy(record.hw_addr, entry.hw_addr, MAC_BYTES);
  record.addr = *entry.addr;
  record.netmask = *entry.netmask;
  if (entry.peer != nullptr) record.peer_addr = *entry.peer;
  record.mtu = entry.mtu;
}

int32_t ReadHardwareAddress(IfInfo &record) {
  const Descriptor sock = OpenInetSocket();
  ifreq request = RequestFor(record.name);
  if (!sock.IsOpen() || ioctl(sock.Get(), SIOCGIFHWADDR, &request) != 0)
    return libbh_SysError(errno);
  memcpy(record.hw_addr, request.ifr_hwaddr.sa_data, sizeof(record.hw_addr));
  return 0;
}

// The columns of a line of the device table, without the name.
using Counters = std::array<uint32_t, 16>;

bool ParseCounters(const std::string &text, Counters &counters) {
  const char *in = text.c_str();
  for (uint32_t &counter : counters) {
    char *end = nullptr;
    // The kernel counts further than the record.
    counter = static_cast<uint32_t>(strtoull(in, &end, 10));
    if (end == in) return false;
    in = end;
  }
  return true;
}

void StoreCounters(const Counters &counters, IfInfo &record) {
  RxCounters &rx = record.rx;
  TxCounters &tx = record.tx;
  uint32_t *const fields[] = {
      &rx.bytes,       &rx.packets,      &rx.errors,         &rx.dropped,
      &rx.fifo_errors, &rx.frame_errors, &rx.compressed,     &rx.multicast,
      &tx.bytes,       &tx.packets,      &tx.errors,         &tx.dropped,
      &tx.fifo_errors, &tx.collisions,   &tx.carrier_errors, &tx.compressed,
  };
  static_assert(std::size(fields) == std::tuple_size_v<Counters>);
  for (size_t i = 0; i < counters.size(); ++i)
    *fields[i] = counters[i];
}

int32_t ReadCounters(IfInfo &record) {
  std::string table;
  const int error = ReadTextFile(DEVICE_TABLE, table);
  if (error != 0) return libbh_SysError(error);
  std::string_view rest = table;
  while (!rest.empty()) {
    const std::string_view line = NextChunk(rest, MAX_DEVICE_LINE);
    if (!Contains(line, record.name)) continue;
    Counters counters = {};
    const size_t colon = line.find(':');
    if (colon == line.npos || !ParseCounters(std::string(line.substr(colon + 1)), counters)) break;
    StoreCounters(counters, record);
    return 0;
  }
  return libbh_SysError(ENXIO);
}

void FillDhcp(IfInfo &record) {
  const bool dhcp = libbh_IsDhcpcdRunning(record.name) == 0;
  record.mode = dhcp ? MODE_DHCP : MODE_STATIC;
  if (!dhcp) return;
  libbh_ReadDhcpLease(record.name, &record.lease);
  record.lease.valid = 1;
}

}  // namespace

IfListEntry *libbh_GetIfList(int32_t family, int32_t with_aliases) {
  const Descriptor sock = OpenInetSocket();
  std::vector<ifreq> table;
  if (!sock.IsOpen() || !ReadInterfaceTable(sock.Get(), table)) return nullptr;
  IfListPtr first;
  IfListEntry *last = nullptr;
  for (const ifreq &entry : table) {
    const uint16_t flags = WantedFlags(sock.Get(), entry, family, with_aliases != 0);
    if (flags == 0) continue;
    IfListPtr record = MakeListEntry(sock.Get(), entry, flags);
    if (!record) return nullptr;
    IfListEntry *const added = record.release();
    if (last == nullptr)
      first.reset(added);
    else
      last->next = added;
    last = added;
  }
  return first.release();
}

void libbh_FreeIfList(IfListEntry *list) {
  while (list != nullptr) {
    IfListEntry *const next = list->next;
    free(list->addr);
    free(list->broadcast);
    free(list->peer);
    free(list->netmask);
    free(list);
    list = next;
  }
}

int32_t libbh_IfExists(const char *name) {
  std::string table;
  if (name == nullptr || ReadTextFile(DEVICE_TABLE, table) != 0) return 0;
  std::string_view rest = table;
  while (!rest.empty()) {
    const std::string_view line = NextChunk(rest, MAX_DEVICE_LINE);
    const size_t start = line.find(name);
    if (start != line.npos && line.substr(start + strlen(name)).starts_with(':')) return 1;
  }
  return 0;
}

int32_t libbh_AddrOp(int32_t operation, in_addr_t a, in_addr_t b, in_addr_t *result) {
  if (result == nullptr || operation < 0 || operation > 1) return -1;
  *result = operation == 0 ? a & b : a | ~b;
  return 0;
}

int32_t libbh_GetIfInfo(IfInfo *record, uint32_t flags) {
  if (record == nullptr) return libbh_SysError(EINVAL);
  record->mode = MODE_STATIC;
  record->name[sizeof(record->name) - 1] = '\0';
  if (libbh_IfExists(record->name) == 0) return libbh_SysError(ENXIO);
  const IfListPtr list(libbh_GetIfList(AF_INET, 0));
  const IfListEntry *const entry = FindByName(list.get(), record->name);
  if (entry != nullptr) CopyListEntry(*entry, *record);
  int32_t result = entry != nullptr ? 0 : ReadHardwareAddress(*record);
  if (result == 0 && (flags & WITH_COUNTERS) != 0) result = ReadCounters(*record);
  if (result == 0) FillDhcp(*record);
  return result;
}

int32_t libbh_GetMacAddress(const char *name, uint8_t *mac_out) {
  if (mac_out == nullptr) return 0;
  memset(mac_out, 0, MAC_BYTES);
  const Descriptor sock = OpenInetSocket();
  ifreq request = RequestFor(name);
  if (sock.IsOpen() && ioctl(sock.Get(), SIOCGIFHWADDR, &request) == 0)
    memcpy(mac_out, request.ifr_hwaddr.sa_data, MAC_BYTES);
  return 0;
}
