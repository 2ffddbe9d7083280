// Formatting and running of command lines.

#include "lib/shell.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lib/descriptor.h"
#include "lib/hooks.h"
#include "lib/text.h"

namespace {

void BeginWait() {
  if (libbh_begin_wait != nullptr) libbh_begin_wait();
}

void EndWait() {
  if (libbh_end_wait != nullptr) libbh_end_wait();
}

// Starts the command line in a shell that prints into the pipe. None of the caller's signal
// handlers runs in the child, as it could behind a fork. Its pid, or -1.
pid_t StartShell(const char *command, int pipe) {
  posix_spawn_file_actions_t redirection = {};
  if (posix_spawn_file_actions_init(&redirection) != 0) return -1;
  std::string shell[] = {"sh", "-c", command};
  char *const arguments[] = {shell[0].data(), shell[1].data(), shell[2].data(), nullptr};
  pid_t child = -1;
  const bool started =
      posix_spawn_file_actions_adddup2(&redirection, pipe, STDOUT_FILENO) == 0 &&
      posix_spawn(&child, "/bin/sh", &redirection, nullptr, arguments, environ) == 0;
  posix_spawn_file_actions_destroy(&redirection);
  return started ? child : -1;
}

// Reads the first line, with its newline; of a longer one the first `longest` characters. A program
// that ends in the wait for it leaves neither stdio nor popen half done.
std::string ReadLine(int pipe, size_t longest) {
  std::string text(longest, '\0');
  size_t length = 0;
  while (length < longest && text.find('\n') == text.npos) {
    BeginWait();
    const ssize_t got = read(pipe, text.data() + length, longest - length);
    EndWait();
    if (got < 0 && errno == EINTR) continue;  // a handled signal is no end
    if (got <= 0) break;
    length += static_cast<size_t>(got);
  }
  text.resize(length);
  std::string_view rest = text;
  return std::string(UpToNul(NextChunk(rest, longest)));
}

void AwaitChild(pid_t child) {
  pid_t ended = -1;
  do {
    BeginWait();
    ended = waitpid(child, nullptr, 0);
    EndWait();
  } while (ended < 0 && errno == EINTR);
}

}  // namespace

std::string FormatText(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = vsnprintf(nullptr, 0, format, arguments);
  // Without memory this ends here: an empty command would pass for one that has been run.
  std::string text(static_cast<size_t>(std::max(length, 0)), '\0');
  vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  va_end(arguments);
  return text;
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
  BeginWait();
  const int status = system(command.c_str());
  EndWait();
  return status;
}

std::string FirstOutputLine(const char *command, size_t longest) {
  Pipe pipe;
  if (!OpenPipe(pipe)) return "";
  const pid_t child = StartShell(command, pipe.writer.Get());
  pipe.writer.Close();
  std::string line = child > 0 ? ReadLine(pipe.reader.Get(), longest) : "";
  pipe.reader.Close();  // a command that prints more ends by it
  if (child > 0) AwaitChild(child);
  return line;
}
