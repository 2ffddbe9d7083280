// Addresses are copied between the two shapes of record, never seen through a cast pointer.

#include "lib/dev_ctl/socket.h"

#include <sys/socket.h>

#include <cstring>

#include "lib/text.h"

static_assert(sizeof(sockaddr) == sizeof(sockaddr_in));

Descriptor OpenInetSocket() {
  return Descriptor(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

ifreq RequestFor(const char *name) {
  ifreq request = {};
  CopyToField(request.ifr_name, sizeof(request.ifr_name), name);
  return request;
}

sockaddr_in ToInet(const sockaddr &address) {
  sockaddr_in inet = {};
  memcpy(&inet, &address, sizeof(inet));
  return inet;
}

sockaddr FromInet(const sockaddr_in &address) {
  sockaddr any = {};
  memcpy(&any, &address, sizeof(any));
  return any;
}
