// The DHCP client is an external program: it runs while its pid file exists, and leaves its lease
// in a file of lines, each a key, one separator character and a value.

#include "lib/dev_ctl/dhcp.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr size_t MAX_INTERFACE_NAME = 15;
constexpr size_t MAX_LEASE_LINE = 1023;
constexpr size_t MAX_DOMAIN = 64;

constexpr int32_t DHCPS_OFF = 0;
constexpr int32_t DHCPS_ON = 1;

void ReadAddress(const std::string &text, sockaddr_in &address) {
  libbh_ParseDottedQuad(text.c_str(), &address.sin_addr);
}

// One or two servers; a comma ends the first, and the second.
void ReadServers(const std::string &text, DhcpLease &lease) {
  const size_t comma = text.find(',');
  ReadAddress(text.substr(0, comma), lease.dns1);
  if (comma == text.npos) return;
  const size_t second = comma + 1;
  ReadAddress(text.substr(second, text.find(',', second) - second), lease.dns2);
}

void ReadDomain(std::string text, DhcpLease &lease) {
  text = WithoutNewline(std::move(text)).substr(0, MAX_DOMAIN);
  CopyToField(lease.domain, sizeof(lease.domain), text.c_str());
}

// The keys in the order in which a line is searched for them.
enum class LeaseKey { GET_TIME, LEASE_TIME, GATEWAY, SERVER, DNS, DOMAIN };
struct LeaseLine {
  const char *key;
  LeaseKey meaning;
};
constexpr LeaseLine LEASE_LINES[] = {
    {"GETTIME", LeaseKey::GET_TIME}, {"LEASETIME", LeaseKey::LEASE_TIME},
    {"GATEWAY", LeaseKey::GATEWAY},  {"DHCPSID", LeaseKey::SERVER},
    {"DNS", LeaseKey::DNS},          {"DOMAIN", LeaseKey::DOMAIN},
};

void StoreValue(LeaseKey key, const std::string &value, DhcpLease &lease) {
  switch (key) {
    case LeaseKey::GET_TIME:
      lease.get_time = ToNumber(value.c_str());
      break;
    case LeaseKey::LEASE_TIME:
      lease.lease_time = ToNumber(value.c_str());
      break;
    case LeaseKey::GATEWAY:
      ReadAddress(value, lease.gateway);
      break;
    case LeaseKey::SERVER:
      ReadAddress(value, lease.server_id);
      break;
    case LeaseKey::DNS:
      ReadServers(value, lease);
      break;
    case LeaseKey::DOMAIN:
      ReadDomain(value, lease);
      break;
  }
}

// The value begins behind the key and its separator; a line that ends before has an empty one.
void ReadLeaseLine(std::string_view line, DhcpLease &lease) {
  for (const LeaseLine &wanted : LEASE_LINES) {
    const size_t start = line.find(wanted.key);
    if (start == line.npos) continue;
    const size_t value = std::min(start + strlen(wanted.key) + 1, line.size());
    StoreValue(wanted.meaning, std::string(line.substr(value)), lease);
    return;
  }
}

}  // namespace

void RunDhcpStart(const char *interface) {
  RunShell(FormatText("/sbin/dhcpcd -D -t 10  %s -n > /dev/null", interface));
}

void RunDhcpStop(const char *interface) {
  RunShell(FormatText("/sbin/dhcpcd -D -t 10 %s -k >/dev/null", interface));
}

int32_t libbh_IsDhcpcdRunning(const char *interface) {
  if (interface == nullptr) return -1;
  return FileExists(FormatText("/var/run/dhcpcd-%s.pid", interface).c_str()) ? 0 : -1;
}

int32_t libbh_StopDhcpClient(const char *interface) {
  if (interface == nullptr || interface[0] == '\0') return -1;
  if (strlen(interface) > MAX_INTERFACE_NAME) return -1;
  if (libbh_IsDhcpcdRunning(interface) != 0) return DHCP_NOT_RUNNING;
  RunDhcpStop(interface);
  return 0;
}

int32_t libbh_GetDHCPServerMode() {
  return FileExists("/var/run/dhcpd.pid") ? DHCPS_ON : DHCPS_OFF;
}

int32_t libbh_SetDHCPServerMode(int32_t, int32_t, const IfInfo *) {
  return NO_DHCP_SERVER_SETUP;
}

int32_t libbh_ReadDhcpLease(const char *interface, DhcpLease *lease) {
  if (lease == nullptr) return libbh_SysError(EINVAL);
  *lease = {};
  if (interface == nullptr) return libbh_SysError(EINVAL);
  std::string content;
  const std::string path = FormatText("/etc/dhcpc/dhcpcd-%s.info", interface);
  const int error = ReadTextFile(path.c_str(), content);
  if (error != 0) return libbh_SysError(error);
  std::string_view rest = content;
  while (!rest.empty())
    ReadLeaseLine(UpToNul(NextChunk(rest, MAX_LEASE_LINE)), *lease);
  return 0;
}

int32_t libbh_ParseDottedQuad(const char *text, in_addr *address) {
  constexpr uint32_t MAX_OCTET = 255;
  if (address == nullptr) return -1;
  address->s_addr = 0;
  if (text == nullptr) return -1;
  uint32_t number = 0;
  uint32_t octet = 0;
  int dots = 0;
  char last = '.';  // no dot may come first
  for (; *text != '\0' && *text != '\n'; last = *text++) {
    if (*text >= '0' && *text <= '9') {
      octet = octet * 10 + static_cast<uint32_t>(*text - '0');
      if (octet > MAX_OCTET) return -1;
    } else {
      if (*text != '.' || last == '.' || ++dots > 3) return -1;
      number = number << 8 | octet;
      octet = 0;
    }
  }
  if (dots != 3 || last == '.') return -1;
  address->s_addr = htonl(number << 8 | octet);
  return 0;
}
