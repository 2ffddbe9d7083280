#include "client/hints.h"

#include <algorithm>

namespace acp {

std::string HintFor(std::span<const Hint> hints, uint32_t state) {
  const auto found = std::find_if(hints.begin(), hints.end(),
                                  [=](const Hint &hint) { return hint.state == state; });
  return found == hints.end() ? "" : found->text;
}

}  // namespace acp
