// Asks appliances on the local network and collects what they answer.

#ifndef BH_BHCTL_CLIENT_H_
#define BH_BHCTL_CLIENT_H_

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/bhctl/options.h"
#include "tools/bhctl/wire.h"

namespace bhctl {

struct Answer {
  Mac mac = {};           // of the appliance
  Mac src_mac = {};       // that the answered request named as the requester
  std::string interface;  // of this machine, that the request went out on
  uint32_t state = 0;     // AcpState, or a value of the command's own
  std::vector<uint8_t> body;
  std::chrono::microseconds round_trip{0};
};

// Sends the request once on each chosen interface and waits: with options.mac for the one answer,
// else until the answers cease, or the timeout if the request says so. Stores one answer an
// appliance, in the order of arrival. Returns EXIT_DONE when there is one; otherwise says on
// standard error what went wrong and returns EXIT_USAGE or EXIT_NO_ANSWER.
int Ask(const Options &options, const Request &request, std::vector<Answer> *answers);

}  // namespace bhctl

#endif  // BH_BHCTL_CLIENT_H_
