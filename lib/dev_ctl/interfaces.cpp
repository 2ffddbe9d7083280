// Network interfaces as the kernel reports them.

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "lib/libbh.h"

namespace {

constexpr size_t MAC_BYTES = 6;

}  // namespace

int32_t libbh_GetMacAddress(const char *name, uint8_t *mac_out) {
  if (mac_out == nullptr) return 0;
  memset(mac_out, 0, MAC_BYTES);
  ifreq request = {};
  if (name == nullptr || strlen(name) >= sizeof(request.ifr_name)) return 0;
  memcpy(request.ifr_name, name, strlen(name));
  const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock < 0) return 0;
  if (ioctl(sock, SIOCGIFHWADDR, &request) == 0)
    memcpy(mac_out, request.ifr_hwaddr.sa_data, MAC_BYTES);
  close(sock);
  return 0;
}
