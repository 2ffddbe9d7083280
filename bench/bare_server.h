/* What the bare servers share: the socket they are asked on, and the frame that answers. */

#ifndef BH_BENCH_BARE_SERVER_H_
#define BH_BENCH_BARE_SERVER_H_

#include <stddef.h>

/* A UDP socket bound to the protocol's port; ends the program without one. */
int ListenForRequests(void);

/* Writes the frame to eth0 through a packet socket of its own. */
void SendFrame(const unsigned char *frame, size_t length);

#endif /* BH_BENCH_BARE_SERVER_H_ */
