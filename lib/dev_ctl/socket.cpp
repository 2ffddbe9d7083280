// Addresses are copied between the two shapes of record, never seen through a cast pointer.

#include "lib/dev_ctl/socket.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "lib/text.h"

static_assert(sizeof(sockaddr) == sizeof(sockaddr_in));

Descriptor::Descriptor(int from) : fd(from) {}

Descriptor::~Descriptor() {
  if (fd >= 0) close(fd);
}

int OpenInetSocket() {
  return socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

ifreq RequestFor(const char *name) {
  ifreq request = {};
  CopyToField(request.ifr_name, sizeof(request.ifr_name), name);
  return request;
}

sockaddr_in SocketAddress(in_addr_t address) {
  sockaddr_in inet = {};
  inet.sin_family = AF_INET;
  inet.sin_addr.s_addr = address;
  return inet;
}

std::string Dotted(in_addr address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof(text));
  return text;
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
