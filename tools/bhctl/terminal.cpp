// Lines are read byte by byte, so the rest of standard input is left for other programs.

#include "tools/bhctl/terminal.h"

#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr size_t MAX_LINE = 4096;  // bytes; no password is that long
constexpr size_t MAX_NAMED = 8;    // appliances in a question

// "nas1 (02:bb:00:00:00:01)", or the number of appliances and their names.
std::string TargetsText(const std::vector<Target> &targets) {
  const auto named = [](const Target &target) {
    return target.discovered ? target.name + " (" + MacText(target.GetMac()) + ")" : target.name;
  };
  if (targets.size() == 1) return named(targets.front());
  std::string text = std::to_string(targets.size()) + " appliances (";
  for (size_t i = 0; i < targets.size() && i < MAX_NAMED; ++i)
    text += (i == 0 ? "" : ", ") + targets[i].name;
  return text + (targets.size() > MAX_NAMED ? ", ...)" : ")");
}

}  // namespace

bool IsTerminal() {
  return isatty(STDIN_FILENO) == 1;
}

int ReadLine(int cancel, std::string &line) {
  bool any = false;
  while (line.size() <= MAX_LINE) {
    pollfd watched[] = {{STDIN_FILENO, POLLIN, 0}, {cancel, POLLIN, 0}};
    poll(watched, 2, -1);
    if (IsCancelled(cancel)) return EXIT_INTERRUPTED;
    char byte = 0;
    const ssize_t got = read(STDIN_FILENO, &byte, 1);
    if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
    if (got <= 0) break;
    any = true;
    if (byte == '\n') break;
    line += byte;
  }
  return any ? EXIT_DONE : EXIT_USAGE;
}

int ReadHidden(int cancel, const char *prompt, std::string &line) {
  termios before = {};
  if (tcgetattr(STDIN_FILENO, &before) != 0) return EXIT_USAGE;
  termios silent = before;
  silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent);
  fputs(prompt, stderr);
  const int status = ReadLine(cancel, line);
  tcsetattr(STDIN_FILENO, TCSAFLUSH, &before);
  fputc('\n', stderr);
  return status;
}

int CheckConfirmable(const Options &options, const std::string &what) {
  if (options.assume_yes || IsTerminal()) return EXIT_DONE;
  return UsageFailure(SafeText(what) + " needs confirmation: give --yes if there is no terminal");
}

int Confirm(const Options &options, const std::vector<Target> &targets, const std::string &what,
            const std::string &explanation) {
  if (options.assume_yes) return EXIT_DONE;
  fprintf(stderr, "%s.\n%s on %s: are you sure? [y/N] ", explanation.c_str(),
          SafeText(what).c_str(), TargetsText(targets).c_str());
  std::string answer;
  const int status = ReadLine(options.scope.cancel, answer);
  if (status != EXIT_DONE) fputc('\n', stderr);
  if (status == EXIT_DONE && (answer == "y" || answer == "Y" || answer == "yes")) return EXIT_DONE;
  PrintError("nothing was done");
  return status == EXIT_INTERRUPTED ? EXIT_INTERRUPTED : EXIT_USAGE;
}

}  // namespace bhctl
