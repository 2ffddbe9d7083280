// Takes one upload over TCP into the image segment, in a child of its own, while the daemon goes on
// answering.

#ifndef BH_FIRMWARE_RECEIVER_H_
#define BH_FIRMWARE_RECEIVER_H_

#include <sys/types.h>

#include <cstdint>

// Forks the receiver for an image of `size` bytes, whose segment must be there. Returns its pid
// once it listens, or -1. The child serves one upload and ends with status 0. One that cannot set
// up its server removes the segment and raises SIGUSR1 in the daemon.
pid_t firm_recive(uint32_t size);

// The receiver's server, on port 22936 of the served interface: stores what the first connection to
// deliver anything, or to end, sends until it ends, at most `size` bytes, at `buffer`, and records
// the count. Returns 0, or -1 when the server cannot be set up.
int32_t tcp_recive_serv(uint8_t *buffer, uint32_t size);

// Waits for the end of the receiver `child` while its upload goes on, for two minutes at most; once
// it has waited for an upload, or for more of it, for 10 seconds, it is stopped. A child that has
// been collected before is not waited for.
void AwaitReceiver(pid_t child);

// Tells the receiver `child` to end, if it has not been collected yet; AwaitReceiver collects it.
void StopReceiver(pid_t child);

// Ends and collects the receivers of all update requests but the one of `child`: their uploads have
// no segment any more, but one of them may hold the port.
void StopReceiversBut(pid_t child);

#endif  // BH_FIRMWARE_RECEIVER_H_
