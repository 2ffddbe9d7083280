// The set command: changes an appliance's network settings, names and clock in one request.

#ifndef BH_TOOLS_BHCTL_SET_H_
#define BH_TOOLS_BHCTL_SET_H_

#include <cstdint>
#include <optional>
#include <string>

#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"
#include "tools/bhctl/text.h"

namespace bhctl {

// Arguments --ip, --netmask, --dhcp, --hostname, --workgroup, --time, --gateway, --timezone and
// --initialised. Returns the program's exit status.
int Set(const Options &options);

// The settings to change.
struct Settings {
  std::optional<uint32_t> address;  // needs a netmask; with `dhcp`, the fallback
  uint32_t netmask = 0;
  bool dhcp = false;
  std::string host_name;  // empty: unchanged
  std::string workgroup;
  std::optional<DateTime> time;  // local
  bool now = false;              // use this machine's time
  std::optional<uint32_t> gateway;
  std::optional<int32_t> timezone;  // UTC minus local time, in minutes
  bool initialised = false;
};

Request MakeChangeRequest(const Settings &settings);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_SET_H_
