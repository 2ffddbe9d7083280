// The socket and the records with which the kernel is asked about an interface.

#ifndef BH_LIB_DEV_CTL_SOCKET_H_
#define BH_LIB_DEV_CTL_SOCKET_H_

#include <net/if.h>
#include <netinet/in.h>

#include <string>

// A descriptor that is closed at the end of its scope.
struct Descriptor {
  int fd;
  explicit Descriptor(int from);
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor();
};

// A datagram socket for interface and route requests; -1 with errno when there is none.
int OpenInetSocket();

// A request for the interface; for no interface at all when the name is null or too long.
ifreq RequestFor(const char *name);

// An IPv4 socket address without port.
sockaddr_in SocketAddress(in_addr_t address);

// An address in dotted form.
std::string Dotted(in_addr address);

// The kernel's records hold addresses of any family; these see them as IPv4 ones.
sockaddr_in ToInet(const sockaddr &address);
sockaddr FromInet(const sockaddr_in &address);

#endif  // BH_LIB_DEV_CTL_SOCKET_H_
