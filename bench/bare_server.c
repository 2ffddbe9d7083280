/* Answers ACP requests with the system calls that the daemon's reply cannot do without and nothing
 * else. The argument says which: `ping` forks a child for the reply; `discover` reads each of the
 * files that it tells of once and asks for the host name; `exec` has a shell run `true`. Every
 * reply is one frame through a packet socket of its own. */

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

enum { HEADERS = 42, PACKET_HEADER = 32, PING = 32, DISCOVER = 320, EXEC = 43, LARGEST = DISCOVER };

static const char *const FILES[] = {
    "/proc/net/dev",       "/proc/net/route",         "/proc/brackenhold",
    "/etc/samba/smb.conf", "/etc/network/interfaces", "/etc/brackenhold_release",
    "/etc/localtime",      "/etc/korvo/timer_status", "/etc/bh_servd.log",
};

static int ListenForRequests(void) {
  struct sockaddr_in own;
  int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  memset(&own, 0, sizeof(own));
  own.sin_family = AF_INET;
  own.sin_port = htons(22936);
  if (bind(sock, (struct sockaddr *)&own, sizeof(own)) != 0) _exit(1);
  return sock;
}

static void SendFrame(const unsigned char *frame, size_t length) {
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

static void ReadFiles(void) {
  char text[4096];
  size_t i;
  for (i = 0; i < sizeof(FILES) / sizeof(FILES[0]); ++i) {
    int fd = open(FILES[i], O_RDONLY | O_CLOEXEC);
    if (fd < 0) continue;
    while (read(fd, text, sizeof(text)) > 0) {
    }
    close(fd);
  }
}

static void ReadOutput(const char *command, unsigned char *field) {
  char text[64] = "";
  FILE *output = popen(command, "re");
  if (output == NULL) return;
  if (fgets(text, sizeof(text), output) != NULL) memcpy(field, text, strnlen(text, 16));
  pclose(output);
}

static void ReadInterface(unsigned char *mac, unsigned char *addresses) {
  struct ifreq request;
  int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  memset(&request, 0, sizeof(request));
  strcpy(request.ifr_name, "eth0");
  ioctl(fd, SIOCGIFHWADDR, &request);
  memcpy(mac, request.ifr_hwaddr.sa_data, 6);
  if (addresses != NULL) {
    ioctl(fd, SIOCGIFADDR, &request);
    memcpy(addresses, request.ifr_addr.sa_data + 2, 4);
    ioctl(fd, SIOCGIFNETMASK, &request);
    memcpy(addresses + 4, request.ifr_netmask.sa_data + 2, 4);
  }
  close(fd);
}

static void Put16(unsigned char *field, unsigned number) {
  field[0] = (unsigned char)(number >> 8);
  field[1] = (unsigned char)number;
}

/* A frame that the client's stack accepts; a UDP checksum of 0 stands for none. 0x78EC is the
 * IP header's checksum for a length of 0. */
static void FillFrame(unsigned char *frame, const unsigned char *request, in_port_t port,
                      unsigned length) {
  static const unsigned char headers[HEADERS] = {
      0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 2,    0,    0,  0,  0, 2, 8, 0,
      0x45, 0,    0,    0,    0,    0,    0,    0,    64, 17, 0, 0, 1, 1,
      1,    1,    0xFF, 0xFF, 0xFF, 0xFF, 0x59, 0x98, 0,  0,  0, 0, 0, 0};
  memset(frame, 0, HEADERS + length);
  memcpy(frame, headers, HEADERS);
  Put16(frame + 16, length + 28);
  Put16(frame + 24, 0x78EC - (length + 28));
  memcpy(frame + 36, &port, sizeof(port));
  Put16(frame + 38, length + 8);
  memcpy(frame + HEADERS, request, PACKET_HEADER);
}

static void AnswerPing(unsigned char *frame) {
  pid_t child = fork();
  if (child == 0) {
    ReadInterface(frame + 6, NULL);
    SendFrame(frame, HEADERS + PING);
    _exit(0);
  }
  waitpid(child, NULL, 0);
}

static void AnswerDiscover(unsigned char *frame) {
  unsigned char *body = frame + HEADERS + PACKET_HEADER;
  ReadInterface(frame + 6, body);
  ReadOutput("/bin/hostname", body + 16);
  ReadFiles();
  SendFrame(frame, HEADERS + DISCOVER);
}

static void AnswerExec(unsigned char *frame) {
  ReadInterface(frame + 6, NULL);
  ReadOutput("true", frame + HEADERS + PACKET_HEADER + 8);
  SendFrame(frame, HEADERS + EXEC);
}

int main(int argc, char **argv) {
  int what = argc > 1 ? argv[1][0] : 0;
  unsigned length = what == 'p' ? PING : what == 'd' ? DISCOVER : EXEC;
  int sock = ListenForRequests();
  for (;;) {
    unsigned char request[7500], frame[HEADERS + LARGEST];
    struct sockaddr_in peer;
    socklen_t size = sizeof(peer);
    if (recvfrom(sock, request, sizeof(request), 0, (struct sockaddr *)&peer, &size) <
        PACKET_HEADER)
      continue;
    FillFrame(frame, request, peer.sin_port, length);
    if (what == 'p') AnswerPing(frame);
    if (what == 'd') AnswerDiscover(frame);
    if (what == 'e') AnswerExec(frame);
  }
}
