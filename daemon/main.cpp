// bh_servd: the appliance's management daemon. Start-up in its fixed order.

#include <fcntl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "daemon/options.h"
#include "daemon/pidfile.h"
#include "daemon/server.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "lib/descriptor.h"
#include "lib/libbh.h"

namespace {

constexpr char DEFAULT_INTERFACE[] = "eth0";
constexpr char PASSWORD_FILE[] = "/www/.htpasswd";
constexpr int EXIT_REFUSED = -1;

// Started with a standard descriptor closed, the service socket would take its place and the trace
// would go out as datagrams.
void EnsureStandardDescriptors() {
  int fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO)
    fd = dup(fd);
  const Descriptor spare(fd);
}

bool IsSupportedProduct(uint32_t id) {
  return id > 4 && id != 0x1001 && id != 0x1002;
}

int32_t OpenServiceSocket() {
  const int32_t sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (sock < 0) {
    syslog(LOG_EMERG, "start_server could not open socket: %s \n", strerror(errno));
    return -1;
  }
  const int enable = 1;
  setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &enable, sizeof(enable));
  return sock;
}

int Terminate(const char *name) {
  if (stop_daemon(name) == 0) {
    syslog(LOG_INFO, "Stopping bh_servd that is bound to %s\n", name);
  }
  return 0;
}

int Serve() {
  if ((get_mode_flags() & MODE_DEBUG) != 0) puts("start at debug mode");
  if (daemon_state.ifname.empty()) daemon_state.ifname = DEFAULT_INTERFACE;

  daemon_state.sock = OpenServiceSocket();
  if (daemon_state.sock == -1) return EXIT_REFUSED;
  if (PidFileExists(daemon_state.ifname)) {
    syslog(LOG_EMERG, "already runnging server on %s\n", daemon_state.ifname.c_str());
    return 0;
  }
  if (InstallChildHandler() != 0) {
    perror("SIGCLD Fail!");
    return EXIT_REFUSED;
  }
  start_server(daemon_state.ifname.c_str(), daemon_state.sock);
  if (daemon_state.sock != -1) close(daemon_state.sock);
  daemon_state.sock = -1;
  return 0;
}

}  // namespace

int main(int argc, char **argv) {
  EnsureStandardDescriptors();
  daemon_state.product_id = static_cast<uint32_t>(libbh_GetProductId());
  if (!IsSupportedProduct(daemon_state.product_id)) {
    printf("invalid productID. ID=%04X\n", daemon_state.product_id);
    return EXIT_REFUSED;
  }
  set_mode_flags(0);
  InstallSignalHandlers();
  openlog("bh_servd", LOG_PID, LOG_DAEMON);
  syslog(LOG_INFO, "startup daemon\n");
  memcpy(daemon_state.password_file, PASSWORD_FILE, sizeof(PASSWORD_FILE));

  const Options options = ParseOptions(argc, argv);
  switch (options.action) {
    case OptionAction::USAGE:
      usage();
      return 0;
    case OptionAction::VERSION:
      PrintVersion();
      return 0;
    case OptionAction::TERMINATE:
      return Terminate(options.terminate_name);
    case OptionAction::SERVE:
      break;
  }
  return Serve();
}
