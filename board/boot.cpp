// boot: boots a simulated board and runs a command on it, a shell if none is given. The board lives
// as long as the command.

#include <getopt.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "board/pieces.h"

namespace {

constexpr int kUsage = 2;
constexpr int kNoBoard = 125;  // what neither shells nor commands end with by themselves

struct Options {
  board::Config config;
  std::vector<std::string> interfaces;
  std::optional<std::string> address;
  std::vector<std::pair<std::string, std::string>> files;
  std::vector<std::string> command;
  bool daemon = false;
  bool demo = false;
  bool enter = false;
  bool help = false;
};

constexpr struct {
  const char *option;
  const char *text;
} kHelp[] = {
    {"--address A/P", "IPv4 address and prefix length of the board's first interface"},
    {"--no-address", "no IPv4 address on the board's first interface"},
    {"--product ID", "the board's product ID, such as 0x2001"},
    {"--interface NAME", "an interface of that name; may be repeated (default: eth0)"},
    {"--file PATH=TEXT", "a file on the board; may be repeated"},
    {"--run-daemon", "start the daemon on every interface first"},
    {"--demo", "start the daemon and ping it, then a shell beside the board"},
    {"--enter", "run the command on the board of this shell (BH_BOARD_PID)"},
    {"--help", "this text"},
};

constexpr struct option kOptions[] = {
    {"address", required_argument, nullptr, 'a'}, {"no-address", no_argument, nullptr, 'n'},
    {"product", required_argument, nullptr, 'p'}, {"interface", required_argument, nullptr, 'i'},
    {"file", required_argument, nullptr, 'f'},    {"run-daemon", no_argument, nullptr, 'r'},
    {"demo", no_argument, nullptr, 'd'},          {"enter", no_argument, nullptr, 'e'},
    {"help", no_argument, nullptr, 'h'},          {nullptr, 0, nullptr, 0},
};

void PrintHelp(std::FILE *to) {
  std::fputs("usage: boot [options] [--] [command [arguments]]\n", to);
  for (const auto &line : kHelp)
    std::fprintf(to, "  %-18s %s\n", line.option, line.text);
}

bool AddFile(const std::string &argument, Options *options) {
  const size_t sign = argument.find('=');
  if (sign == std::string::npos || argument[0] != '/') {
    std::fprintf(stderr, "boot: --file wants /PATH=TEXT, not %s\n", argument.c_str());
    return false;
  }
  options->files.emplace_back(argument.substr(0, sign), argument.substr(sign + 1));
  return true;
}

bool TakeOption(int letter, Options *options) {
  const std::string argument = optarg == nullptr ? "" : optarg;
  switch (letter) {
    case 'a':
    case 'n':
      options->address = argument;
      return true;
    case 'p':
      options->config.product_id = argument;
      return true;
    case 'i':
      options->interfaces.push_back(argument);
      return true;
    case 'f':
      return AddFile(argument, options);
    case 'r':
      return options->daemon = true;
    case 'd':
      return options->demo = true;
    case 'e':
      return options->enter = true;
    case 'h':
      return options->help = true;
    default:
      PrintHelp(stderr);
      return false;
  }
}

// The n-th interface's address and MAC differ from the first one's in their number.
void AddInterfaces(Options *options) {
  if (!options->interfaces.empty()) options->config.interfaces.clear();
  int number = 0;
  for (const std::string &name : options->interfaces) {
    board::Interface interface;
    const std::string digits = std::to_string(number);
    interface.name = name;
    interface.mac = "02:0b:4a:00:00:1" + digits;
    interface.address = "192.168.4" + digits + ".2/24";
    interface.client = "192.168.4" + digits + ".1/24";
    options->config.interfaces.push_back(interface);
    number++;
  }
  if (options->address) options->config.interfaces[0].address = *options->address;
}

bool ReadOptions(int argc, char **argv, Options *options) {
  for (int letter = 0; (letter = getopt_long(argc, argv, "+", kOptions, nullptr)) != -1;)
    if (!TakeOption(letter, options)) return false;
  if (options->interfaces.size() > 10) {
    std::fputs("boot: a board has at most 10 interfaces\n", stderr);
    return false;
  }
  AddInterfaces(options);
  options->command.assign(argv + optind, argv + argc);
  return true;
}

int Status(const board::Result &result) {
  return result.exit_code >= 0 ? result.exit_code : 128 + result.signal;
}

// Runs a command on the board with this program's own standard streams.
int RunHere(const board::Board &board, const std::vector<std::string> &command) {
  board::Command here;
  here.argv = command;
  if (command.empty()) {
    here.argv = {"/bin/sh", "-i"};
    here.env = {"PS1=board# "};
    here.foreground = true;
  }
  here.in = STDIN_FILENO;
  return Status(board::Wait(board::Spawn(board, here)));
}

// How many sockets are bound to the daemon's port. The pid file is there a moment before.
int BoundServers(const board::Board &board) {
  const board::Result table =
      board::Run(board, {.argv = {"grep", "-c", ":5998 ", "/proc/net/udp"}});
  return static_cast<int>(std::strtol(table.output.c_str(), nullptr, 10));
}

// Starts the daemon on the `number`-th interface (from 1) and waits until it can be asked.
bool StartDaemon(const board::Board &board, int number) {
  const std::string &interface = board.config.interfaces[static_cast<size_t>(number) - 1].name;
  const board::Result result = board::Run(board, {.argv = {"bh_servd", "-i", interface}});
  if (result.exit_code == 0 && board::WaitFor([&] { return BoundServers(board) >= number; }))
    return true;
  std::fprintf(stderr, "boot: bh_servd has not started on %s (exit status %d)\n%s",
               interface.c_str(), Status(result), result.output.c_str());
  return false;
}

bool StartDaemons(const board::Board &board) {
  const int count = static_cast<int>(board.config.interfaces.size());
  for (int number = 1; number <= count; number++)
    if (!StartDaemon(board, number)) return false;
  return true;
}

// A shell at the caller's end of the wire, in which `board` runs its arguments on the board.
int ClientShell(const board::Board &board) {
  const std::string directory = board::ProgramDirectory();
  const char *path = std::getenv("PATH");
  setenv("PATH", (directory + ":" + (path == nullptr ? "/usr/bin:/bin" : path)).c_str(), 1);
  setenv("BH_BOARD_PID", std::to_string(board.init).c_str(), 1);
  setenv("BASH_FUNC_board%%", ("() { '" + directory + "/boot' --enter -- \"$@\"; }").c_str(), 1);
  setenv("PS1", "client$ ", 1);
  const pid_t shell = fork();
  if (shell == 0) {
    execlp("bash", "bash", "--norc", "-i", nullptr);
    execl("/bin/sh", "sh", "-i", nullptr);
    _exit(127);
  }
  std::signal(SIGINT, SIG_IGN);
  return shell < 0 ? 1 : Status(board::Wait(shell));
}

int Demo(const board::Board &board) {
  const board::Interface &first = board.config.interfaces[0];
  std::printf("A board is up: %s, %s on %s, wired to %s here.\n", board.config.host_name.c_str(),
              first.address.empty() ? "no address" : first.address.c_str(), first.name.c_str(),
              board.wires[0].c_str());
  if (!StartDaemon(board, 1)) return 1;
  const std::string ping = board::ProgramDirectory() + "/bhctl";
  std::printf("bh_servd serves %s. Asking it with: bhctl -i %s ping\n", first.name.c_str(),
              board.wires[0].c_str());
  std::fflush(stdout);
  const pid_t client = fork();
  if (client == 0) {
    execl(ping.c_str(), "bhctl", "-i", board.wires[0].c_str(), "ping", nullptr);
    std::perror(ping.c_str());
    _exit(127);
  }
  if (client < 0 || Status(board::Wait(client)) != 0) {
    std::fputs("boot: the ping was not answered. The board's syslog:\n", stderr);
    std::fputs(board::ReadFile(board, board::kSyslog).c_str(), stderr);
    return 1;
  }
  if (isatty(STDIN_FILENO) == 0) return 0;
  std::printf(
      "This shell is at the other end of the wire. Try `bhctl -i %s raid`, and\n"
      "`board` or `board cat /var/log/syslog` to be on the board. `exit` switches it off.\n",
      board.wires[0].c_str());
  std::fflush(stdout);
  return ClientShell(board);
}

int Enter(const Options &options) {
  const char *init = std::getenv("BH_BOARD_PID");
  if (init != nullptr)
    return RunHere(board::Attach(static_cast<pid_t>(std::strtol(init, nullptr, 10))),
                   options.command);
  std::fputs("boot: --enter is for the shell of boot --demo (BH_BOARD_PID is not set)\n", stderr);
  return kUsage;
}

// What is to happen on the booted board; returns the exit status.
int Use(const board::Board &board, const Options &options) {
  for (const auto &[path, text] : options.files) {
    if (board::WriteFile(board, path, text)) continue;
    std::fprintf(stderr, "boot: cannot write %s on the board\n", path.c_str());
    return kNoBoard;
  }
  if (options.demo) return Demo(board);
  if (options.daemon && !StartDaemons(board)) return kNoBoard;
  return RunHere(board, options.command);
}

int BootAndRun(const Options &options) {
  std::string why;
  std::optional<board::Board> board;
  if (board::EnterLab(&why)) board = board::Boot(options.config, &why);
  if (!board) {
    std::fprintf(stderr, "boot: %s\n", why.c_str());
    return kNoBoard;
  }
  const int status = Use(*board, options);
  board::Halt(*board);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (!ReadOptions(argc, argv, &options)) return kUsage;
  if (options.help) {
    PrintHelp(stdout);
    return 0;
  }
  return options.enter ? Enter(options) : BootAndRun(options);
}
