// Changing an interface: the file's stanza, then the DHCP client or the static address, then the
// hosts file and the routes.

#include <net/if.h>
#include <sys/ioctl.h>
#include <syslog.h>

#include <cerrno>
#include <cstring>

#include "lib/address.h"
#include "lib/codes.h"
#include "lib/dev_ctl/dhcp.h"
#include "lib/dev_ctl/interfaces_file.h"
#include "lib/dev_ctl/socket.h"
#include "lib/hooks.h"
#include "lib/hosts.h"
#include "lib/libbh.h"
#include "lib/shell.h"

namespace {

constexpr const char *LOG_MODULE = "dev_ctl";
constexpr size_t HOST_NAME_CAPACITY = 64;
constexpr int DHCP_END_CHECKS = 10;  // a second apart
constexpr int32_t WAIT_FOR_DHCP_END = 1;

constexpr int16_t FLAGS_UP = IFF_UP | IFF_BROADCAST | IFF_RUNNING | IFF_MULTICAST;
static_assert(FLAGS_UP == 0x1043);

// Addresses as numbers, first octet most significant.
constexpr uint32_t LOOPBACK = 0x7F000001;
constexpr uint32_t ALL_ONES = 0xFFFFFFFF;
constexpr uint32_t MULTICAST_AND_ABOVE = 0xE0000000;
constexpr uint32_t CLASS_MASKS[] = {0xFFFFFF00, 0xFFFF0000, 0xFF000000};

template <typename... Values>
void Trace(const char *format, Values... values) {
  if (libbh_debug_print != nullptr) libbh_debug_print(format, values...);
}

bool IsBroadcastOfAnyClass(uint32_t address) {
  Trace("----- %08x ----\n", address);
  for (const uint32_t mask : CLASS_MASKS) {
    const uint32_t broadcast = address | ~mask;
    Trace("-- %08x\n", broadcast);
    if (broadcast == address) return true;
  }
  return false;
}

bool IsHostAddress(uint32_t address, uint32_t netmask) {
  if (address == 0 || address == ALL_ONES || address == LOOPBACK) return false;
  if (netmask == 0 || address >= MULTICAST_AND_ABOVE) return false;
  if ((address & netmask) == address || (address | ~netmask) == address) return false;
  return !IsBroadcastOfAnyClass(address);
}

int32_t CheckRecord(const IfInfo &record) {
  if (record.mode == MODE_DHCP) return 0;
  if (record.mode != MODE_STATIC) return BAD_ADDRESS_MODE;
  const uint32_t address = ntohl(record.addr.sin_addr.s_addr);
  return IsHostAddress(address, ntohl(record.netmask.sin_addr.s_addr)) ? 0 : BAD_ADDRESS;
}

// `line` is the source line at which the failure was found.
int32_t LogFailure(int line, int error) {
  syslog(LOG_DEBUG, "%s %d %s", LOG_MODULE, line, strerror(error));
  return libbh_SysError(error);
}

int32_t StartDhcp(const IfInfo &record) {
  RunDhcpStart(record.name);
  return libbh_IsDhcpcdRunning(record.name) == 0 ? 0 : DHCP_NOT_STARTED;
}

void StopDhcp(const IfInfo &record) {
  RunDhcpStop(record.name);
  for (int i = 0; i < DHCP_END_CHECKS && libbh_IsDhcpcdRunning(record.name) == 0; ++i)
    libbh_sleep(WAIT_FOR_DHCP_END);
}

int32_t SetKernelAddress(const IfInfo &record) {
  const Descriptor sock = OpenInetSocket();
  if (!sock.IsOpen()) return LogFailure(__LINE__, errno);
  ifreq request = RequestFor(record.name);
  request.ifr_addr = FromInet(SocketAddress(record.addr.sin_addr));
  if (ioctl(sock.Get(), SIOCSIFADDR, &request) != 0) return LogFailure(__LINE__, errno);
  request = RequestFor(record.name);
  request.ifr_netmask = FromInet(SocketAddress(record.netmask.sin_addr));
  if (ioctl(sock.Get(), SIOCSIFNETMASK, &request) != 0) return LogFailure(__LINE__, errno);
  request = RequestFor(record.name);
  request.ifr_flags = FLAGS_UP;
  if (ioctl(sock.Get(), SIOCSIFFLAGS, &request) != 0) return LogFailure(__LINE__, errno);
  return 0;
}

int32_t UpdateHosts(const IfInfo &record) {
  char host_name[HOST_NAME_CAPACITY] = "";
  libbh_GetHostName(host_name, sizeof(host_name));
  std::string kept;
  int error = ReadOtherHosts(host_name, kept);
  if (error != 0) return LogFailure(__LINE__, error);
  error = WriteHosts(std::move(kept), record.addr.sin_addr, host_name);
  return error == 0 ? 0 : libbh_SysError(error);
}

int32_t SetStatic(const IfInfo &record) {
  StopDhcp(record);
  const int32_t result = SetKernelAddress(record);
  return result == 0 ? UpdateHosts(record) : result;
}

int32_t Apply(int32_t check_only, const IfInfo &record) {
  int32_t result = CheckRecord(record);
  if (result != 0 || check_only != 0) return result;
  result = libbh_WriteIfStanza(&record);
  if (result < 0) return result;
  result = record.mode == MODE_DHCP ? StartDhcp(record) : SetStatic(record);
  if (result == 0) libbh_ReapplyRoutes(record.name);
  return result;
}

}  // namespace

int32_t libbh_SetIfInfo(int32_t check_only, const IfInfo *record) {
  if (libbh_checklock() != 0) return NOT_LOCKED;
  if (record == nullptr) return libbh_SysError(EINVAL);
  const int32_t result = Apply(check_only, *record);
  if (record->mode != MODE_DHCP || result != DHCP_NOT_STARTED) return result;
  IfInfo fallback = *record;
  fallback.mode = MODE_STATIC;
  return Apply(check_only, fallback);
}

int32_t libbh_SetIfconfig(const char *interface, const char *address, const char *netmask) {
  if (interface == nullptr || address == nullptr) return libbh_SysError(EINVAL);
  if (netmask == nullptr) return RunShell(FormatText("ifconfig %s %s", interface, address));
  return RunShell(FormatText("ifconfig %s %s netmask %s", interface, address, netmask));
}
