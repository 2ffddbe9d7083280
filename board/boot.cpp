// boot: boots a simulated board and runs a command on it, a shell if none is given; or many boards
// on one network, and the command at their client's end. The boards live as long as the command.

#include <getopt.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "board/internal.h"

namespace {

using Boards = std::vector<board::Board>;

constexpr int USAGE = 2;
constexpr int NO_BOARD = 125;  // what neither shells nor commands end with by themselves

struct Options {
  board::Config config;
  std::vector<std::string> interfaces;
  std::optional<std::string> address;
  std::vector<std::pair<std::string, std::string>> files;
  std::vector<std::string> command;
  int boards = 0;  // on a bridge; 0: one, on a wire of its own
  bool daemon = false;
  bool demo = false;
  bool enter = false;
  bool help = false;
};

constexpr struct {
  const char *option;
  const char *text;
} HELP[] = {
    {"--address A/P", "IPv4 address and prefix length of the board's first interface"},
    {"--no-address", "no IPv4 address on the board's first interface"},
    {"--product ID", "the board's product ID, such as 0x2001"},
    {"--interface NAME", "an interface of that name; may be repeated (default: eth0)"},
    {"--file PATH=TEXT", "a file on the board; may be repeated"},
    {"--boards N", "N boards on one bridge, bridge0; the command runs at the client's end"},
    {"--run-daemon", "start the daemon on every interface first"},
    {"--demo",
     "start the daemon and discover it, then a shell at the client's end; with a command: that "
     "alone"},
    {"--enter", "run the command on the (first) board of this shell (BH_BOARD_PID)"},
    {"--help", "this text"},
};

constexpr struct option OPTIONS[] = {
    {"address", required_argument, nullptr, 'a'},
    {"no-address", no_argument, nullptr, 'n'},
    {"product", required_argument, nullptr, 'p'},
    {"interface", required_argument, nullptr, 'i'},
    {"file", required_argument, nullptr, 'f'},
    {"run-daemon", no_argument, nullptr, 'r'},
    {"demo", no_argument, nullptr, 'd'},
    {"enter", no_argument, nullptr, 'e'},
    {"boards", required_argument, nullptr, 'b'},
    {"help", no_argument, nullptr, 'h'},
    {nullptr, 0, nullptr, 0},
};

void PrintHelp(FILE *to) {
  fputs("usage: boot [options] [--] [command [arguments]]\n", to);
  for (const auto &line : HELP)
    fprintf(to, "  %-18s %s\n", line.option, line.text);
}

bool AddFile(const std::string &argument, Options &options) {
  const size_t sign = argument.find('=');
  if (sign == std::string::npos || argument[0] != '/') {
    fprintf(stderr, "boot: --file wants /PATH=TEXT, not %s\n", argument.c_str());
    return false;
  }
  options.files.emplace_back(argument.substr(0, sign), argument.substr(sign + 1));
  return true;
}

bool SetBoards(const std::string &argument, Options &options) {
  char *end = nullptr;
  const long count = strtol(argument.c_str(), &end, 10);
  options.boards = static_cast<int>(count);
  if (*end == '\0' && count >= 1 && count <= board::MAX_NETWORK) return true;
  fprintf(stderr, "boot: --boards wants 1 to %d, not %s\n", board::MAX_NETWORK, argument.c_str());
  return false;
}

bool TakeOption(int letter, Options &options) {
  const std::string argument = optarg == nullptr ? "" : optarg;
  switch (letter) {
    case 'a':
    case 'n':
      options.address = argument;
      return true;
    case 'p':
      options.config.product_id = argument;
      return true;
    case 'i':
      options.interfaces.push_back(argument);
      return true;
    case 'f':
      return AddFile(argument, options);
    case 'b':
      return SetBoards(argument, options);
    case 'r':
      return options.daemon = true;
    case 'd':
      return options.demo = true;
    case 'e':
      return options.enter = true;
    case 'h':
      return options.help = true;
    default:
      PrintHelp(stderr);
      return false;
  }
}

// The n-th interface's address and MAC differ from the first one's in their number.
void AddInterfaces(Options &options) {
  if (!options.interfaces.empty()) options.config.interfaces.clear();
  int number = 0;
  for (const std::string &name : options.interfaces) {
    board::Interface interface;
    const std::string digits = std::to_string(number);
    interface.name = name;
    interface.mac = "02:0b:4a:00:00:1" + digits;
    interface.address = "192.168.4" + digits + ".2/24";
    interface.client = "192.168.4" + digits + ".1/24";
    options.config.interfaces.push_back(interface);
    ++number;
  }
  if (options.address) options.config.interfaces[0].address = *options.address;
}

bool ReadOptions(int argc, char **argv, Options &options) {
  for (int letter = 0; (letter = getopt_long(argc, argv, "+", OPTIONS, nullptr)) != -1;)
    if (!TakeOption(letter, options)) return false;
  if (options.interfaces.size() > 10) {
    fputs("boot: a board has at most 10 interfaces\n", stderr);
    return false;
  }
  if (options.boards > 0 &&
      (options.interfaces.size() > 1 || !options.address.value_or("").empty())) {
    fputs("boot: --boards gives each board one interface and its address\n", stderr);
    return false;
  }
  AddInterfaces(options);
  options.command.assign(argv + optind, argv + argc);
  return true;
}

int ExitStatus(const board::Result &result) {
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
  return ExitStatus(board::Wait(board::Spawn(board, here)));
}

bool IsServed(const board::Board &board, int interfaces) {
  return std::ssize(board::ServiceSockets(board)) >= interfaces;
}

// Starts the daemon on the `number`-th interface (from 1) of all boards and waits until they can be
// asked.
bool StartDaemon(const Boards &boards, int number) {
  const std::string &name = boards[0].config.interfaces[static_cast<size_t>(number) - 1].name;
  const Descriptor said(memfd_create("said", MFD_CLOEXEC));
  std::vector<pid_t> starts;
  starts.reserve(boards.size());
  for (const board::Board &board : boards)
    starts.push_back(board::Spawn(
        board, {.argv = {"bh_servd", "-i", name}, .out = said.Get(), .err = said.Get()}));
  for (size_t i = 0; i < boards.size(); ++i) {
    const board::Result result = board::Wait(starts[i]);
    if (result.exit_code == 0 && board::WaitFor([&] { return IsServed(boards[i], number); }))
      continue;
    fprintf(stderr, "boot: bh_servd has not started on %s of %s (exit status %d)\n%s", name.c_str(),
            boards[i].config.host_name.c_str(), ExitStatus(result),
            board::ReadAll(said.Get()).c_str());
    return false;
  }
  return true;
}

bool StartDaemons(const Boards &boards) {
  const int count = static_cast<int>(boards[0].config.interfaces.size());
  for (int number = 1; number <= count; ++number)
    if (!StartDaemon(boards, number)) return false;
  return true;
}

bool AreBridged(const Boards &boards) {
  return !boards[0].config.interfaces[0].bridge.empty();
}

// The caller's interface that leads to the boards.
std::string ClientInterface(const Boards &boards) {
  return AreBridged(boards) ? boards[0].config.interfaces[0].bridge : boards[0].wires[0];
}

// At the caller's end bhctl is on the path, and in a shell `board` runs its arguments on the board,
// or on the one that its first argument gives the number of.
void SetClientEnvironment(const Boards &boards) {
  const std::string directory = board::ProgramDirectory();
  const char *path = getenv("PATH");
  std::string inits;
  for (const board::Board &board : boards)
    inits += std::to_string(board.init) + ' ';
  std::string function = "() { ";
  if (AreBridged(boards))
    function +=
        "local all=(none $BH_BOARD_PID) n=${1:?which board}; shift; "
        "BH_BOARD_PID=${all[n]} ";
  function += "'" + directory + "/boot' --enter -- \"$@\"; }";
  setenv("PATH", (directory + ":" + (path == nullptr ? "/usr/bin:/bin" : path)).c_str(), 1);
  setenv("BH_BOARD_PID", inits.c_str(), 1);
  setenv("BASH_FUNC_board%%", function.c_str(), 1);
  setenv("PROMPT_COMMAND", "PS1='client$ '", 1);  // the system's rc file sets another one
  setenv("PS1", "client$ ", 1);
}

[[noreturn]] void ExecAtClient(const Boards &boards, std::vector<std::string> command) {
  SetClientEnvironment(boards);
  std::vector<char *> argv;
  argv.reserve(command.size() + 1);
  for (std::string &argument : command)
    argv.push_back(argument.data());
  argv.push_back(nullptr);
  if (!command.empty()) {
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
  }
  execlp("bash", "bash", "--rcfile", BASH_COMPLETION, "-i", nullptr);
  execl("/bin/sh", "sh", "-i", nullptr);
  _exit(127);
}

// Runs a command at the caller's end, a shell if it is empty. An interrupt is the command's.
int RunAtClient(const Boards &boards, const std::vector<std::string> &command) {
  fflush(nullptr);
  const pid_t client = fork();
  if (client < 0) return 1;
  if (client == 0) ExecAtClient(boards, command);
  signal(SIGINT, SIG_IGN);
  const int status = ExitStatus(board::Wait(client));
  signal(SIGINT, SIG_DFL);
  return status;
}

std::string Describe(const board::Board &board) {
  const std::string &address = board.config.interfaces[0].address;
  return board.config.host_name + ", " + (address.empty() ? "no address" : address);
}

void PrintBoards(const Boards &boards) {
  const char *name = boards[0].config.interfaces[0].name.c_str();
  if (AreBridged(boards))
    printf("%zu boards are up, on %s here:\n  %s, to\n  %s\n", boards.size(),
           ClientInterface(boards).c_str(), Describe(boards[0]).c_str(),
           Describe(boards.back()).c_str());
  else
    printf("A board is up: %s on %s, wired to %s here.\n", Describe(boards[0]).c_str(), name,
           ClientInterface(boards).c_str());
}

// What the simulated board accepts.
constexpr char PASSWORD[] = "admin";
constexpr char PASS_PHRASE[] = "FernGate";

void SetDemoEnvironment(const Boards &boards) {
  setenv("BHCTL_INTERFACE", ClientInterface(boards).c_str(), 1);
  setenv("BHCTL_PASSWORD", PASSWORD, 1);
  setenv("BHCTL_PASS_PHRASE", PASS_PHRASE, 1);
}

void PrintGreeting(const Boards &boards) {
  const char *choice = AreBridged(boards) ? " --all" : "";
  const char *board = AreBridged(boards) ? "board 1" : "board";
  printf(
      "\nThis shell is at the other end of the wire. Its environment has the interface (%s),\n"
      "the administrator's password (%s) and the pass phrase (%s). Try:\n"
      "  bhctl show%s\n"
      "  bhctl exec%s uname -a\n"
      "  bhctl set%s --workgroup OFFICE\n"
      "`%s` is a shell on the board, `%s cat /var/log/calls` what its programs were asked.\n"
      "`exit` switches all off.\n"
      "\n"
      "The daemon and its packets are real. The kernel is this machine's, seen through "
      "namespaces;\n"
      "drives, flash and network hardware are files; the appliance's own programs are stand-ins,\n"
      "which note their call and do little else.\n",
      ClientInterface(boards).c_str(), PASSWORD, PASS_PHRASE, choice, choice, choice, board, board);
}

int Demo(const Boards &boards, const std::vector<std::string> &command) {
  SetDemoEnvironment(boards);
  if (!command.empty()) return StartDaemon(boards, 1) ? RunAtClient(boards, command) : NO_BOARD;
  PrintBoards(boards);
  if (!StartDaemon(boards, 1)) return 1;
  printf("bh_servd serves %s. Asking with: bhctl discover\n",
         boards[0].config.interfaces[0].name.c_str());
  if (RunAtClient(boards, {"bhctl", "discover"}) != 0) {
    fputs("boot: nobody answers. The board's syslog:\n", stderr);
    fputs(board::ReadFile(boards[0], board::SYSLOG).c_str(), stderr);
    return 1;
  }
  PrintGreeting(boards);
  return isatty(STDIN_FILENO) == 0 ? 0 : RunAtClient(boards, {});
}

int Enter(const Options &options) {
  const char *init = getenv("BH_BOARD_PID");
  const long number = init == nullptr ? 0 : strtol(init, nullptr, 10);
  if (number > 0) return RunHere(board::Attach(static_cast<pid_t>(number)), options.command);
  fputs(init == nullptr
            ? "boot: --enter is for the client's shell of boot (BH_BOARD_PID is not set)\n"
            : "boot: there is no such board\n",
        stderr);
  return USAGE;
}

bool WriteFiles(const board::Board &board, const Options &options) {
  for (const auto &[path, text] : options.files) {
    if (board::WriteFile(board, path, text)) continue;
    fprintf(stderr, "boot: cannot write %s on the board\n", path.c_str());
    return false;
  }
  return true;
}

// What is to happen with the booted boards; returns the exit status.
int Use(const Boards &boards, const Options &options) {
  for (const board::Board &board : boards)
    if (!WriteFiles(board, options)) return NO_BOARD;
  if (options.demo) return Demo(boards, options.command);
  if (options.daemon && !StartDaemons(boards)) return NO_BOARD;
  return options.boards > 0 ? RunAtClient(boards, options.command)
                            : RunHere(boards[0], options.command);
}

int BootAndRun(const Options &options) {
  std::string why;
  Boards boards;
  if (board::EnterNamespaces(why))
    boards = board::BootAll(options.boards > 0 ? board::Network(options.boards, options.config)
                                               : std::vector<board::Config>{options.config},
                            why);
  if (boards.empty()) {
    fprintf(stderr, "boot: %s\n", why.c_str());
    return NO_BOARD;
  }
  const int status = Use(boards, options);
  board::HaltAll(boards);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  Options options;
  if (!ReadOptions(argc, argv, options)) return USAGE;
  if (options.help) {
    PrintHelp(stdout);
    return 0;
  }
  return options.enter ? Enter(options) : BootAndRun(options);
}
