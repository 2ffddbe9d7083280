// The board's life: booting it, its first process, and its end.
//
// The first process is cloned into the board's namespaces and is the board: as pid 1 it takes all
// other processes on the board with it. While booting it talks with the caller over a socket pair:
// it sends 'n' when its network is ready for the wires, receives 'w' when they are made, and sends
// 'r' when all is up or 'e' and a text when it is not.

#include <fcntl.h>
#include <linux/sched.h>
#include <poll.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "board/internal.h"

namespace board {

// --- pid 1

namespace {

Descriptor OpenLogSocket() {
  Descriptor log(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  struct sockaddr_un address {};
  address.sun_family = AF_UNIX;
  std::string_view("/dev/log").copy(address.sun_path, sizeof(address.sun_path) - 1);
  const int size = 4 << 20;
  setsockopt(log.Get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));  // as much as is allowed
  const bool ready =
      bind(log.Get(), reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0 &&
      chmod("/dev/log", 0666) == 0;
  return ready ? std::move(log) : Descriptor();
}

void StoreLogLines(int log, int file) {
  std::array<char, 8192> line{};
  ssize_t size = 0;
  while ((size = recv(log, line.data(), line.size() - 1, 0)) > 0) {
    auto length = static_cast<size_t>(size);
    while (length > 0 && (line[length - 1] == '\n' || line[length - 1] == '\0'))
      length--;
    line[length++] = '\n';
    if (write(file, line.data(), length) < 0) return;
  }
}

// Reads /dev/log and reaps orphans, for good.
[[noreturn]] void LogAndReap(const Descriptor &log) {
  const Descriptor file(open(SYSLOG, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666));
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  sigprocmask(SIG_BLOCK, &child, nullptr);
  const Descriptor children(signalfd(-1, &child, SFD_CLOEXEC | SFD_NONBLOCK));
  std::array<struct pollfd, 2> ready{{{log.Get(), POLLIN, 0}, {children.Get(), POLLIN, 0}}};
  for (;;) {
    poll(ready.data(), ready.size(), -1);
    StoreLogLines(log.Get(), file.Get());
    struct signalfd_siginfo info {};
    while (read(children.Get(), &info, sizeof(info)) > 0)
      continue;
    while (waitpid(-1, nullptr, WNOHANG) > 0)
      continue;
  }
}

// The keeper of the mount table: a process whose root is /run/mount-view. Its table is
// /proc/mounts.
bool StartMountView() {
  const pid_t keeper = fork();
  if (keeper == 0) {
    if (chroot("/run/mount-view") != 0 || chdir("/") != 0) _exit(1);
    for (;;)
      pause();
  }
  const std::string table = "/run/kernel-proc/" + std::to_string(keeper) + "/mounts";
  return keeper > 0 && symlink(table.c_str(), "/proc/mounts") == 0;
}

// Pid 1 keeps nothing of the caller's but `keep`. A terminal or pipe would stay open with it.
void LetGoOfCaller(int keep) {
  const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd = 0; fd < 3; ++fd)
    dup2(null, fd);
  close_range(3, static_cast<unsigned>(keep) - 1, 0);
  close_range(static_cast<unsigned>(keep) + 1, ~0U, 0);
  for (int number = 1; number < NSIG; ++number)
    signal(number, SIG_DFL);
  sigset_t none;
  sigemptyset(&none);
  sigprocmask(SIG_SETMASK, &none, nullptr);
  umask(022);
}

std::string BootSelf(const Config &config, int caller, Descriptor &log) {
  char byte = 'n';
  if (sethostname(config.host_name.c_str(), config.host_name.size()) != 0)
    return Failure("sethostname");
  if (!PrepareNetwork("/proc")) return Failure("cannot set up the board's network");
  if (send(caller, &byte, 1, MSG_NOSIGNAL) != 1) _exit(1);
  std::string why = BuildRoot(config);
  if (!why.empty()) return why;
  log = OpenLogSocket();
  if (!log.IsOpen()) return Failure("/dev/log");
  if (!StartMountView()) return Failure("/proc/mounts");
  if (recv(caller, &byte, 1, 0) != 1) _exit(1);
  why = BringUpInterfaces(config);
  for (const Interface &interface : config.interfaces)
    if (why.empty() && !WaitForCarrier(interface.name)) why = interface.name + " has no carrier";
  return why;
}

[[noreturn]] void RunInit(const Config &config, int caller) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  Descriptor kept(fcntl(caller, F_DUPFD_CLOEXEC, 3));
  LetGoOfCaller(kept.Get());
  Descriptor log;
  const std::string why = BootSelf(config, kept.Get(), log);
  const std::string answer = why.empty() ? "r" : "e" + why;
  if (send(kept.Get(), answer.data(), answer.size(), MSG_NOSIGNAL) < 0 || !why.empty()) _exit(1);
  kept.Close();
  LogAndReap(log);
}

}  // namespace

// --- the caller's side

