// Wires: a veth pair for each interface of a board, one end on the board and one at the caller,
// where it stands by itself or belongs to a bridge that joins several boards' wires.

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <map>
#include <string>
#include <vector>

#include "board/internal.h"

namespace board {

std::string ReadAll(int file) {
  std::string text;
  std::array<char, 1024> buffer{};
  ssize_t size = 0;
  lseek(file, 0, SEEK_SET);
  while ((size = read(file, buffer.data(), buffer.size())) > 0)
    text.append(buffer.data(), static_cast<size_t>(size));
  return text;
}

namespace {

// An ordinary user's PATH often lacks the directories that network tools are in.
[[noreturn]] void ExecTool(const std::vector<std::string> &argv) {
  std::vector<char *> arguments;
  arguments.reserve(argv.size() + 1);
  for (const std::string &argument : argv)
    arguments.push_back(const_cast<char *>(argument.c_str()));
  arguments.push_back(nullptr);
  setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
  unsetenv("LD_PRELOAD");
  execvp(arguments[0], arguments.data());
  const std::string line = Failure("cannot run " + argv[0]) + "\n";
  if (write(STDERR_FILENO, line.data(), line.size()) < 0) _exit(126);
  _exit(127);
}

}  // namespace

std::string RunTool(const std::vector<std::string> &argv, std::string_view input) {
  const Descriptor in(memfd_create("input", MFD_CLOEXEC));
  const Descriptor err(memfd_create("errors", MFD_CLOEXEC));
  if (!in.IsOpen() || !err.IsOpen() || write(in.Get(), input.data(), input.size()) < 0)
    return Failure("memfd_create");
  lseek(in.Get(), 0, SEEK_SET);
  const pid_t child = fork();
  if (child < 0) return Failure("fork");
  if (child == 0) {
    dup2(in.Get(), STDIN_FILENO);
    dup2(err.Get(), STDERR_FILENO);
    ExecTool(argv);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) return Failure("waitpid");
  if (status == 0) return "";
  return argv[0] + " failed: " + ReadAll(err.Get());
}

namespace {

// The ends get numbers that differ from each other: the kernel reports the carrier of a link at
// once only when its own number is not its peer's, and otherwise up to a second later.
constexpr int FIRST_WIRE_INDEX = 1001;

std::string AddressLine(const std::string &address, const std::string &device) {
  if (address.empty()) return "";
  return "address add " + address + " dev " + device + " brd +\n";
}

// The bridges at this caller, and how many wires each has.
std::map<std::string, int> bridges;

// A bridge of ports that come and go would change its MAC with them and leave it unknown to those
// who have just asked for it. It is up before it has ports: when the first one brings it a carrier,
// the kernel reports that at once, while a bridge that is raised with a carrier has to wait up to a
// second for it. It has no use for the groups of multicast that it could listen for.
std::string BridgeLines(const std::string &bridge, const std::string &client) {
  return "link add name " + bridge +
         " up address 02:0b:4a:00:00:01 type bridge stp_state 0 forward_delay 0 mcast_snooping "
         "0\n" +
         AddressLine(client, bridge);
}

std::string WireLines(const Interface &interface, const std::string &wire, int index, pid_t init) {
  const bool bridged = !interface.bridge.empty();
  std::string lines;
  if (bridged && bridges[interface.bridge]++ == 0)
    lines = BridgeLines(interface.bridge, interface.client);
  lines += "link add " + wire + " index " + std::to_string(index) + " up" +
           (bridged ? " master " + interface.bridge : "") + " type veth peer name " +
           interface.name + " address " + interface.mac + " netns " + std::to_string(init) + "\n";
  return bridged ? lines : lines + AddressLine(interface.client, wire);
}

}  // namespace

std::string MakeWires(std::vector<Board> &boards) {
  static int next = 0;
  std::string batch;
  for (Board &board : boards) {
    for (const Interface &interface : board.config.interfaces) {
      board.wires.push_back("wire" + std::to_string(next));
      batch += WireLines(interface, board.wires.back(), FIRST_WIRE_INDEX + next++, board.init);
    }
  }
  return RunTool({"ip", "-batch", "-"}, batch);
}

// A wire shows its carrier a moment before its bridge forwards to it; both happen under the
// kernel's network lock, which raising an interface that is up waits for.
std::string AwaitWires(const Board &board) {
  for (size_t i = 0; i < board.wires.size(); ++i) {
    const std::string &bridge = board.config.interfaces[i].bridge;
    if (!WaitForCarrier(board.wires[i])) return board.wires[i] + " has no carrier";
    if (!bridge.empty() && (!BringUp(bridge) || !WaitForCarrier(bridge)))
      return bridge + " has no carrier";
  }
  return "";
}

void ReleaseWires(const Board &board) {
  for (size_t i = 0; i < board.wires.size(); ++i) {
    WaitFor([&] { return if_nametoindex(board.wires[i].c_str()) == 0; });
    const std::string &bridge = board.config.interfaces[i].bridge;
    if (bridge.empty() || --bridges[bridge] > 0) continue;
    RunTool({"ip", "link", "delete", bridge}, "");
    bridges.erase(bridge);
  }
}

std::string BringUpInterfaces(const Config &config) {
  std::string batch;
  for (const Interface &interface : config.interfaces) {
    batch += AddressLine(interface.address, interface.name);
    batch += "link set " + interface.name + " up\n";
  }
  return RunTool({"ip", "-batch", "-"}, batch);
}

bool WaitForCarrier(const std::string &name) {
  const Descriptor socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  return WaitFor([&] {
    struct ifreq request {};
    name.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
    return ioctl(socket_fd.Get(), SIOCGIFFLAGS, &request) == 0 &&
           (request.ifr_flags & IFF_RUNNING) != 0;
  });
}

}  // namespace board
