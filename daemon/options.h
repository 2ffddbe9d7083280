// The daemon's command line.

#ifndef BH_DAEMON_OPTIONS_H_
#define BH_DAEMON_OPTIONS_H_

#include <cstdint>

constexpr unsigned VERSION_MAJOR = 2;
constexpr unsigned VERSION_MINOR = 37;
constexpr uint16_t DAEMON_VERSION = VERSION_MAJOR << 8 | VERSION_MINOR;  // as clients are told

enum class OptionAction { SERVE, USAGE, VERSION, TERMINATE };

struct Options {
  OptionAction action = OptionAction::SERVE;
  const char *terminate_name = nullptr;  // interface of the instance to stop, within argv
};

// Reads the options in their order. Modes, interface name and trace file take effect at once in
// daemon_state; an option that ends the program ends the reading.
Options ParseOptions(int argc, char **argv);

void usage();
void PrintVersion();

#endif  // BH_DAEMON_OPTIONS_H_
