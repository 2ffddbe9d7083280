// The served interface, as the kernel describes it.

#ifndef BH_DAEMON_INTERFACE_H_
#define BH_DAEMON_INTERFACE_H_

#include <netinet/in.h>

// The interface's address; `otherwise` when it has none. Both in network byte order.
in_addr_t InterfaceAddress(int socket, in_addr_t otherwise);

// Copies the interface's name into a field of the kernel's records, cut to fit, with a NUL.
void CopyInterfaceName(char *field, size_t size);

#endif  // BH_DAEMON_INTERFACE_H_
