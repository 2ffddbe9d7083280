// The client's end of the wire: raw datagrams out, replies and whole frames in.

#ifndef BH_BOARD_CLIENT_END_H_
#define BH_BOARD_CLIENT_END_H_

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "acp/request.h"

namespace wire {

using Bytes = std::vector<uint8_t>;
using std::chrono::milliseconds;

struct Client {
  int socket = -1;    // UDP, bound to the wire
  int capture = -1;   // every frame of the wire, both directions
  uint16_t port = 0;  // of the UDP socket
  std::vector<Bytes> frames;
};

// "20 00 ff": spaces are for the reader.
Bytes Hex(std::string_view text);

// The text's bytes, cut or filled with zeros to `size` where one is given.
Bytes Text(std::string_view text, size_t size = std::string_view::npos);

// Numbers have 32 bits, their least significant byte first.
uint32_t Number(const Bytes &bytes, size_t offset);
void Append(Bytes &bytes, uint32_t number);
void Append(Bytes &bytes, const Bytes &more);

Bytes Part(const Bytes &bytes, size_t offset, size_t length = SIZE_MAX);

// 16 header bytes up to the MAC addresses given literally as `head`, then the client's MAC,
// `dst_mac`, a zero result and the body.
Bytes Request(std::string_view head, const Bytes &body = {},
              std::string_view dst_mac = "ff ff ff ff ff ff");

// The same with a well-formed head.
Bytes Request(uint16_t command, const Bytes &body = {},
              std::string_view dst_mac = "ff ff ff ff ff ff");

// A special command by its code, with a number and a text.
Bytes Special(uint8_t code, uint32_t extra = 0, std::string_view text = {});

// A remote command: its length, its type, the text, and the three bytes that end it.
Bytes Command(uint32_t type, std::string_view text);

Client Open(const std::string &interface);
void Close(Client &client);
void Send(const Client &client, const Bytes &datagram);

// The next reply's payload, or nothing within the time.
std::optional<Bytes> Receive(const Client &client, milliseconds timeout = milliseconds(10000));

// Puts a datagram of the client's where the receive loop leaves it, for a daemon in this process.
// What lay behind it stays there, and the frames seen so far are forgotten.
void Deliver(Client &client, const Bytes &datagram, AcpRequest &request);

// The frames from the board to UDP port `client.port` seen so far.
std::vector<Bytes> ReplyFrames(Client &client);

// Writes all captured frames as a capture file.
void SavePcap(Client &client, const std::string &path);

}  // namespace wire

#endif  // BH_BOARD_CLIENT_END_H_
