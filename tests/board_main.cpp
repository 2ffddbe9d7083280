// main() of the test programs whose subject expects an appliance around it: runs this program once
// more, on a board, with the shim preloaded. Listing the tests needs no board.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include "board/board.h"

namespace {

// A daemon ends with 0 always, even after a crash in the middle of a test. The tests have succeeded
// only if they tell so at their end.
int RunInChild() {
  int ends[2] = {};
  if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) return 1;
  const pid_t child = fork();
  if (child == 0) {
    const int result = RUN_ALL_TESTS();
    if (result == 0 && write(ends[1], "0", 1) != 1) return 1;
    return result;
  }
  waitpid(child, nullptr, 0);
  char told = '\0';
  return read(ends[0], &told, 1) == 1 ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> arguments(argv, argv + argc);
  const bool listing = std::any_of(arguments.begin(), arguments.end(), [](std::string_view one) {
    return one.starts_with("--gtest_list_tests");
  });
  if (!listing && !board::RunsOnBoard()) return board::RunItself(arguments);
  testing::InitGoogleTest(&argc, argv);
  return RunInChild();
}
