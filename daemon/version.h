// The daemon's version, which the build gives it: the project's own.

#ifndef BH_DAEMON_VERSION_H_
#define BH_DAEMON_VERSION_H_

#include <cstdint>

constexpr unsigned VERSION_MAJOR = BH_VERSION_MAJOR;
constexpr unsigned VERSION_MINOR = BH_VERSION_MINOR;
constexpr uint16_t DAEMON_VERSION = VERSION_MAJOR << 8 | VERSION_MINOR;  // as clients are told

#endif  // BH_DAEMON_VERSION_H_
