// Reports refused requests: the appliance's state code and a hint.

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

// For a request without an answer.
constexpr const char *MAYBE_DONE = "the appliance may have carried out the request anyway";

// Hints for ACP_STATE_NO_KEY, and for ACP_STATE_BAD_PRODUCT where few products have the command.
constexpr const char *KEY_EXPIRED = "the key for this machine has expired; try again";
constexpr const char *OTHER_PRODUCTS = "only products 0x2001 and 0x2002 support this";

// Returns an empty string for a state without a hint.
std::string HintFor(std::span<const Hint> hints, uint32_t state);

// Prints the state's name, and the hint unless it is empty or the output is JSON. Returns
// EXIT_REFUSED.
int ShowRefusal(const Options &options, const Mac &mac, uint32_t state, const std::string &hint);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_REFUSAL_H_
