// The discover command: lists the appliances, once or repeatedly.

#ifndef BH_TOOLS_BHCTL_DISCOVER_H_
#define BH_TOOLS_BHCTL_DISCOVER_H_

#include <vector>

#include "tools/bhctl/client.h"

namespace bhctl {

// Since the previous round.
enum class Change { NONE, NEW, GONE, MOVED };  // moved: to another address or host name

struct Appliance {
  Mac mac = {};        // of the interface that answered
  uint32_t state = 0;  // AcpState
  DiscoverInfo info = {};
  Change change = Change::NONE;
};

// Sorted by address; `change` is NONE.
std::vector<Appliance> AppliancesOf(const std::vector<Answer> &answers);

// `now` with each `change` set, and with the appliances that are gone since `before`.
std::vector<Appliance> Compare(const std::vector<Appliance> &before, std::vector<Appliance> now);

// Prints a table or JSON; refusals go to standard error. Returns EXIT_REFUSED if there is a
// refusal, else EXIT_DONE.
int ShowAppliances(const std::vector<Appliance> &appliances, bool json, bool with_changes);

// Returns the program's exit status. With argument --watch it repeats, and returns only if the
// interface does not exist at the start or if output fails; SIGINT ends the program with EXIT_DONE.
int Discover(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_DISCOVER_H_
