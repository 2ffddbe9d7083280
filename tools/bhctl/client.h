// Asks appliances on the local network and collects what they answer.

#ifndef BH_TOOLS_BHCTL_CLIENT_H_
#define BH_TOOLS_BHCTL_CLIENT_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "lib/descriptor.h"
#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"

namespace bhctl {

struct Answer {
  Mac mac = {};           // of the appliance
  Mac src_mac = {};       // that the answered request named as the requester
  std::string interface;  // of this machine, that the request went out on
  uint32_t state = 0;     // AcpState, or a value of the command's own
  std::vector<uint8_t> body;
  std::chrono::microseconds round_trip{0};
  uint16_t command = 0;  // which of the replies it is, to a request that gets two
};

// Sends the request once on each chosen interface and waits: with options.mac for the one answer,
// else until the answers cease, or the timeout if the request says so. Stores one answer an
// appliance, in the order of arrival. Returns EXIT_DONE when there is one; otherwise says on
// standard error what went wrong and returns EXIT_USAGE or EXIT_NO_ANSWER.
int Ask(const Options &options, const Request &request, std::vector<Answer> &answers);

// The same for the one answer of options.mac, which must be set.
int AskOne(const Options &options, const Request &request, Answer &answer);

struct Interface {
  std::string name;
  int index = 0;
  unsigned int flags = 0;  // IFF_*
  Mac mac = {};            // that requests name as the requester
  bool has_ipv4 = false;
};

// A request that is on its way, and the socket that its replies come in on.
struct Exchange {
  Descriptor socket;
  Request request;
  std::vector<Interface> asked;  // that it went out on
  std::optional<Mac> wanted;     // unset: whoever answers
  std::chrono::steady_clock::time_point sent;
};

// Sends the request like Ask. Returns EXIT_DONE, or says what went wrong and returns another
// ExitStatus.
int Begin(const Options &options, const Request &request, Exchange &exchange);

// Waits for the next reply. Nothing after `timeout`, or once there is something to read from
// `interrupt`.
std::optional<Answer> Await(const Exchange &exchange, std::chrono::microseconds timeout,
                            const Descriptor &interrupt);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_CLIENT_H_
