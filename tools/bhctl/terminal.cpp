// Lines are read byte by byte, so the rest of standard input is left for other programs.

#include "tools/bhctl/terminal.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/bhctl/interrupt.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr size_t MAX_LINE = 4096;  // bytes; no password is that long

std::string ApplianceText(const Session &session) {
  return SafeText(FieldText(session.info.host_name)) + " (" + MacText(session.mac) + ")";
}

}  // namespace

bool IsTerminal() {
  return isatty(STDIN_FILENO) == 1;
}

bool ReadLine(std::string &line) {
  char byte = 0;
  bool any = false;
  while (line.size() <= MAX_LINE) {
    const ssize_t got = read(STDIN_FILENO, &byte, 1);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    any = true;
    if (byte == '\n') break;
    line += byte;
  }
  return any;
}

// A signal ends the program only after the terminal is restored.
bool ReadHidden(const char *prompt, std::string &line) {
  termios before = {};
  if (tcgetattr(STDIN_FILENO, &before) != 0) return false;
  const Descriptor interrupt = HoldInterrupts();
  termios silent = before;
  silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  fputs(prompt, stderr);
  pollfd watched[] = {{STDIN_FILENO, POLLIN, 0}, {interrupt.Get(), POLLIN, 0}};
  while (poll(watched, 2, -1) < 0 && errno == EINTR)
    ;
  const bool read = !Interrupted(interrupt) && ReadLine(line);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
  fputc('\n', stderr);
  ReleaseInterrupts();
  return read;
}

int CheckConfirmable(const Options &options, const std::string &what) {
  if (options.assume_yes || IsTerminal()) return EXIT_DONE;
  PrintError(SafeText(what) + " needs confirmation: give --yes if there is no terminal");
  return EXIT_USAGE;
}

int Confirm(const Options &options, const Session &session, const std::string &what,
            const std::string &explanation) {
  if (options.assume_yes) return EXIT_DONE;
  fprintf(stderr, "%s.\n%s on %s: are you sure? [y/N] ", explanation.c_str(),
          SafeText(what).c_str(), ApplianceText(session).c_str());
  std::string answer;
  if (!ReadLine(answer)) fputc('\n', stderr);
  if (answer == "y" || answer == "Y" || answer == "yes") return EXIT_DONE;
  PrintError("nothing was done");
  return EXIT_USAGE;
}

}  // namespace bhctl
