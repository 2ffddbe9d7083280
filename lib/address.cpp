// IPv4 addresses in their three shapes.

#include "lib/address.h"

#include <arpa/inet.h>
#include <sys/socket.h>

in_addr AddressOf(uint32_t number) {
  return {htonl(number)};
}

std::string Dotted(in_addr address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address, text, sizeof(text));
  return text;
}

sockaddr_in SocketAddress(in_addr address) {
  sockaddr_in inet = {};
  inet.sin_family = AF_INET;
  inet.sin_addr = address;
  return inet;
}
