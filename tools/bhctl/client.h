// Sends requests to appliances on the local network and collects their answers.

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
  Mac src_mac = {};       // requester's address in the request
  std::string interface;  // that sent the request
  uint32_t state = 0;     // AcpState, or a value specific to the command
  std::vector<uint8_t> body;
  std::chrono::microseconds round_trip{0};
  uint16_t command = 0;  // tells the two replies of one request apart
};

// Sends the request once on each chosen interface. With options.mac, waits for that appliance's
// answer. Otherwise waits until no more answers arrive, or for the whole timeout if the request
// says so. Stores one answer per appliance, in order of arrival. Returns EXIT_DONE if there is an
// answer. Otherwise prints an error and returns EXIT_USAGE or EXIT_NO_ANSWER.
int Ask(const Options &options, const Request &request, std::vector<Answer> &answers);

// The same for a single answer. options.mac must be set.
int AskOne(const Options &options, const Request &request, Answer &answer);

struct Interface {
  std::string name;
  int index = 0;
  unsigned int flags = 0;  // IFF_*
  Mac mac = {};            // requester's address in requests
  bool has_ipv4 = false;
};

// A request that was sent, and the socket that receives its replies.
struct Exchange {
  Descriptor socket;
  Request request;
  std::vector<Interface> asked;  // that sent the request
  std::optional<Mac> wanted;     // unset: any appliance
  std::chrono::steady_clock::time_point sent;
};

// Sends the request like Ask. Returns EXIT_DONE, or prints an error and returns another ExitStatus.
int Begin(const Options &options, const Request &request, Exchange &exchange);

// Waits for the next reply. Returns nullopt after `timeout`, or when `interrupt` becomes readable.
std::optional<Answer> Await(const Exchange &exchange, std::chrono::microseconds timeout,
                            const Descriptor &interrupt);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_CLIENT_H_
