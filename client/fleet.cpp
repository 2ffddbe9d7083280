#include "client/fleet.h"

#include <algorithm>
#include <mutex>
#include <thread>
#include <vector>

#include "client/exchange.h"

namespace acp {
namespace {

// What the threads share.
struct Queue {
  std::mutex mutex;
  size_t started = 0;
  size_t failed = 0;
};

// The number of the next task, or nullopt when none may start.
std::optional<size_t> NextTask(Queue &queue, size_t count, const FleetLimits &limits) {
  const std::lock_guard lock(queue.mutex);
  const bool stopped = limits.stop_after && queue.failed >= *limits.stop_after;
  if (stopped || queue.started == count || IsCancelled(limits.cancel)) return std::nullopt;
  return queue.started++;
}

void Work(Queue &queue, size_t count, const FleetLimits &limits,
          const std::function<bool(size_t)> &task) {
  while (const std::optional<size_t> number = NextTask(queue, count, limits)) {
    if (task(*number)) continue;
    const std::lock_guard lock(queue.mutex);
    ++queue.failed;
  }
}

}  // namespace

size_t RunFleet(size_t count, const FleetLimits &limits, const std::function<bool(size_t)> &task) {
  Queue queue;
  std::vector<std::thread> threads;
  const size_t workers = std::min(count, std::max<size_t>(limits.parallel, 1));
  for (size_t i = 0; i < workers; ++i)
    threads.emplace_back([&] { Work(queue, count, limits, task); });
  for (std::thread &thread : threads)
    thread.join();
  return queue.started;
}

}  // namespace acp
