// What refusals can mean.

#ifndef BH_CLIENT_HINTS_H_
#define BH_CLIENT_HINTS_H_

#include <cstdint>
#include <span>
#include <string>

namespace acp {

struct Hint {
  uint32_t state;
  const char *text;
};

// For a request without an answer that must not be repeated.
constexpr const char *MAYBE_DONE = "the appliance may have carried out the request anyway";

// Hints for ACP_STATE_NO_KEY, and for ACP_STATE_BAD_PRODUCT where few products have the command.
constexpr const char *KEY_EXPIRED = "the key for this machine has expired; try again";
constexpr const char *OTHER_PRODUCTS = "only products 0x2001 and 0x2002 support this";

// Returns an empty string for a state without a hint.
std::string HintFor(std::span<const Hint> hints, uint32_t state);

}  // namespace acp

#endif  // BH_CLIENT_HINTS_H_
