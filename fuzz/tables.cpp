// What other programs leave to be read: the input's first line says whether its text is the DHCP
// client's lease, the kernel's routing table, or the crontab.

#include <sys/stat.h>

#include "fuzz/input.h"
#include "lib/libbh.h"

namespace {

void ReadLease() {
  DhcpLease lease = {};
  libbh_ReadDhcpLease("eth0", &lease);
  Require(strnlen(lease.domain, sizeof(lease.domain)) <= 64);
}

void ReadRoutes() {
  RouteEntry *list = nullptr;
  Require(libbh_GetRouteTable(&list) == 0 || list == nullptr);
  for (const RouteEntry *route = list; route != nullptr; route = route->next)
    Require(strnlen(route->name, sizeof(route->name)) < sizeof(route->name));
  libbh_FreeRouteList(list);
}

void ReadCrontab() {
  NtpConfig config = {};
  libbh_GetNtpConfig(&config);
  config.enabled = 0;  // the time server is not asked
  if (config.server != nullptr) {
    Require(strlen(config.server) <= 255);
    libbh_SetNtpConfig(0, &config);
  }
  libbh_FreeNtpConfig(&config);
}

struct Table {
  const char *name;
  const char *path;
  void (*read)();
};
constexpr Table TABLES[] = {
    {"lease", "/etc/dhcpc/dhcpcd-eth0.info", ReadLease},
    {"route", "/proc/net/route", ReadRoutes},
    {"crontab", "/etc/crontab", ReadCrontab},
};

// The kernel's tables make way for one that can be written; the crontab's writer wants the lock.
bool Prepare() {
  return rename("/proc/net", "/proc/kernel-net") == 0 && mkdir("/proc/net", 0755) == 0 &&
         libbh_lock() == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const bool prepared = Prepare();
  Require(prepared);
  std::string_view text = InputText(data, size);
  const std::string table = TakeLine(text);
  for (const Table &one : TABLES) {
    if (table != one.name) continue;
    PutFile(one.path, text);
    one.read();
  }
  return 0;
}
