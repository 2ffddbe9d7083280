// Wires: a veth pair for each interface of a board, one end on the board and one at the caller.

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "board/pieces.h"

namespace board {

static std::string ReadAll(int file) {
  std::string text;
  std::array<char, 1024> buffer{};
  ssize_t size = 0;
  lseek(file, 0, SEEK_SET);
  while ((size = read(file, buffer.data(), buffer.size())) > 0)
    text.append(buffer.data(), static_cast<size_t>(size));
  return text;
}

// An ordinary user's PATH often lacks the directories that network tools are in.
[[noreturn]] static void ExecTool(const std::vector<std::string> &argv) {
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

std::string RunTool(const std::vector<std::string> &argv, std::string_view input) {
  const Descriptor in(memfd_create("input", MFD_CLOEXEC));
  const Descriptor err(memfd_create("errors", MFD_CLOEXEC));
  if (in.fd < 0 || err.fd < 0 || write(in.fd, input.data(), input.size()) < 0)
    return Failure("memfd_create");
  lseek(in.fd, 0, SEEK_SET);
  const pid_t child = fork();
  if (child < 0) return Failure("fork");
  if (child == 0) {
    dup2(in.fd, STDIN_FILENO);
    dup2(err.fd, STDERR_FILENO);
    ExecTool(argv);
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child) return Failure("waitpid");
  if (status == 0) return "";
  return argv[0] + " failed: " + ReadAll(err.fd);
}

// The ends get numbers that differ from each other: the kernel reports the carrier of a link at
// once only when its own number is not its peer's, and otherwise up to a second later.
constexpr int kFirstWireIndex = 1001;

static std::string AddressLine(const std::string &address, const std::string &device) {
  if (address.empty()) return "";
  return "address add " + address + " dev " + device + " brd +\n";
}

std::string MakeWires(const Config &config, pid_t init, std::vector<std::string> *wires) {
  static int next = 0;
  std::string batch;
  for (const Interface &interface : config.interfaces) {
    const std::string wire = "wire" + std::to_string(next);
    wires->push_back(wire);
    batch += "link add " + wire + " index " + std::to_string(kFirstWireIndex + next++) +
             " type veth peer name " + interface.name + " address " + interface.mac + " netns " +
             std::to_string(init) + "\n";
    batch += AddressLine(interface.client, wire);
    batch += "link set " + wire + " up\n";
  }
  return RunTool({"ip", "-batch", "-"}, batch);
}

std::string RaiseInterfaces(const Config &config) {
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
    name.copy(request.ifr_name, sizeof request.ifr_name - 1);
    return ioctl(socket_fd.fd, SIOCGIFFLAGS, &request) == 0 &&
           (request.ifr_flags & IFF_RUNNING) != 0;
  });
}

}  // namespace board
