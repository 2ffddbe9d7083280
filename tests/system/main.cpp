// System tests run at the client's end of the wire, in a network namespace of their own.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "board/board.h"

int main(int argc, char **argv) {
  testing::InitGoogleTest(&argc, argv);
  // The user's own inventory and targets are none of the tests'.
  setenv("XDG_CONFIG_HOME", "/nonexistent", 1);
  for (const char *name : {"BHCTL_TO", "BHCTL_INTERFACE", "BHCTL_PASSWORD", "BHCTL_PASS_PHRASE"})
    unsetenv(name);
  std::string why;
  if (!testing::GTEST_FLAG(list_tests) && !board::EnterNamespaces(why)) {
    fprintf(stderr, "%s\n", why.c_str());
    return 1;
  }
  return RUN_ALL_TESTS();
}
