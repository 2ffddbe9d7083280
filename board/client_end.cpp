// Client's end of the wire.

#include "board/client_end.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "board/internal.h"

namespace wire {

namespace {

constexpr uint16_t ACP_PORT = 22936;
constexpr uint16_t SPECIAL = 0x80A0, COMMAND = 0x8A10;
constexpr size_t SPECIAL_BODY = 48;  // room for the texts that most clients send
constexpr size_t COMMAND_TAIL = 3;   // a NUL and two bytes that nobody reads
constexpr std::string_view CLIENT_MAC = "02 0b 4a 00 00 01";

struct sockaddr_in Address(in_addr_t address, uint16_t port) {
  struct sockaddr_in result = {};
  result.sin_family = AF_INET;
  result.sin_addr.s_addr = htonl(address);
  result.sin_port = htons(port);
  return result;
}

int OpenCapture(const std::string &interface) {
  Descriptor capture(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL)));
  struct sockaddr_ll link = {};
  link.sll_family = AF_PACKET;
  link.sll_protocol = htons(ETH_P_ALL);
  link.sll_ifindex = static_cast<int>(if_nametoindex(interface.c_str()));
  const int size = 16 << 20;
  setsockopt(capture.Get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  const auto *address = reinterpret_cast<struct sockaddr *>(&link);
  return bind(capture.Get(), address, sizeof(link)) == 0 ? capture.Release() : -1;
}

void DrainCapture(Client &client) {
  Bytes frame(65536);
  ssize_t length = 0;
  while ((length = recv(client.capture, frame.data(), frame.size(), MSG_DONTWAIT)) >= 0) {
    client.frames.emplace_back(frame.begin(), frame.begin() + length);
  }
}

void PutU32(std::ofstream &file, uint32_t number) {
  file.write(reinterpret_cast<const char *>(&number), sizeof(number));
}

}  // namespace

Bytes Hex(std::string_view text) {
  Bytes bytes;
  std::string digits;
  for (const char c : text) {
    if (c == ' ') continue;
    digits += c;
    if (digits.size() < 2) continue;
    bytes.push_back(static_cast<uint8_t>(strtoul(digits.c_str(), nullptr, 16)));
    digits.clear();
  }
  return bytes;
}

Bytes Text(std::string_view text, size_t size) {
  Bytes bytes(text.begin(), text.end());
  if (size != text.npos) bytes.resize(size);
  return bytes;
}

uint32_t Number(const Bytes &bytes, size_t offset) {
  uint32_t number = 0;
  for (size_t i = 4; i-- > 0;)
    number = number << 8 | bytes[offset + i];
  return number;
}

void Append(Bytes &bytes, uint32_t number) {
  for (int shift = 0; shift < 32; shift += 8)
    bytes.push_back(static_cast<uint8_t>(number >> shift));
}

void Append(Bytes &bytes, const Bytes &more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}

Bytes Part(const Bytes &bytes, size_t offset, size_t length) {
  const uint8_t *start = bytes.data() + std::min(offset, bytes.size());
  const uint8_t *end = bytes.data() + bytes.size();
  return {start, start + std::min(length, static_cast<size_t>(end - start))};
}

Bytes Request(std::string_view head, const Bytes &body, std::string_view dst_mac) {
  Bytes bytes = Hex(head);
  Append(bytes, Hex(CLIENT_MAC));
  Append(bytes, Hex(dst_mac));
  Append(bytes, 0);
  Append(bytes, body);
  return bytes;
}

Bytes Request(uint16_t command, const Bytes &body, std::string_view dst_mac) {
  char head[64];
  const size_t size = body.size();
  snprintf(head, sizeof(head), "20 00 00 00 07 00 01 00 %02x %02x %02zx %02zx 00 00 00 00",
           command & 255, command >> 8, size & 255, size >> 8 & 255);
  return Request(head, body, dst_mac);
}

Bytes Special(uint8_t code, uint32_t extra, std::string_view text) {
  Bytes body = {code, 0, 0, 0};
  Append(body, extra);
  Append(body, Text(text));
  body.resize(std::max<size_t>(body.size(), SPECIAL_BODY));
  return Request(SPECIAL, body);
}

Bytes Command(uint32_t type, std::string_view text) {
  Bytes body;
  Append(body, static_cast<uint32_t>(text.size()));
  Append(body, type);
  Append(body, Text(text, text.size() + COMMAND_TAIL));
  return Request(COMMAND, body);
}

Client Open(const std::string &interface) {
  Client client;
  client.capture = OpenCapture(interface);
  client.socket = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const int on = 1;
  const int size = 4 << 20;
  setsockopt(client.socket, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
  setsockopt(client.socket, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  setsockopt(client.socket, SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
             static_cast<socklen_t>(interface.size()));
  struct sockaddr_in own = Address(INADDR_ANY, 0);
  socklen_t length = sizeof(own);
  if (bind(client.socket, reinterpret_cast<struct sockaddr *>(&own), sizeof(own)) != 0)
    perror("bind");
  getsockname(client.socket, reinterpret_cast<struct sockaddr *>(&own), &length);
  client.port = ntohs(own.sin_port);
  return client;
}

void Close(Client &client) {
  close(client.socket);
  close(client.capture);
}

void Send(const Client &client, const Bytes &datagram) {
  const struct sockaddr_in peer = Address(INADDR_BROADCAST, ACP_PORT);
  sendto(client.socket, datagram.data(), datagram.size(), 0,
         reinterpret_cast<const struct sockaddr *>(&peer), sizeof(peer));
}

std::optional<Bytes> Receive(const Client &client, milliseconds timeout) {
  struct pollfd wait = {client.socket, POLLIN, 0};
  if (poll(&wait, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
  Bytes payload(9000);
  const ssize_t length = recv(client.socket, payload.data(), payload.size(), 0);
  if (length < 0) return std::nullopt;
  payload.resize(static_cast<size_t>(length));
  return payload;
}

void Deliver(Client &client, const Bytes &datagram, AcpRequest &request) {
  client.frames.clear();
  request.peer_port = htons(client.port);
  request.recvlen = static_cast<int32_t>(datagram.size());
  std::copy(datagram.begin(), datagram.end(), request.packet);
}

std::vector<Bytes> ReplyFrames(Client &client) {
  DrainCapture(client);
  std::vector<Bytes> replies;
  for (const Bytes &frame : client.frames) {
    const bool udp = frame.size() >= 42 && frame[12] == 8 && frame[13] == 0 && frame[23] == 17;
    if (udp && (frame[36] << 8 | frame[37]) == client.port) replies.push_back(frame);
  }
  return replies;
}

void SavePcap(Client &client, const std::string &path) {
  DrainCapture(client);
  std::ofstream file(path, std::ios::binary);
  for (const uint32_t word : {0xA1B2C3D4U, 0x00040002U, 0U, 0U, 65535U, 1U})
    PutU32(file, word);
  for (const Bytes &frame : client.frames) {
    const uint32_t length = static_cast<uint32_t>(frame.size());
    for (const uint32_t word : {0U, 0U, length, length})
      PutU32(file, word);
    file.write(reinterpret_cast<const char *>(frame.data()), length);
  }
}

}  // namespace wire
