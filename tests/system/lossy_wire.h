// A bad network: it loses, delays, doubles and reorders the frames between a client and its boards.

#ifndef BH_TESTS_SYSTEM_LOSSY_WIRE_H_
#define BH_TESTS_SYSTEM_LOSSY_WIRE_H_

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>

struct Weather {
  int loss = 0;        // percent of the frames of each direction
  int duplicates = 0;  // percent
  std::chrono::milliseconds delay{0};
  std::chrono::milliseconds jitter{0};  // more delay, up to this; frames overtake each other
  uint16_t lost_command = 0;            // all datagrams with this command code are lost
};

struct LossyWire {
  std::string interface;  // the client's
  pid_t process = -1;     // that carries the frames
};

// Puts the network before `wire`, the client's end of a board's wire or of a bridge, and moves the
// client's address to the new end.
LossyWire MakeLossy(const std::string &wire, const std::string &address, const Weather &weather);

void Remove(LossyWire &lossy);

#endif  // BH_TESTS_SYSTEM_LOSSY_WIRE_H_
