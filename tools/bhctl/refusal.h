// How a refused request is told: the state that the appliance answered, and what may help.

#ifndef BH_TOOLS_BHCTL_REFUSAL_H_
#define BH_TOOLS_BHCTL_REFUSAL_H_

#include <cstdint>
#include <span>
#include <string>

#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"

namespace bhctl {

struct Hint {
  uint32_t state;
  const char *text;
};

// After a request that got no answer.
constexpr const char *MAYBE_DONE = "it may have been done all the same";

// Hints for ACP_STATE_NO_KEY, and for ACP_STATE_BAD_PRODUCT of a command that few products have.
constexpr const char *KEY_EXPIRED = "its key for this machine has expired; try again";
constexpr const char *OTHER_PRODUCTS = "only the products 0x2001 and 0x2002 do that";

// Empty for a state that no hint is for.
std::string HintFor(std::span<const Hint> hints, uint32_t state);

// The state by name, for programs alone or with the hint, unless that is empty, for people. Returns
// EXIT_REFUSED.
int ShowRefusal(const Options &options, const Mac &mac, uint32_t state, const std::string &hint);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_REFUSAL_H_
