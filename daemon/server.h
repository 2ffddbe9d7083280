// The service socket and the loop that answers one datagram after another.

#ifndef BH_DAEMON_SERVER_H_
#define BH_DAEMON_SERVER_H_

#include <cstdint>

// Prepares the open datagram socket `sock` for interface `ifname` and serves as the mode flags
// say. Returns -1 when the interface is missing or the socket cannot be prepared, otherwise 0 once
// this process is done: in the launcher right after the fork, in the server only when its receive
// loop ended.
int32_t start_server(const char *ifname, int32_t sock);

// Binds `sock` to the ACP port and receives for ever. `if_mac`: 6 bytes, the address replies are
// sent from. Returns 0 only when the bind fails.
int32_t standalone_server(const char *ifname, int32_t sock, const uint8_t *if_mac);

#endif  // BH_DAEMON_SERVER_H_
