// main() of the test programs whose subject expects an appliance around it: boots a board and runs
// this program on it once more, with the shim preloaded. Listing the tests needs no board.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "board/board.h"

namespace {

int RunOnBoard(const std::vector<std::string> &arguments) {
  std::string why;
  std::optional<board::Board> board;
  if (board::EnterLab(&why)) board = board::Boot({}, &why);
  if (!board) {
    std::fprintf(stderr, "%s: %s\n", arguments[0].c_str(), why.c_str());
    return 1;
  }
  board::Command command;
  command.argv = arguments;
  command.argv[0] = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string here = std::filesystem::current_path().string();
  if (board::Exists(*board, here)) command.directory = here;
  const board::Result result = board::Wait(board::Spawn(*board, command));
  if (result.exit_code >= 0) return result.exit_code;
  std::fprintf(stderr, "%s: killed by signal %d\n", arguments[0].c_str(), result.signal);
  return 128 + result.signal;
}

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
  const bool on_board = access("/run/board-clock", F_OK) == 0;
  if (!listing && !on_board) return RunOnBoard(arguments);
  testing::InitGoogleTest(&argc, argv);
  std::atexit(EndBeforeItsTime);
  const int result = RUN_ALL_TESTS();
  running = 0;
  return result;
}
