// The receiver closes the connection after the announced number of bytes. Only that shows that all
// of them arrived: data in this machine's socket may still be lost, and the appliance does not
// check the checksum of most images.

#include "client/upload.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

#include "acp/packet.h"
#include "client/exchange.h"
#include "client/format.h"
#include "lib/address.h"

namespace acp {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr std::chrono::seconds CONNECT_TIMEOUT{3};
constexpr Milliseconds RETRY_INTERVAL{50};
// The kernel doubles it. With a larger buffer, the progress would count unsent data.
constexpr int SEND_BUFFER = 128 * 1024;

constexpr const char *BROKEN =
    "the appliance ended the connection: its receiver was stopped, it ran out of memory or disk "
    "space, or it restarted; try again";

Outcome Fail(const std::string &why) {
  return Failure(Result::NO_ANSWER, why);
}

// A connection, or an attempt to connect.
struct Connection {
  Descriptor socket;
  Milliseconds timeout{0};
  int cancel = -1;
};

Outcome Wait(const Connection &connection, short events) {
  pollfd watched[] = {{connection.socket.Get(), events, 0}, {connection.cancel, POLLIN, 0}};
  const int ready = poll(watched, 2, static_cast<int>(connection.timeout.count()));
  if (IsCancelled(connection.cancel)) return Cancelled();
  return ready != 0 ? Outcome() : Fail("the appliance stopped receiving");
}

int SocketError(const Descriptor &socket) {
  int error = 0;
  socklen_t size = sizeof(error);
  return getsockopt(socket.Get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

// Binds to the interface, whatever the routing table says.
bool OpenSocket(const std::string &interface, Descriptor &socket) {
  socket = Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket.IsOpen()) return false;
  setsockopt(socket.Get(), SOL_SOCKET, SO_SNDBUF, &SEND_BUFFER, sizeof(SEND_BUFFER));
  return setsockopt(socket.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                    static_cast<socklen_t>(interface.size())) == 0;
}

// Returns 0 or an errno value.
int TryConnect(const Receiver &receiver, uint16_t port, Connection &connection) {
  if (!OpenSocket(receiver.interface, connection.socket)) return errno;
  sockaddr_in address = SocketAddress(AddressOf(receiver.address));
  address.sin_port = htons(port);
  if (connect(connection.socket.Get(), reinterpret_cast<const sockaddr *>(&address),
              sizeof(address)) == 0)
    return 0;
  if (errno != EINPROGRESS) return errno;
  return Wait(connection, POLLOUT).IsDone() ? SocketError(connection.socket) : ETIMEDOUT;
}

// A new appliance may have an address that no interface of this machine can reach.
std::string ConnectHint(const Receiver &receiver, int error) {
  if (error != ENETUNREACH && error != EHOSTUNREACH && error != ETIMEDOUT) return "";
  for (const Interface &interface : ListInterfaces()) {
    if (interface.name != receiver.interface) continue;
    for (size_t i = 0; i < interface.addresses.size(); ++i)
      if (((interface.addresses[i] ^ receiver.address) & interface.netmasks[i]) == 0) return "";
  }
  return "this machine has no address in the appliance's network: give " + receiver.interface +
         " one (ip address add), or give the appliance another with 'bhctl set --ip'";
}

Outcome Connect(const Receiver &receiver, Connection &connection) {
  const Clock::time_point last = Clock::now() + CONNECT_TIMEOUT;
  for (;;) {
    const int error = TryConnect(receiver, ACP_PORT, connection);  // the same number as for UDP
    if (error == 0) return {};
    if (IsCancelled(connection.cancel)) return Cancelled();
    if (error != ECONNREFUSED || Clock::now() >= last)
      return Failure(Result::NO_ANSWER,
                     "cannot connect to " + AddressText(receiver.address) + " port " +
                         std::to_string(ACP_PORT) + ": " + ErrorText(error),
                     ConnectHint(receiver, error));
    Pause(connection.cancel, RETRY_INTERVAL);
  }
}

Outcome SendPiece(const Connection &connection, Bytes piece) {
  while (!piece.empty()) {
    Outcome outcome = Wait(connection, POLLOUT);
    if (!outcome.IsDone()) return outcome;
    const ssize_t sent = send(connection.socket.Get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    if (sent >= 0)
      piece = piece.subspan(static_cast<size_t>(sent));
    else if (errno != EAGAIN && errno != EINTR)
      return Failure(Result::NO_ANSWER, "the connection broke: " + ErrorText(errno), BROKEN);
  }
  return {};
}

Outcome SendImage(const Connection &connection, const Image &image,
                  const UploadProgress &progress) {
  std::vector<uint8_t> buffer(IMAGE_PIECE);
  uint32_t checksum = 0;
  for (uint32_t at = 0; at < image.size;) {
    std::string why;
    const Bytes piece = ReadPiece(image, at, buffer, why);
    if (piece.empty()) return Fail(why);
    Outcome outcome = SendPiece(connection, piece);
    if (!outcome.IsDone()) return outcome;
    checksum = AddToChecksum(checksum, piece);
    at += static_cast<uint32_t>(piece.size());
    if (progress) progress(at);
  }
  return checksum == image.checksum ? Outcome() : Fail("the file changed during the upload");
}

Outcome AwaitEnd(const Connection &connection) {
  shutdown(connection.socket.Get(), SHUT_WR);
  ssize_t got = -1;
  do {
    Outcome outcome = Wait(connection, POLLIN);
    if (!outcome.IsDone()) return outcome;
    char byte = 0;
    got = recv(connection.socket.Get(), &byte, sizeof(byte), 0);
  } while (got < 0 && (errno == EAGAIN || errno == EINTR));
  if (got == 0) return {};
  if (got > 0) return Fail("the peer is not an image receiver");
  return Failure(Result::NO_ANSWER, "the connection broke: " + ErrorText(errno), BROKEN);
}

}  // namespace

Outcome Upload(const Image &image, const Receiver &receiver, const UploadProgress &progress) {
  Connection connection;
  connection.timeout = std::chrono::ceil<Milliseconds>(receiver.timeout);
  connection.cancel = receiver.cancel;
  Outcome outcome = Connect(receiver, connection);
  if (outcome.IsDone()) outcome = SendImage(connection, image, progress);
  return outcome.IsDone() ? AwaitEnd(connection) : outcome;
}

// A host that refuses the connection is there.
Outcome TryReach(const Receiver &receiver) {
  constexpr uint16_t UNUSED_PORT = 1;
  Connection connection;
  connection.timeout =
      std::min<Milliseconds>(std::chrono::ceil<Milliseconds>(receiver.timeout), CONNECT_TIMEOUT);
  connection.cancel = receiver.cancel;
  const int error = TryConnect(receiver, UNUSED_PORT, connection);
  if (IsCancelled(receiver.cancel)) return Cancelled();
  if (error == 0 || error == ECONNREFUSED) return {};
  return Failure(Result::NO_ANSWER,
                 AddressText(receiver.address) + " cannot be reached: " + ErrorText(error),
                 ConnectHint(receiver, error));
}

}  // namespace acp
