// Output for people and for programs.

#include "tools/bhctl/print.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace bhctl {
namespace {

// The number of UTF-8 characters: continuation bytes do not count.
size_t TextWidth(const std::string &text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
    return (static_cast<uint8_t>(byte) & 0xC0) != 0x80;
  }));
}

}  // namespace

void PrintError(const std::string &message) {
  fprintf(stderr, "bhctl: %s\n", message.c_str());
}

void PrintLine(const std::string &line) {
  printf("%s\n", line.c_str());
}

void PrintTable(const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const auto &row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], TextWidth(row[i]));
  }
  for (const auto &row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - TextWidth(row[i]) + 2, ' ');
    }
    PrintLine(line);
  }
}

void PrintJson(const Json &object) {
  PrintLine(object.dump(-1, ' ', true, Json::error_handler_t::replace));
}

}  // namespace bhctl
