// The program `benchmarks`: boards are booted in namespaces of its own. What is named like another
// and ends in /bare is that one's baseline.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <string>

#include "board/board.h"

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  std::string why;
  if (!board::EnterNamespaces(why)) {
    fprintf(stderr, "%s\n", why.c_str());
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
}
