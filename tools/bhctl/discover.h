// The discover command: which appliances there are, once or again and again.

#ifndef BH_TOOLS_BHCTL_DISCOVER_H_
#define BH_TOOLS_BHCTL_DISCOVER_H_

#include <vector>

#include "tools/bhctl/client.h"

namespace bhctl {

// Since the round before.
enum class Change { NONE, NEW, GONE, MOVED };  // moved: to another address or host name

struct Sighting {
  Mac mac = {};        // that the appliance answers with
  uint32_t state = 0;  // AcpState
  DiscoverInfo info = {};
  Change change = Change::NONE;
};

// The answers by address; each counts as unchanged.
std::vector<Sighting> Sightings(const std::vector<Answer> &answers);

// `now` with what changed since `before`, and with what has gone since.
std::vector<Sighting> Compare(const std::vector<Sighting> &before, std::vector<Sighting> now);

// As a table or as JSON, with or without the changes; refusals go to standard error. Returns
// EXIT_REFUSED when there is one, else EXIT_DONE.
int ShowSightings(const std::vector<Sighting> &sightings, bool json, bool with_changes);

// Returns the program's exit status; with argument --watch it does so only when there is no such
// interface at the start, or when no result can be written, and SIGINT ends the program with
// EXIT_DONE.
int Discover(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_DISCOVER_H_