namespace {

std::string Canonical(const std::string &path) {
  std::error_code error;
  return std::filesystem::weakly_canonical(path, error).string();
}

// Fills in the defaults and makes the paths absolute.
Config WithDefaults(Config config) {
  if (config.rootfs.empty()) config.rootfs = BOARD_ROOTFS;
  if (config.products.empty()) config.products = ProgramDirectory();
  config.rootfs = Canonical(config.rootfs);
  config.products = Canonical(config.products);
  const char *powerpc = getenv("BOARD_POWERPC");
  if (config.powerpc.empty() && powerpc != nullptr) config.powerpc = powerpc;
  if (IsOwn(Canonical(BOARD_SOURCE))) config.share.push_back(BOARD_SOURCE);
  config.share.push_back(config.products);
  if (!config.powerpc.empty()) {
    config.powerpc = Canonical(config.powerpc);
    config.share.push_back(config.powerpc);
  }
  for (std::string &directory : config.share)
    directory = Canonical(directory);
  return config;
}

pid_t CloneInit() {
  struct clone_args arguments {};
  arguments.flags = CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWIPC | CLONE_NEWUTS | CLONE_NEWPID;
  arguments.exit_signal = SIGCHLD;
  fflush(nullptr);
  return static_cast<pid_t>(syscall(SYS_clone3, &arguments, sizeof(arguments)));
}

std::string Receive(int init) {
  std::array<char, 2048> text{};
  struct pollfd ready {
    init, POLLIN, 0
  };
  if (poll(&ready, 1, 20000) != 1) return std::string("e") + "the board does not answer";
  const ssize_t size = recv(init, text.data(), text.size(), 0);
  if (size <= 0) return std::string("e") + "the board's first process has died";
  return {text.data(), static_cast<size_t>(size)};
}

// The caller's ends of the sockets to the first processes of boards that are booting.
using Inits = std::deque<Descriptor>;

// Boards booted at a time: enough for a few processors, and none waits long for its turn.
constexpr size_t SIDE_BY_SIDE = 32;

std::string Start(const Config &config, std::vector<Board> &boards, Inits &inits) {
  Board board;
  board.config = WithDefaults(config);
  const std::string shim = board.config.products + "/libshim.so";
  if (access(shim.c_str(), R_OK) != 0) return Failure(shim);
  if (std::string why = board.config.powerpc.empty() ? "" : CheckPowerpc(board.config);
      !why.empty())
    return why;
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
    return Failure("socketpair");
  inits.emplace_back(pair[0]);
  const Descriptor far_end(pair[1]);
  board.init = CloneInit();
  if (board.init == 0) RunInit(board.config, far_end.Get());
  std::string why = board.init < 0 ? Failure("cannot clone a board's namespaces") : "";
  board.root = "/proc/" + std::to_string(board.init) + "/root";
  if (why.empty()) boards.push_back(board);
  return why;
}

// The boards boot side by side. The caller does its part for all of them at once.
std::string BootFromOutside(std::vector<Board> &boards, const Inits &inits) {
  for (const Descriptor &init : inits)
    if (const std::string answer = Receive(init.Get()); answer != "n") return answer.substr(1);
  std::string why = MakeWires(boards);
  if (!why.empty()) return why;
  for (const Descriptor &init : inits)
    if (send(init.Get(), "w", 1, MSG_NOSIGNAL) != 1) return Failure("the board has died");
  for (const Descriptor &init : inits)
    if (const std::string answer = Receive(init.Get()); answer != "r") return answer.substr(1);
  for (const Board &board : boards)
    if (std::string late = AwaitWires(board); !late.empty()) return late;
  return "";
}

std::string BootGroup(std::span<const Config> configs, std::vector<Board> &boards) {
  std::vector<Board> group;
  Inits inits;
  std::string why;
  for (const Config &config : configs)
    if (why.empty()) why = Start(config, group, inits);
  if (why.empty()) why = BootFromOutside(group, inits);
  boards.insert(boards.end(), group.begin(), group.end());
  return why;
}

}  // namespace

std::vector<Board> BootAll(const std::vector<Config> &configs, std::string &why) {
  std::vector<Board> boards;
  std::span<const Config> rest = configs;
  why.clear();
  while (why.empty() && !rest.empty()) {
    const size_t count = std::min(rest.size(), SIDE_BY_SIDE);
    why = BootGroup(rest.first(count), boards);
    rest = rest.subspan(count);
  }
  if (!why.empty()) HaltAll(boards);
  return boards;
}

std::optional<Board> Boot(const Config &config, std::string &why) {
  const std::vector<Board> boards = BootAll({config}, why);
  return boards.empty() ? std::nullopt : std::make_optional(boards[0]);
}

std::vector<Config> Network(int count, const Config &like) {
  std::vector<Config> configs(static_cast<size_t>(count), like);
  for (int i = 0; i < count; ++i) {
    Config &config = configs[static_cast<size_t>(i)];
    Interface &interface = config.interfaces[0];
    std::array<char, 32> text{};
    snprintf(text.data(), text.size(), "02:0b:4a:00:%02x:%02x", (0x10 + i) >> 8 & 0xff,
             (0x10 + i) & 0xff);
    interface.mac = text.data();
    snprintf(text.data(), text.size(), "192.168.%d.%d/23", 40 + (2 + i) / 256, (2 + i) % 256);
    if (!interface.address.empty()) interface.address = text.data();
    interface.client = "192.168.40.1/23";
    interface.bridge = BRIDGE;
    config.host_name = "brackenhold-" + std::to_string(i + 1);
  }
  return configs;
}

Board Attach(pid_t init) {
  Board board;
  board.init = init;
  board.root = "/proc/" + std::to_string(init) + "/root";
  board.config = WithDefaults({});
  return board;
}

void Halt(Board &board) {
  if (board.init <= 0) return;
  kill(board.init, SIGKILL);
  ReapChildren(board.init);
  waitpid(board.init, nullptr, 0);
  ReleaseWires(board);
  board = Board{};
}

// The kernel removes networks of boards that have died together in one go.
void HaltAll(std::vector<Board> &boards) {
  for (const Board &board : boards)
    if (board.init > 0) kill(board.init, SIGKILL);
  for (Board &board : boards)
    Halt(board);
  boards.clear();
}

}  // namespace board
