// The namespaces of the process that boots boards. They are always of a user namespace of
// their own, for root too, so that no clock, mount or network of the machine is within reach.

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "board/internal.h"

namespace board {

std::string Failure(std::string_view what) {
  const int error = errno;
  return std::string(what) + ": " + strerror(error);
}

bool WriteText(const std::string &path, std::string_view text) {
  const Descriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
  return file.IsOpen() &&
         write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

std::string ProgramDirectory() {
  char path[PATH_MAX];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof(path));
  if (length <= 0) return ".";
  const std::string program(path, static_cast<size_t>(length));
  return program.substr(0, program.rfind('/'));
}

bool BringUp(const std::string &interface) {
  const Descriptor socket_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  struct ifreq request {};
  interface.copy(request.ifr_name, sizeof(request.ifr_name) - 1);
  if (ioctl(socket_fd.Get(), SIOCGIFFLAGS, &request) != 0) return false;
  request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
  return ioctl(socket_fd.Get(), SIOCSIFFLAGS, &request) == 0;
}

bool PrepareNetwork(const std::string &proc) {
  for (const char *which : {"all", "default"}) {
    const std::string ipv6 = proc + "/sys/net/ipv6/conf/" + which + "/disable_ipv6";
    if (access(ipv6.c_str(), F_OK) == 0 && !WriteText(ipv6, "1")) return false;
    if (!WriteText(proc + "/sys/net/ipv4/conf/" + which + "/rp_filter", "0")) return false;
  }
  return BringUp("lo");
}

namespace {

// Every id of this process's user namespace as itself: the file /proc/self/uid_map has lines of
// {first id inside, first id outside, count}.
std::string IdentityMap(const char *own_map) {
  std::ifstream file(own_map);
  std::ostringstream map;
  unsigned long inside = 0;
  unsigned long outside = 0;
  unsigned long count = 0;
  while (file >> inside >> outside >> count)
    map << inside << ' ' << inside << ' ' << count << '\n';
  return map.str();
}

// Whoever has unshared its user namespace has no rights left in the one above, so that the full map
// is written by a child that stayed there. It starts when it reads "+".
pid_t StartMapWriter(int start) {
  const std::string directory = "/proc/" + std::to_string(getpid());
  const std::string uids = IdentityMap("/proc/self/uid_map");
  const std::string gids = IdentityMap("/proc/self/gid_map");
  const pid_t child = fork();
  if (child != 0) return child;
  char byte = '-';
  const bool unshared = read(start, &byte, 1) == 1 && byte == '+';
  const bool done = unshared && WriteText(directory + "/gid_map", gids) &&
                    WriteText(directory + "/uid_map", uids);
  _exit(done || !unshared ? 0 : errno);
}

bool WriteOwnMap(uid_t uid, gid_t gid) {
  return WriteText("/proc/self/setgroups", "deny") &&
         WriteText("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") &&
         WriteText("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
}

std::string WhyNoNamespace() {
  if (errno == ENOSPC)
    return Failure(
        "no further user namespace: raise the sysctl "
        "user.max_user_namespaces (and user.max_net_namespaces)");
  return Failure(
      "a board needs user namespaces, which are not allowed here: set the sysctl "
      "kernel.unprivileged_userns_clone=1 or "
      "kernel.apparmor_restrict_unprivileged_userns=0, run as root, leave the chroot, or "
      "start the container with --privileged");
}

// As root: unshare, and have all ids mapped by the child.
bool EnterAsRoot(std::string &why) {
  Pipe start;
  const pid_t writer = OpenPipe(start) ? StartMapWriter(start.reader.Get()) : -1;
  if (writer < 0) {
    why = Failure("cannot start a child");
    return false;
  }
  const bool unshared = unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) == 0;
  if (!unshared) why = WhyNoNamespace();
  int status = 0;
  if (write(start.writer.Get(), unshared ? "+" : "-", 1) != 1) {
    why = Failure("pipe");
    return false;
  }
  waitpid(writer, &status, 0);
  if (!unshared) return false;
  errno = WIFEXITED(status) ? WEXITSTATUS(status) : EIO;
  if (errno != 0)
    why = Failure(
        "root may not map its ids into a user namespace here (the "
        "capabilities SETUID and SETGID are missing)");
  return errno == 0;
}

bool EnterAsUser(std::string &why) {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  const bool entered =
      unshare(CLONE_NEWUSER | CLONE_NEWNET | CLONE_NEWNS) == 0 && WriteOwnMap(uid, gid);
  if (!entered) why = WhyNoNamespace();
  return entered;
}

}  // namespace

bool EnterNamespaces(std::string &why) {
  if (!(geteuid() == 0 ? EnterAsRoot(why) : EnterAsUser(why))) return false;
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    why = WhyNoNamespace();
    return false;
  }
  if (PrepareNetwork("/proc")) return true;
  why = Failure("the network of a namespace cannot be set up (is /proc/sys read-only here?)");
  return false;
}

}  // namespace board
