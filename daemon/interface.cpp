// Asks the kernel about the served interface.

#include "daemon/interface.h"

#include <net/if.h>
#include <sys/ioctl.h>

#include <cstring>

#include "daemon/state.h"

in_addr_t InterfaceAddress(int socket, in_addr_t otherwise) {
  struct ifreq request = {};
  CopyInterfaceName(request.ifr_name, sizeof(request.ifr_name));
  if (ioctl(socket, SIOCGIFADDR, &request) != 0) return otherwise;
  struct sockaddr_in address = {};
  memcpy(&address, &request.ifr_addr, sizeof(address));
  return address.sin_addr.s_addr;
}

void CopyInterfaceName(char *field, size_t size) {
  daemon_state.ifname.copy(field, size - 1);
  field[size - 1] = '\0';
}
