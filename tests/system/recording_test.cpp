// Plays tests/wire_recording.txt to the daemon: every request is answered by the bytes that stand
// there, on a processor of either byte order.

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tests/system/fixture.h"

namespace {

constexpr int ANY = -1;

struct Row {
  char kind = ' ';  // '$', '>' or '<'
  int line = 0;
  std::string text;
};

std::vector<Row> ReadRows() {
  std::vector<Row> rows;
  std::ifstream file(WIRE_RECORDING);
  int line = 0;
  for (std::string text; std::getline(file, text);) {
    ++line;
    const char kind = text.empty() ? '#' : text[0];
    if (kind == '#') continue;
    if (kind == ' ')
      rows.back().text += text;
    else
      rows.push_back({kind, line, text.substr(1)});
  }
  return rows;
}

// "20 00x3 ??": bytes as hexadecimal digits, one repeated, and one that may be any.
std::vector<int> Pattern(const std::string &text) {
  std::vector<int> pattern;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const size_t sign = word.find('x');
    const int times = sign == word.npos ? 1 : std::stoi(word.substr(sign + 1));
    for (int i = 0; i < times; ++i)
      for (size_t at = 0; at < std::min(sign, word.size()); at += 2)
        pattern.push_back(word[at] == '?' ? ANY : std::stoi(word.substr(at, 2), nullptr, 16));
  }
  return pattern;
}

bool Matches(const wire::Bytes &bytes, const std::vector<int> &pattern) {
  return std::equal(bytes.begin(), bytes.end(), pattern.begin(), pattern.end(),
                    [](uint8_t byte, int wanted) { return wanted == ANY || wanted == byte; });
}

}  // namespace

class Recording : public SystemTest {};

TEST_F(Recording, IsAnsweredByteByByte) {
  StartDaemon();
  const std::vector<Row> rows = ReadRows();
  ASSERT_GT(rows.size(), 40U);
  for (const Row &row : rows) {
    if (row.kind == '$') {
      EXPECT_EQ(OnBoard({"/bin/sh", "-c", row.text}).exit_code, 0) << "line " << row.line;
      continue;
    }
    const std::vector<int> pattern = Pattern(row.text);
    if (row.kind == '>') {
      wire::Send(client, {pattern.begin(), pattern.end()});
      continue;
    }
    const wire::Bytes reply = wire::Receive(client).value_or(wire::Bytes{});
    ASSERT_TRUE(Matches(reply, pattern))
        << "line " << row.line << ": " << testing::PrintToString(reply);
  }
  EXPECT_FALSE(wire::Receive(client, wire::milliseconds(100))) << "a reply too many";
}
