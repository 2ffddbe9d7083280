// Sends requests to appliances on the local network and collects their answers.

#ifndef BH_CLIENT_EXCHANGE_H_
#define BH_CLIENT_EXCHANGE_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "client/datagram.h"
#include "client/outcome.h"
#include "lib/descriptor.h"

namespace acp {

// Where requests go, and how long answers may take.
struct Scope {
  std::string interface;       // empty: every interface with an IPv4 address
  std::optional<Mac> mac;      // unset: every appliance
  std::optional<Mac> src_mac;  // requester's address; unset: the interface's own
  std::chrono::microseconds timeout{std::chrono::seconds(2)};
  // A descriptor. When it becomes readable, the call ends with Result::CANCELLED. -1: none.
  int cancel = -1;
  // Gets what went wrong without ending the call; may be empty.
  std::function<void(const std::string &)> warn = {};
};

struct Answer {
  Mac mac = {};           // of the appliance
  Mac src_mac = {};       // requester's address in the request
  std::string interface;  // that sent the request
  uint32_t state = 0;     // AcpState, or a value specific to the command
  std::vector<uint8_t> body;
  std::chrono::microseconds round_trip{0};
  uint16_t command = 0;  // tells the two replies of one request apart
};

// Sends the request on each chosen interface; repeats a repeatable one until the answer comes. With
// scope.mac, waits for that appliance's answer. Otherwise waits until no more answers arrive, or
// for the whole timeout if the request says so. Stores one answer per appliance, in order of
// arrival. Done if there is an answer.
Outcome Ask(const Scope &scope, const Request &request, std::vector<Answer> &answers);

// The same for a single answer. scope.mac must be set.
Outcome AskOne(const Scope &scope, const Request &request, Answer &answer);

struct Interface {
  std::string name;
  int index = 0;
  unsigned int flags = 0;           // IFF_*
  Mac mac = {};                     // requester's address in requests
  std::vector<uint32_t> addresses;  // IPv4, most significant byte first
  std::vector<uint32_t> netmasks;   // of the addresses
};

// Every Ethernet interface of this machine.
std::vector<Interface> ListInterfaces();

// A request that was sent, and the socket that receives its replies.
struct Exchange {
  Descriptor socket;
  Request request;
  std::vector<Interface> asked;  // that sent the request
  std::optional<Mac> wanted;     // unset: any appliance
  int cancel = -1;
  std::chrono::steady_clock::time_point sent;
};

// Sends the request like Ask, once.
Outcome Begin(const Scope &scope, const Request &request, Exchange &exchange);

// Waits for the next reply. Returns nullopt after `timeout`, or when the exchange is cancelled.
std::optional<Answer> Await(const Exchange &exchange, std::chrono::microseconds timeout);

// Whether the descriptor is readable; false for -1.
bool IsCancelled(int cancel);

// Waits until `timeout` is over or the descriptor is readable.
void Pause(int cancel, std::chrono::microseconds timeout);

Outcome Cancelled();

// What may keep answers from arriving: reverse-path filtering, or the wrong interface. Empty if
// nothing is known.
std::string NoAnswerHint(const Scope &scope);

}  // namespace acp

#endif  // BH_CLIENT_EXCHANGE_H_
