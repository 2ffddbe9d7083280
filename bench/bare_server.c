/* The calls that a reply costs whatever it holds. */

#include "bench/bare_server.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

int ListenForRequests(void) {
  struct sockaddr_in own;
  int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  memset(&own, 0, sizeof(own));
  own.sin_family = AF_INET;
  own.sin_port = htons(22936);
  if (bind(sock, (struct sockaddr *)&own, sizeof(own)) != 0) _exit(1);
  return sock;
}

void SendFrame(const unsigned char *frame, size_t length) {
  const int on = 1;
  struct ifreq request;
  struct sockaddr_ll link;
  int fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_IP));
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
  memset(&link, 0, sizeof(link));
  link.sll_family = AF_PACKET;
  link.sll_protocol = htons(ETH_P_IP);
  link.sll_ifindex = (int)if_nametoindex("eth0");
  if (bind(fd, (struct sockaddr *)&link, sizeof(link)) != 0) _exit(1);
  memset(&request, 0, sizeof(request));
  strcpy(request.ifr_name, "eth0");
  ioctl(fd, SIOCGIFADDR, &request);
  link.sll_halen = 6;
  memset(link.sll_addr, 0xFF, 6);
  sendto(fd, frame, length, 0, (struct sockaddr *)&link, sizeof(link));
  close(fd);
}
