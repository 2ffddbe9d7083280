/* Answers ACP discover requests with what a reply cannot do without: each of the files that it
 * tells of read once, the host name asked for, one frame through a packet socket. */

#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "bench/bare_server.h"

enum { HEADERS = 42, REQUEST = 32, REPLY = 320 };

static const char *const files[] = {
    "/proc/net/dev",       "/proc/net/route",         "/proc/brackenhold",
    "/etc/samba/smb.conf", "/etc/network/interfaces", "/etc/brackenhold_release",
    "/etc/localtime",      "/etc/korvo/timer_status", "/etc/bh_servd.log",
};

static void ReadFiles(void) {
  char text[4096];
  size_t i;
  for (i = 0; i < sizeof(files) / sizeof(files[0]); ++i) {
    int fd = open(files[i], O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    while (read(fd, text, sizeof(text)) > 0) {
    }
    close(fd);
  }
}

static void ReadHostName(unsigned char *field) {
  char name[64] = "";
  FILE *output = popen("/bin/hostname", "re");
  if (output == NULL) return;
  if (fgets(name, sizeof(name), output) != NULL) memcpy(field, name, strnlen(name, 16));
  pclose(output);
}

static void ReadInterface(unsigned char *mac, unsigned char *address, unsigned char *netmask) {
  struct ifreq request;
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  memset(&request, 0, sizeof(request));
  strcpy(request.ifr_name, "eth0");
  ioctl(fd, SIOCGIFHWADDR, &request);
  memcpy(mac, request.ifr_hwaddr.sa_data, 6);
  ioctl(fd, SIOCGIFADDR, &request);
  memcpy(address, request.ifr_addr.sa_data + 2, 4);
  ioctl(fd, SIOCGIFNETMASK, &request);
  memcpy(netmask, request.ifr_netmask.sa_data + 2, 4);
  close(fd);
}

/* A frame that the client's stack accepts; a UDP checksum of 0 stands for none. */
static void FillFrame(unsigned char *frame, const unsigned char *request, in_port_t port) {
  static const unsigned char headers[HEADERS] = {
      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2,    0,    0,  0,  0,    2,    8, 0,
      0x45, 0,    0x01, 0x5C, 0,    0,    0,    0,    64, 17, 0x77, 0x90, 1, 1,
      1,    1,    0xFF, 0xFF, 0xFF, 0xFF, 0x59, 0x98, 0,  0,  0x01, 0x48, 0, 0};
  unsigned char *reply = frame + HEADERS;
  memset(frame, 0, HEADERS + REPLY);
  memcpy(frame, headers, HEADERS);
  memcpy(frame + 36, &port, sizeof(port));
  memcpy(reply, request, REQUEST);
  ReadInterface(frame + 6, reply + REQUEST, reply + REQUEST + 4);
  ReadHostName(reply + REQUEST + 16);
  ReadFiles();
}

int main(void) {
  int sock = ListenForRequests();
  for (;;) {
    unsigned char request[7500], frame[HEADERS + REPLY];
    struct sockaddr_in peer;
    socklen_t length = sizeof(peer);
    if (recvfrom(sock, request, sizeof(request), 0, (struct sockaddr *)&peer, &length) < REQUEST)
      continue;
    FillFrame(frame, request, peer.sin_port);
    SendFrame(frame, sizeof(frame));
  }
}
