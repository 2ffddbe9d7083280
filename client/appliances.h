// The appliances of the local network, as discovery shows them.

#ifndef BH_CLIENT_APPLIANCES_H_
#define BH_CLIENT_APPLIANCES_H_

#include <vector>

#include "client/exchange.h"

namespace acp {

// Since an earlier round.
enum class Change { NONE, NEW, GONE, MOVED };  // moved: to another address or host name

struct Appliance {
  Answer answer;  // to the discovery
  DiscoverInfo info = {};
  Change change = Change::NONE;
  int silent = 0;  // rounds without an answer
};

// Discovers for the whole timeout of the scope. Done if at least one appliance answers. Sorted by
// address.
Outcome Discover(const Scope &scope, std::vector<Appliance> &appliances);

// Sorted by address; `change` is NONE.
std::vector<Appliance> AppliancesOf(const std::vector<Answer> &answers);

// Rounds that an appliance may be silent before it counts as gone: a round may be lost.
constexpr int MAX_SILENT = 2;

// `now` with each `change` set. Appliances of `before` that do not answer stay until they have been
// silent for more than `max_silent` rounds; then they come a last time, as gone.
std::vector<Appliance> Compare(const std::vector<Appliance> &before, std::vector<Appliance> now,
                               int max_silent);

}  // namespace acp

#endif  // BH_CLIENT_APPLIANCES_H_
