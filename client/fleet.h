// One task on many appliances at once.

#ifndef BH_CLIENT_FLEET_H_
#define BH_CLIENT_FLEET_H_

#include <cstddef>
#include <functional>
#include <optional>

namespace acp {

struct FleetLimits {
  size_t parallel = 8;               // tasks at once, at least 1
  std::optional<size_t> stop_after;  // failures; then no further task starts
  int cancel = -1;                   // like Scope::cancel: no further task starts
};

// Runs task(0) to task(count - 1) in threads of its own. A task returns whether it succeeded.
// Returns how many were started: always the first ones.
size_t RunFleet(size_t count, const FleetLimits &limits, const std::function<bool(size_t)> &task);

}  // namespace acp

#endif  // BH_CLIENT_FLEET_H_
