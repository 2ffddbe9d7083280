// Command-line options in one table, and the usage text.

#include "daemon/options.h"

#include <getopt.h>
#include <syslog.h>

#include <cstdio>

#include "daemon/state.h"
#include "daemon/trace.h"
#include "daemon/version.h"

namespace {

// -a has no long form, --nofork and --help have no short one.
constexpr char SHORT_OPTIONS[] = "a:cndi:t:v";
constexpr int OPTION_NOFORK = 0;

const struct option LONG_OPTIONS[] = {
    {"nostandalone", no_argument, nullptr, 'n'},
    {"debug", no_argument, nullptr, 'd'},
    {"nodhcpc", no_argument, nullptr, 'c'},
    {"nofork", no_argument, nullptr, OPTION_NOFORK},
    {"interface", required_argument, nullptr, 'i'},
    {"terminate", required_argument, nullptr, 't'},
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'v'},
    {nullptr, 0, nullptr, 0},
};

void AddMode(uint32_t bit) {
  set_mode_flags(get_mode_flags() | bit);
}

void AssignInterface(const char *name) {
  syslog(LOG_INFO, "assigned intreface %s\n", name);
  daemon_state.ifname = name;
}

}  // namespace

Options ParseOptions(int argc, char **argv) {
  for (;;) {
    switch (getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, nullptr)) {
      case -1:
        return {};
      case 'a':
        open_trace_file(optarg);
        break;
      case 'c':
        break;
      case 'd':
        AddMode(MODE_DEBUG);
        break;
      case 'i':
        AssignInterface(optarg);
        break;
      case 'n':
        AddMode(MODE_NOSTANDALONE);
        break;
      case OPTION_NOFORK:
        AddMode(MODE_NOFORK);
        break;
      case 't':
        return {OptionAction::TERMINATE, optarg};
      case 'v':
        return {OptionAction::VERSION, nullptr};
      default:
        return {OptionAction::USAGE, nullptr};
    }
  }
}

void usage() {
  static const char *const lines[] = {
      "Usage: ",
      " --interface or -i <device name> ",
      " --debug or -d                   : running at debug mode ",
      " --nofork                        : running by foreground ",
      " --nodhcpc                       : can't set dhcpc ",
      " --terminate or -t <device name> ",
      " --nostandalone or -n            : call from super daemon (inetd)",
      " --help or -h                    : this usage",
  };
  for (const char *line : lines)
    puts(line);
}

void PrintVersion() {
  printf("bh_servd version %u.%02u\n", VERSION_MAJOR, VERSION_MINOR);
}
