#include "tools/bhctl/print.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <nlohmann/json.hpp>

#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

thread_local Capture *capture = nullptr;
bool colored = false;
std::function<void()> clear_drawing;

constexpr const char *CODES[] = {"", "\x1B[32m", "\x1B[33m", "\x1B[31m", "\x1B[2m"};  // by Tone
constexpr const char *RESET = "\x1B[0m";

bool SupportsColor() {
  const char *terminal = getenv("TERM");
  const char *no_color = getenv("NO_COLOR");
  if (no_color != nullptr && no_color[0] != '\0') return false;
  return isatty(STDOUT_FILENO) == 1 && terminal != nullptr && strcmp(terminal, "dumb") != 0;
}

// The length of the escape sequence at the start of `text`, as Toned writes it; 0: none.
size_t EscapeLength(std::string_view text) {
  return text.starts_with("\x1B[") ? text.find('m') + 1 : 0;
}

// wcwidth knows nothing in the C locale, and the user's may not be installed.
size_t CharacterWidth(uint32_t code) {
  if (code >= 0x300 && code <= 0x36F) return 0;  // combining
  const bool wide = (code >= 0x1100 && code <= 0x115F) || (code >= 0x2E80 && code <= 0xA4CF) ||
                    (code >= 0xAC00 && code <= 0xD7A3) || (code >= 0xF900 && code <= 0xFAFF) ||
                    (code >= 0xFE30 && code <= 0xFE6F) || (code >= 0xFF00 && code <= 0xFF60) ||
                    (code >= 0xFFE0 && code <= 0xFFE6) || (code >= 0x1F300 && code <= 0x1FAFF) ||
                    (code >= 0x20000 && code <= 0x3FFFD);
  return wide ? 2 : 1;
}

// What is printed must be on the terminal before the next drawing.
void MakeRoom() {
  if (!clear_drawing) return;
  fflush(stdout);
  clear_drawing();
}

}  // namespace

void SetDrawing(const std::function<void()> &clear) {
  const std::lock_guard lock(OutputMutex());
  clear_drawing = clear;
}

std::recursive_mutex &OutputMutex() {
  static std::recursive_mutex mutex;
  return mutex;
}

Capture::Capture() {
  capture = this;
}

Capture::~Capture() {
  capture = nullptr;
}

void PrintError(const std::string &message) {
  if (capture != nullptr) {
    capture->errors += message + "\n";
    return;
  }
  const std::lock_guard lock(OutputMutex());
  MakeRoom();
  fflush(stdout);  // what was printed before comes before, also through a pipe
  fprintf(stderr, "bhctl: %s\n", message.c_str());
}

void PrintLine(const std::string &line) {
  PrintText(line + "\n");
}

void PrintText(const std::string &text) {
  if (capture != nullptr) {
    capture->output += text;
    return;
  }
  const std::lock_guard lock(OutputMutex());
  MakeRoom();
  fwrite(text.data(), 1, text.size(), stdout);
}

size_t TextWidth(const std::string &text) {
  size_t width = 0;
  for (std::string_view rest = text; !rest.empty();) {
    const size_t escape = EscapeLength(rest);
    const CodePoint first = escape == 0 ? FirstCodePoint(rest) : CodePoint{0, escape};
    if (escape == 0) width += CharacterWidth(first.code);
    rest.remove_prefix(std::max<size_t>(first.length, 1));
  }
  return width;
}

std::vector<std::string> TableLines(const std::vector<std::vector<std::string>> &rows) {
  std::vector<size_t> widths;
  for (const auto &row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i)
      widths[i] = std::max(widths[i], TextWidth(row[i]));
  }
  std::vector<std::string> lines;
  for (const auto &row : rows) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line.append(widths[i] - TextWidth(row[i]) + 2, ' ');
    }
    lines.push_back(line);
  }
  return lines;
}

void PrintTable(const std::vector<std::vector<std::string>> &rows) {
  for (const std::string &line : TableLines(rows))
    PrintLine(line);
}

void PrintJson(const Json &object) {
  PrintLine(object.dump(-1, ' ', true, Json::error_handler_t::replace));
}

void ChooseColor(Color color) {
  colored = color == Color::ALWAYS || (color == Color::AUTO && SupportsColor());
}

std::string Toned(const std::string &text, Tone tone) {
  if (!colored || tone == Tone::PLAIN || text.empty()) return text;
  return CODES[static_cast<size_t>(tone)] + text + RESET;
}

}  // namespace bhctl
