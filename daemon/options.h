// The daemon's command line.

#ifndef BH_DAEMON_OPTIONS_H_
#define BH_DAEMON_OPTIONS_H_

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
