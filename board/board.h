// The simulated board: an appliance booted in namespaces of this machine, with a copy-on-write view
// of its files, its own network, clock, syslog and process table. Nothing done on it reaches the
// machine, and nothing of it outlives the thread that booted it.
//
//   std::string why;
//   if (!board::EnterNamespaces(why)) ...;                        // once, first thing in main
//   std::optional<board::Board> board = board::Boot({}, why);
//   board::Result result = board::Run(*board, {.argv = {"/bin/hostname"}});
//   board::Halt(*board);
//
//   std::vector<board::Board> boards = board::BootAll(board::Network(32), why);
//   ...;  // the client's interface, which reaches all of them, is board::BRIDGE
//   board::HaltAll(boards);

#ifndef BH_BOARD_BOARD_H_
#define BH_BOARD_BOARD_H_

#include <sys/types.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace board {

// A network interface of the board and the end of its wire that stays with the caller.
struct Interface {
  std::string name = "eth0";
  std::string mac = "02:0b:4a:00:00:10";
  std::string address = "192.168.40.2/24";  // of the board; empty: no IPv4 address
  std::string client = "192.168.40.1/24";   // of the wire's end at the caller; may be empty too
  std::string bridge = {};  // at the caller: the wire ends at this bridge, which has `client` as
                            // its address. It comes with the first wire and goes with the last.
};

struct Config {
  std::string host_name = "brackenhold";
  std::string product_id = {};  // PRODUCTID of /proc/brackenhold; empty: as rootfs/ has it
  std::vector<Interface> interfaces = {Interface{}};
  std::string rootfs = {};    // the appliance's own files; empty: board/rootfs of this tree
  std::string products = {};  // directory of libshim.so, bh_servd and bhctl; empty: of this
                              // program
  std::string powerpc = {};   // directory of the same built for PowerPC, which then stand in their
                              // place; empty: as the variable BOARD_POWERPC says
  std::vector<std::string> share = {};  // further directories of the host, seen at their own paths
};

// A running board. Plain data: copies speak of the same board.
struct Board {
  pid_t init = -1;        // the board's pid 1, as the caller numbers it
  std::string root = {};  // its root directory for looking only: absolute symbolic links
                          // below it lead back to the caller's own root
  std::vector<std::string> wires = {};  // the caller's ends, one an interface, in their order
  Config config = {};
};

// Puts this process in a user, network and mount namespace of its own: the place where boards are
// booted and where their wires end. To be called once, before any thread is started. On failure
// `why` says in a sentence what is missing and how to allow it.
bool EnterNamespaces(std::string &why);

// Boots a board; it is up, with carrier on every interface, when this returns. It dies with the
// calling thread. Requires EnterNamespaces.
std::optional<Board> Boot(const Config &config, std::string &why);

// Boots all of them side by side, or none: then nothing is returned.
std::vector<Board> BootAll(const std::vector<Config> &configs, std::string &why);

// Up to MAX_NETWORK appliances on one bridge, BRIDGE, at which the client is 192.168.40.1/23. Each
// is as `like`, with a host name of its own (brackenhold-1, -2, ...), and a MAC and an address
// counted up from 02:0b:4a:00:00:10 and 192.168.40.2 on the first interface. No address in `like`
// there: none on any of them.
inline constexpr char BRIDGE[] = "bridge0";
inline constexpr int MAX_NETWORK = 500;
std::vector<Config> Network(int count, const Config &like = {});

// A board booted by another process of this process.
Board Attach(pid_t init);

// Kills all that runs on the board and waits until it and its wires are gone.
void Halt(Board &board);
void HaltAll(std::vector<Board> &boards);  // quicker than one by one

// A program to run on the board.
struct Command {
  std::vector<std::string> argv = {};  // argv[0] is looked up on the board's PATH
  std::vector<std::string> env = {};   // NAME=VALUE, beside the caller's environment
  std::string fail = {};               // calls to fail, see failing.h: "bh_servd/fork:1:EAGAIN,..."
  int in = -1;                         // -1: /dev/null
  int out = -1;                        // -1: the caller's own
  int err = -1;                        // -1: the caller's own
  uid_t uid = 0;
  std::string directory = "/";
  bool foreground = false;  // an interactive shell, which takes the terminal of `in`
};

// How a process ended.
struct Result {
  int exit_code = -1;  // -1: killed by `signal`
  int signal = 0;
  std::string output = {};  // standard output and error of a Run
};

// Starts a program on the board, as a child of this process: its id is the number that it has here,
// and it is killed when the calling thread ends. -1 when no process could be made; what goes wrong
// later is exit status 127 and a line on standard error.
pid_t Spawn(const Board &board, const Command &command);

// Waits for the end of a Spawn or Fork, also when the board has been halted since, or of any other
// child of this process.
Result Wait(pid_t process);

// Runs a program to its end. Background processes that it leaves behind are not waited for.
Result Run(const Board &board, const Command &command);

// As fork(), but the child is on the board. It has no shim preloaded, and leaves with _exit.
pid_t Fork(const Board &board);

// Runs `function`, which returns an exit status, in a child on the board.
template <typename Function>
Result RunInside(const Board &board, Function function) {
  const pid_t process = Fork(board);
  if (process == 0) {
    const int status = function();
    fflush(nullptr);
    _exit(status);
  }
  return Wait(process);
}

// Boots a board and runs this very program on it, with these arguments, to its end: the
// exit status, 128 and the signal's number when one ended it, or 1 and a line on standard error
// without a board. To be called first thing in main, where RunsOnBoard() is false.
int RunItself(const std::vector<std::string> &arguments);

// Whether this process is on a board itself.
bool RunsOnBoard();

// Sends a signal to a process by the number that it has on the board.
bool Kill(const Board &board, pid_t inner, int signal);

// A process by the number that it has on the board.
struct Process {
  pid_t pid = -1;
  pid_t parent = -1;
  char state = ' ';  // as the kernel writes it: 'R', 'S', 'D', 'Z' and so on
};

// All on the board, zombies too.
std::vector<Process> Processes(const Board &board);

// How many files the process has open.
long OpenFiles(const Board &board, pid_t inner);

// A socket bound to the daemon's port.
struct ServiceSocket {
  int waiting = 0;  // in its receive queue, bytes of kernel memory
  int drops = 0;    // datagrams that found no room there
};

// Those on the board. A pid file is there a moment before the socket.
std::vector<ServiceSocket> ServiceSockets(const Board &board);

// Polls the condition each millisecond until it holds or the time is over; says whether it held.
template <typename Predicate>
bool WaitFor(Predicate predicate,
             std::chrono::milliseconds timeout = std::chrono::milliseconds(20000)) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (!predicate()) {
    if (std::chrono::steady_clock::now() >= end) return false;
    usleep(1000);
  }
  return true;
}

// Files of the board by their path on it; links are followed on the board. The board's kernel
// tables (/proc/net and the like) are per process: read them with a Run of cat.
int OpenFile(const Board &board, const std::string &path, int flags, mode_t mode = 0644);
std::string ReadFile(const Board &board, const std::string &path);  // empty when there is none
bool WriteFile(const Board &board, const std::string &path, std::string_view text);
bool Exists(const Board &board, const std::string &path);
bool Remove(const Board &board, const std::string &path);

// Where a failing test finds what happened.
inline constexpr char CALL_LOG[] = "/var/log/calls";
inline constexpr char SYSLOG[] = "/var/log/syslog";

// With PowerPC products: the program on the board that runs the PowerPC program given to it.
inline constexpr char EMULATE[] = "/run/powerpc/emulate";

}  // namespace board

#endif  // BH_BOARD_BOARD_H_
