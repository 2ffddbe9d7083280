// The launcher writes the pid file. The server removes it at its end, or the process that stops it.

#include "daemon/pidfile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/descriptor.h"

std::string PidFilePath(const std::string &ifname) {
  return "/var/run/bh_servd-" + ifname + ".pid";
}

bool PidFileExists(const std::string &ifname) {
  struct stat status = {};
  return stat(PidFilePath(ifname).c_str(), &status) == 0;
}

int32_t WritePidFile(const std::string &ifname, pid_t pid) {
  const std::string path = PidFilePath(ifname);
  const std::string fresh = path + "." + std::to_string(pid);
  Descriptor file(open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
  if (!file.IsOpen()) return -1;
  const bool written = dprintf(file.Get(), "%d", pid) > 0;
  // A server that is just ending removes a file in which it finds no process.
  if (file.Close() == 0 && written && rename(fresh.c_str(), path.c_str()) == 0) return 0;
  unlink(fresh.c_str());
  return -1;
}

pid_t ReadPid(const char *path) {
  const Descriptor file(open(path, O_RDONLY | O_CLOEXEC));
  if (!file.IsOpen()) return 0;
  char text[32] = "";
  const ssize_t length = read(file.Get(), text, sizeof(text) - 1);
  const long long number = length > 0 ? strtoll(text, nullptr, 10) : 0;
  return number > 1 && number <= INT_MAX ? static_cast<pid_t>(number) : 0;
}

bool IsOwnPidFile(const char *path) {
  if (access(path, F_OK) != 0) return false;
  const pid_t pid = ReadPid(path);
  return pid == 0 || pid == getpid() || (kill(pid, 0) != 0 && errno == ESRCH);
}

int32_t DeletePidfile() {
  syslog(LOG_NOTICE, "DeletePidfile()");
  if (daemon_state.ifname.empty()) return -1;
  const std::string path = PidFilePath(daemon_state.ifname);
  return IsOwnPidFile(path.c_str()) ? remove(path.c_str()) : -1;
}

int32_t stop_daemon(const char *name) {
  const std::string path = PidFilePath(name);
  if (access(path.c_str(), R_OK) != 0) {
    const char *reason = strerror(errno);
    syslog(LOG_EMERG, "could not open pid file: %s\n", reason);
    DebugPrint("could not open pid file: %s\n", reason);
    return -1;
  }
  const pid_t pid = ReadPid(path.c_str());
  remove(path.c_str());
  if (pid != 0) kill(pid, SIGTERM);
  syslog(LOG_EMERG, "stop_daemon() exit kv_servd.\n");
  DebugPrint("stop_daemon() exit kv_servd.\n");
  return 0;
}
