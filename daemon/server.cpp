// Start of the server in its three modes, and the receive loop.

#include "daemon/server.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <utility>

#include "acp/dispatch.h"
#include "acp/packet.h"
#include "acp/request.h"
#include "daemon/pidfile.h"
#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/descriptor.h"

namespace {

constexpr char SERVER_VERSION[] = "bh_servd Ver.0.35";

// Holds the requests that arrive while one is answered. A reply takes some 25 ms on a multi-core
// host, and tools send bursts of hundreds. A longer queue would be of no use: after a few seconds
// the client has given up.
constexpr int RECEIVE_QUEUE = 256 * 1024;  // bytes

void CloseService(int32_t sock) {
  close(sock);
  daemon_state.sock = -1;
}

void AnnounceStart() {
  puts("start start_server()");
  fflush(stdout);
  DebugPrint("%s\n", SERVER_VERSION);
  syslog(LOG_INFO, "%s", SERVER_VERSION);
}

int32_t EnableBroadcast(int32_t sock) {
  const int enable = 1;
  if (setsockopt(sock, SOL_SOCKET, SO_BROADCAST, &enable, sizeof(enable)) == 0) return 0;
  syslog(LOG_EMERG, "start_server could not set broadcast option to socket: %s \n",
         strerror(errno));
  return -1;
}

void EnlargeReceiveQueue(int32_t sock) {
  const int size = RECEIVE_QUEUE;
  setsockopt(sock, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
}

int32_t ReadHardwareAddress(const char *ifname, int32_t sock, uint8_t *mac) {
  struct ifreq request = {};
  const size_t length = strlen(ifname);
  if (length >= sizeof(request.ifr_name)) {
    errno = ENODEV;  // a cut name could be another interface's
    return -1;
  }
  memcpy(request.ifr_name, ifname, length);
  if (ioctl(sock, SIOCGIFHWADDR, &request) != 0) return -1;
  memcpy(mac, request.ifr_hwaddr.sa_data, MAC_SIZE);
  return 0;
}

void RecordLaunch(const char *ifname, pid_t server) {
  if (WritePidFile(ifname, server) != 0) syslog(LOG_EMERG, "could not create pid file\n");
}

// Returns when the launcher has closed its end, which it does once the pid file is written: a
// server that ends at once must find the file that it has to remove.
void AwaitLauncher(const Descriptor &launched) {
  char nothing = 0;
  while (read(launched.Get(), &nothing, 1) < 0 && errno == EINTR) {
  }
}

void ServeHere(const char *ifname, int32_t sock, const uint8_t *if_mac) {
  ClaimServer();
  standalone_server(ifname, sock, if_mac);
}

void RunServerChild(const char *ifname, int32_t sock, const uint8_t *if_mac, Pipe launched) {
  launched.writer.Close();
  if (launched.reader.IsOpen()) AwaitLauncher(launched.reader);
  launched.reader.Close();
  ServeHere(ifname, sock, if_mac);
  DeletePidfile();
}

int32_t ServeInBackground(const char *ifname, int32_t sock, const uint8_t *if_mac) {
  Pipe launched;  // without one the server does not wait
  OpenPipe(launched);
  ChildSignalBlock block;
  const pid_t server = ForkChild();
  if (server > 0) RecordLaunch(ifname, server);
  if (server < 0) syslog(LOG_EMERG, "could not create child process\n");
  block.Release();
  if (server == 0) RunServerChild(ifname, sock, if_mac, std::move(launched));
  launched = {};
  if (server < 0) ServeHere(ifname, sock, if_mac);
  return 0;
}

int32_t BindService(int32_t sock) {
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_ANY);
  address.sin_port = htons(ACP_PORT);
  if (bind(sock, reinterpret_cast<struct sockaddr *>(&address), sizeof(address)) == 0) return 0;

  const char *reason = strerror(errno);
  DebugPrint("standalone_server > could not bind sock to device %s \n", reason);
  syslog(LOG_EMERG, "standalone_server > could not bind sock to device %s \n", reason);
  return -1;
}

// Receives one datagram; false when there was none. What an acceptable datagram shorter than the
// header leaves out is zero, never a part of the datagram before it. A shorter one keeps those
// bytes: with their address it passes the filter where the last one did, so that its refusal is
// traced.
bool ReceiveRequest(AcpRequest &request) {
  struct sockaddr_in peer = {};
  socklen_t peer_length = sizeof(peer);
  BeginWait();
  const ssize_t received = recvfrom(request.sock, request.packet, sizeof(request.packet), 0,
                                    reinterpret_cast<struct sockaddr *>(&peer), &peer_length);
  EndWait();
  if (received < 0) return false;

  const size_t length = static_cast<size_t>(received);
  if (length >= MINIMUM_PACKET && length < ACP_HEADER_SIZE)
    memset(request.packet + length, 0, ACP_HEADER_SIZE - length);
  request.recvlen = static_cast<int32_t>(received);
  request.peer_addr = peer.sin_addr.s_addr;
  request.peer_port = peer.sin_port;
  return true;
}

}  // namespace

int32_t start_server(const char *ifname, int32_t sock) {
  AnnounceStart();
  if (ifname == nullptr || ifname[0] == '\0') return -1;
  daemon_state.ip_id = static_cast<uint16_t>(time(nullptr));
  if (EnableBroadcast(sock) != 0) return -1;
  EnlargeReceiveQueue(sock);

  uint8_t if_mac[MAC_SIZE] = {};
  if (ReadHardwareAddress(ifname, sock, if_mac) != 0) {
    syslog(LOG_EMERG, "start_server SIOCSIFHWADDR :%s", strerror(errno));
    CloseService(sock);
    return -1;
  }
  if ((get_mode_flags() & MODE_NOSTANDALONE) != 0) {
    syslog(LOG_INFO, "no standalone mode\n");
    return 0;
  }
  syslog(LOG_INFO, "standalone mode \n");
  if ((get_mode_flags() & MODE_NOFORK) == 0) return ServeInBackground(ifname, sock, if_mac);
  ServeHere(ifname, sock, if_mac);
  return 0;
}

int32_t standalone_server(const char *ifname, int32_t sock, const uint8_t *if_mac) {
  DebugPrint("listen device name = %s\n", ifname);
  if (BindService(sock) != 0) {
    CloseService(sock);
    return 0;
  }
  AcpRequest request = {};
  request.sock = sock;
  memcpy(request.if_mac, if_mac, MAC_SIZE);
  for (;;) {
    if (ReceiveRequest(request)) dispatch(request);
  }
}
