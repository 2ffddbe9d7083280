// IPv4 addresses. An `in_addr` is in network byte order; an address that stands as a number, as in
// packets, has the first octet of the dotted form in its most significant byte.

#ifndef BH_LIB_ADDRESS_H_
#define BH_LIB_ADDRESS_H_

#include <netinet/in.h>

#include <cstdint>
#include <string>

in_addr AddressOf(uint32_t number);

std::string Dotted(in_addr address);

// An IPv4 socket address without port.
sockaddr_in SocketAddress(in_addr address);

#endif  // BH_LIB_ADDRESS_H_
