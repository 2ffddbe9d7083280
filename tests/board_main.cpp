// main() of the test programs whose subject expects an appliance around it: runs this program once
// more, on a board, with the shim preloaded. Listing the tests needs no board.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "board/board.h"

namespace {

// The process that runs the tests; 0 once they have.
pid_t running = getpid();

// A daemon that ends in the middle of a test, with 0 as always, must not pass for its success.
void EndBeforeItsTime() {
  if (running == getpid()) _exit(1);
}

}  // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> arguments(argv, argv + argc);
  const bool listing = std::any_of(arguments.begin(), arguments.end(), [](std::string_view one) {
    return one.starts_with("--gtest_list_tests");
  });
  if (!listing && !board::RunsOnBoard()) return board::RunItself(arguments);
  testing::InitGoogleTest(&argc, argv);
  std::atexit(EndBeforeItsTime);
  const int result = RUN_ALL_TESTS();
  running = 0;
  return result;
}
