// Formatting and running of command lines.

#include "lib/shell.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/text.h"
#include "lib/wait.h"

std::string FormatText(const char *format, ...) {
  char *text = nullptr;
  va_list arguments;
  va_start(arguments, format);
  const int length = vasprintf(&text, format, arguments);
  va_end(arguments);
  const HeapText release(length < 0 ? nullptr : text);
  return length < 0 ? "" : std::string(text, static_cast<size_t>(length));
}

std::string QuoteForShell(const std::string &text) {
  constexpr const char *PLAIN =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-+=%@:,./";
  if (!text.empty() && text.find_first_not_of(PLAIN) == text.npos) return text;
  std::string quoted = "'";
  for (const char character : text) {
    if (character == '\'')
      quoted += "'\\''";
    else
      quoted += character;
  }
  return quoted + "'";
}

int RunShell(const std::string &command) {
  if (libbh_begin_wait != nullptr) libbh_begin_wait();
  const int status = system(command.c_str());
  if (libbh_end_wait != nullptr) libbh_end_wait();
  return status;
}

std::string FirstOutputLine(const char *command, size_t longest) {
  FILE *output = popen(command, "re");
  if (output == nullptr) return "";
  std::string line(longest + 1, '\0');
  while (fgets(line.data(), static_cast<int>(line.size()), output) == nullptr) {
    line[0] = '\0';
    if (ferror(output) == 0 || errno != EINTR) break;  // a handled signal is no end
    clearerr(output);
  }
  pclose(output);
  line.resize(strlen(line.c_str()));
  return line;
}
