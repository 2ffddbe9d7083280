// Takes one upload over TCP into the image segment. A child does it, so that the daemon goes on
// answering.

#ifndef BH_FIRMWARE_RECEIVER_H_
#define BH_FIRMWARE_RECEIVER_H_

#include <sys/types.h>

#include <cstdint>

// Forks the receiver for an image of `size` bytes, whose segment must exist. Returns its pid once
// it listens, or -1. The child serves one upload and ends with status 0. If it cannot set up its
// server, it removes the segment and raises SIGUSR1 in the daemon.
pid_t firm_recive(uint32_t size);

// The receiver's server, on port 22936 of the served interface: stores what the first connection to
// deliver anything, or to end, sends until it ends, at most `size` bytes, at `buffer`, and records
// the count. Returns 0, or -1 when the server cannot be set up.
int32_t tcp_recive_serv(uint8_t *buffer, uint32_t size);

// Waits until the receiver `child` has ended. A receiver that gets no data for 10 seconds, or is
// not done within two minutes, is stopped. Returns at once for a child that has been collected.
void AwaitReceiver(pid_t child);

// Tells the receiver `child` to end, if it has not been collected yet; AwaitReceiver collects it.
void StopReceiver(pid_t child);

// Ends and collects all receivers but `child`. Their uploads have lost their segment, but one of
// them may hold the port.
void StopReceiversBut(pid_t child);

#endif  // BH_FIRMWARE_RECEIVER_H_
