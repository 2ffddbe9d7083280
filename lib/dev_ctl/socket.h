// The socket and the records with which the kernel is asked about an interface.

#ifndef BH_LIB_DEV_CTL_SOCKET_H_
#define BH_LIB_DEV_CTL_SOCKET_H_

#include <net/if.h>
#include <netinet/in.h>

#include "lib/descriptor.h"

// A datagram socket for interface and route requests; none, with errno, when it cannot be had.
Descriptor OpenInetSocket();

// A request for the interface; for no interface at all when the name is null or too long.
ifreq RequestFor(const char *name);

// The kernel's records hold addresses of any family; these see them as IPv4 ones.
sockaddr_in ToInet(const sockaddr &address);
sockaddr FromInet(const sockaddr_in &address);

#endif  // BH_LIB_DEV_CTL_SOCKET_H_
