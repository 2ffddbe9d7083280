// What fuzz targets share: inputs cut into their parts, files for readers to open, and promises.
// They run on a board, and nowhere else: they write files of the appliance.

#ifndef BH_FUZZ_INPUT_H_
#define BH_FUZZ_INPUT_H_

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lib/text.h"

extern "C" __attribute__((used)) inline int LLVMFuzzerInitialize(int *, char ***) {
  if (access("/run/board-clock", F_OK) == 0) return 0;
  fputs("fuzz: targets run on a board: fuzz/run, or boot -- TARGET\n", stderr);
  exit(2);
}

inline std::string_view InputText(const uint8_t *data, size_t size) {
  return {reinterpret_cast<const char *>(data), size};
}

// Takes the first line off the text. Without its newline, and up to a NUL, as C callers have it.
inline std::string TakeLine(std::string_view &text) {
  const size_t end = text.find('\n');
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(end == text.npos ? text.size() : end + 1);
  return std::string(line.substr(0, line.find('\0')));
}

// A broken promise ends the target, like a fault of memory.
inline void Require(bool promise) {
  if (!promise) __builtin_trap();
}

inline void PutFile(const char *path, std::string_view content) {
  FILE *const file = fopen(path, "we");
  Require(file != nullptr && fwrite(content.data(), 1, content.size(), file) == content.size());
  Require(fclose(file) == 0);
}

#endif  // BH_FUZZ_INPUT_H_
