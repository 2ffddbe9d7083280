/* Answers ACP pings with the system calls of the daemon's way and nothing else: receive, fork, MAC
 * look-ups, packet socket, address look-up, send, wait. */

#include <net/if.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bench/bare_server.h"

enum { HEADERS = 42, PING = 32 };

static void ReadMac(unsigned char *mac) {
  struct ifreq request;
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  memset(&request, 0, sizeof(request));
  strcpy(request.ifr_name, "eth0");
  ioctl(fd, SIOCGIFHWADDR, &request);
  memcpy(mac, request.ifr_hwaddr.sa_data, 6);
  close(fd);
}

/* A frame that the client's stack accepts; a UDP checksum of 0 stands for none. */
static void FillFrame(unsigned char *frame, const unsigned char *request, in_port_t port) {
  static const unsigned char headers[HEADERS] = {
      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2,    0,    0,  0,  0,    2,    8, 0,
      0x45, 0,    0,    60,   0,    0,    0,    0,    64, 17, 0x78, 0xB0, 1, 1,
      1,    1,    0xFF, 0xFF, 0xFF, 0xFF, 0x59, 0x98, 0,  0,  0,    40,   0, 0};
  memcpy(frame, headers, HEADERS);
  memcpy(frame + 36, &port, sizeof(port));
  memcpy(frame + HEADERS, request, PING);
  ReadMac(frame + 6);
}

int main(void) {
  int sock = ListenForRequests();
  for (;;) {
    unsigned char request[7500], frame[HEADERS + PING];
    struct sockaddr_in peer;
    socklen_t length = sizeof(peer);
    pid_t child;
    if (recvfrom(sock, request, sizeof(request), 0, (struct sockaddr *)&peer, &length) < PING)
      continue;
    child = fork();
    if (child == 0) {
      FillFrame(frame, request, peer.sin_port);
      SendFrame(frame, sizeof(frame));
      _exit(0);
    }
    waitpid(child, NULL, 0);
  }
}
