// Reading the last key of a large settings file, beside a plain loop that looks at each line.

#include <benchmark/benchmark.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lib/libbh.h"

namespace {

constexpr size_t FILE_SIZE = size_t{100} * 1024;

// A file in memory, which goes with the program.
const char *SettingsPath() {
  static char path[32] = "";
  if (path[0] != '\0') return path;
  const int file = memfd_create("settings", MFD_CLOEXEC);
  std::string text;
  for (int i = 0; text.size() < FILE_SIZE; ++i)
    text += "key" + std::to_string(i) + "=\"value " + std::to_string(i) + "\"\n";
  text += "wg=\"WORKGROUP\"\n";
  snprintf(path, sizeof(path), "/proc/self/fd/%d", file);
  if (file < 0 || write(file, text.data(), text.size()) < 0) perror(path);
  return path;
}

void ReadLines(benchmark::State &state) {
  const char *path = SettingsPath();
  char line[256];
  while (state.KeepRunning()) {
    FILE *file = fopen(path, "r");
    if (file == nullptr) return state.SkipWithError("no file");
    while (fgets(line, sizeof(line), file) != nullptr)
      benchmark::DoNotOptimize(strncmp(line, "wg=", 3));
    fclose(file);
  }
}

void ReadKey(benchmark::State &state) {
  const char *path = SettingsPath();
  while (state.KeepRunning()) {
    char *value = libbh_GetConfigValue(path, "wg");
    if (value == nullptr) state.SkipWithError("the key is not found");
    free(value);
  }
}

BENCHMARK(ReadKey)->Name("settings");
BENCHMARK(ReadLines)->Name("settings/bare");

}  // namespace
