// Reports refused requests: the appliance's state code and a hint.

#include "tools/bhctl/refusal.h"

#include <algorithm>
#include <nlohmann/json.hpp>

#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {

std::string HintFor(std::span<const Hint> hints, uint32_t state) {
  const auto found = std::find_if(hints.begin(), hints.end(),
                                  [=](const Hint &hint) { return hint.state == state; });
  return found == hints.end() ? "" : found->text;
}

int ShowRefusal(const Options &options, const Mac &mac, uint32_t state, const std::string &hint) {
  if (options.json) {
    PrintJson({{"mac", MacText(mac)}, {"state", StateName(state)}});
    return EXIT_REFUSED;
  }
  PrintError(MacText(mac) + " refused: " + StateName(state));
  if (!hint.empty()) PrintError(hint);
  return EXIT_REFUSED;
}

}  // namespace bhctl
