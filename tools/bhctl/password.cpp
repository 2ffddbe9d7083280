// The line is read byte by byte: what follows it on standard input is not this program's.

#include "tools/bhctl/password.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/bhctl/interrupt.h"
#include "tools/bhctl/print.h"

namespace bhctl {
namespace {

constexpr size_t LONGEST_LINE = 4096;  // bytes; no password is that long

// Without its line feed. False when not even an empty line is there.
bool ReadLine(std::string *line) {
  char byte = 0;
  bool any = false;
  while (line->size() <= LONGEST_LINE) {
    const ssize_t got = read(STDIN_FILENO, &byte, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    any = true;
    if (byte == '\n') break;
    *line += byte;
  }
  return any;
}

// An interrupt ends the program only when the terminal is as it was before.
bool ReadWithoutEcho(std::string *line) {
  termios before = {};
  if (tcgetattr(STDIN_FILENO, &before) != 0) return false;
  const Descriptor interrupt = HoldInterrupts();
  termios silent = before;
  silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  std::fputs("Password: ", stderr);
  pollfd watched[] = {{STDIN_FILENO, POLLIN, 0}, {interrupt.fd, POLLIN, 0}};
  while (poll(watched, 2, -1) < 0 && errno == EINTR)
    ;
  const bool read = !Interrupted(interrupt) && ReadLine(line);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
  std::fputc('\n', stderr);
  ReleaseInterrupts();
  return read;
}

}  // namespace

int ReadPassword(const Options &options, std::string *password) {
  password->clear();
  const bool terminal = isatty(STDIN_FILENO) == 1;
  if (options.password) *password = *options.password;
  if (options.password || (!options.password_stdin && !terminal)) return EXIT_DONE;
  if (terminal ? ReadWithoutEcho(password) : ReadLine(password)) return EXIT_DONE;
  PrintError("there is no password on standard input");
  return EXIT_USAGE;
}

}  // namespace bhctl
