// The receiver closes the connection after the announced number of bytes. Only that shows that all
// of them arrived: data in this machine's socket may still be lost, and the appliance does not
// check the checksum of most images.

#include "tools/bhctl/upload.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "acp/packet.h"
#include "lib/address.h"
#include "tools/bhctl/interrupt.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr std::chrono::seconds CONNECT_TIMEOUT{3};
constexpr Milliseconds RETRY_INTERVAL{50};
// The kernel doubles it. With a larger buffer, the progress would count unsent data.
constexpr int SEND_BUFFER = 128 * 1024;

constexpr Milliseconds PROGRESS_INTERVAL{100};
constexpr size_t LINE_WIDTH = 60;  // a shorter line must overwrite the previous one
constexpr uint64_t QUARTERS = 4;

struct Progress {
  uint64_t total = 0;  // bytes
  bool quiet = false;
  bool terminal = false;
  Clock::time_point begun = {};
  Clock::time_point shown = {};
  uint64_t quarters = 0;  // already shown
};

std::string PercentText(uint64_t sent, uint64_t total) {
  return std::to_string(sent * 100 / total) + "%";
}

std::string LeftText(uint64_t seconds) {
  char text[32];
  snprintf(text, sizeof(text), "%u:%02u left", static_cast<unsigned int>(seconds / 60),
           static_cast<unsigned int>(seconds % 60));
  return text;
}

void ShowLine(const Progress &progress, uint64_t sent) {
  const auto elapsed = std::chrono::duration_cast<Milliseconds>(progress.shown - progress.begun);
  std::string line = ProgressText(sent, progress.total, elapsed);
  line.resize(std::max(line.size(), LINE_WIDTH), ' ');
  fprintf(stderr, "\r%s", line.c_str());
}

void ShowQuarter(const Progress &progress) {
  fprintf(stderr, "uploaded %s of %s\n", PercentText(progress.quarters, QUARTERS).c_str(),
          SizeText(progress.total).c_str());
}

void Show(Progress &progress, uint64_t sent) {
  if (progress.quiet) return;
  const Clock::time_point now = Clock::now();
  const uint64_t quarters = sent * QUARTERS / progress.total;
  if (progress.terminal && (now >= progress.shown + PROGRESS_INTERVAL || sent == progress.total)) {
    progress.shown = now;
    ShowLine(progress, sent);
  } else if (!progress.terminal && quarters > progress.quarters) {
    progress.quarters = quarters;
    ShowQuarter(progress);
  }
}

bool Fail(const std::string &what, std::string &why) {
  why = what;
  return false;
}

// A connection, or an attempt to connect.
struct Connection {
  Descriptor socket;
  Milliseconds timeout{0};
  const Descriptor *interrupt = nullptr;
};

bool Wait(const Connection &connection, short events, std::string &why) {
  pollfd watched[] = {{connection.socket.Get(), events, 0},
                      {connection.interrupt->Get(), POLLIN, 0}};
  const int ready = poll(watched, 2, static_cast<int>(connection.timeout.count()));
  if (Interrupted(*connection.interrupt)) return Fail("interrupted", why);
  return ready != 0 || Fail("the appliance stopped receiving", why);
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
int TryConnect(const Receiver &receiver, Connection &connection) {
  if (!OpenSocket(receiver.interface, connection.socket)) return errno;
  sockaddr_in address = SocketAddress(AddressOf(receiver.address));
  address.sin_port = htons(ACP_PORT);  // the same number as for UDP
  if (connect(connection.socket.Get(), reinterpret_cast<const sockaddr *>(&address),
              sizeof(address)) == 0)
    return 0;
  if (errno != EINPROGRESS) return errno;
  std::string why;
  return Wait(connection, POLLOUT, why) ? SocketError(connection.socket) : ETIMEDOUT;
}

bool Connect(const Receiver &receiver, Connection &connection, std::string &why) {
  const Clock::time_point last = Clock::now() + CONNECT_TIMEOUT;
  for (;;) {
    const int error = TryConnect(receiver, connection);
    if (error == 0) return true;
    if (Interrupted(*connection.interrupt)) return Fail("interrupted", why);
    if (error != ECONNREFUSED || Clock::now() >= last)
      return Fail("cannot connect to " + AddressText(receiver.address) + " port " +
                      std::to_string(ACP_PORT) + ": " + strerror(error),
                  why);
    pollfd interrupt = {connection.interrupt->Get(), POLLIN, 0};
    poll(&interrupt, 1, static_cast<int>(RETRY_INTERVAL.count()));
  }
}

bool SendPiece(const Connection &connection, Bytes piece, std::string &why) {
  while (!piece.empty()) {
    if (!Wait(connection, POLLOUT, why)) return false;
    const ssize_t sent = send(connection.socket.Get(), piece.data(), piece.size(), MSG_NOSIGNAL);
    if (sent >= 0)
      piece = piece.subspan(static_cast<size_t>(sent));
    else if (errno != EAGAIN && errno != EINTR)
      return Fail(strerror(errno), why);
  }
  return true;
}

bool SendImage(const Connection &connection, const Image &image, Progress &progress,
               std::string &why) {
  std::vector<uint8_t> buffer(IMAGE_PIECE);
  uint32_t checksum = 0;
  for (uint32_t at = 0; at < image.size;) {
    const Bytes piece = ReadPiece(image, at, buffer, why);
    if (piece.empty() || !SendPiece(connection, piece, why)) return false;
    checksum = AddToChecksum(checksum, piece);
    at += static_cast<uint32_t>(piece.size());
    Show(progress, at);
  }
  return checksum == image.checksum || Fail("the file changed during the upload", why);
}

bool AwaitEnd(const Connection &connection, std::string &why) {
  shutdown(connection.socket.Get(), SHUT_WR);
  ssize_t got = -1;
  do {
    if (!Wait(connection, POLLIN, why)) return false;
    char byte = 0;
    got = recv(connection.socket.Get(), &byte, sizeof(byte), 0);
  } while (got < 0 && (errno == EAGAIN || errno == EINTR));
  if (got == 0) return true;
  return Fail(got < 0 ? strerror(errno) : "the peer is not an image receiver", why);
}

}  // namespace

std::string ProgressText(uint64_t sent, uint64_t total, Milliseconds elapsed) {
  std::string text =
      "  " + SizeText(sent) + " of " + SizeText(total) + "  " + PercentText(sent, total);
  const auto milliseconds = static_cast<uint64_t>(elapsed.count());
  if (sent == 0 || milliseconds == 0) return text;
  return text + "  " + SizeText(sent * 1000 / milliseconds) + "/s  " +
         LeftText((total - sent) * milliseconds / sent / 1000);
}

bool Upload(const Image &image, const Receiver &receiver, bool quiet, const Descriptor &interrupt,
            std::string &why) {
  Connection connection;
  connection.timeout = std::chrono::ceil<Milliseconds>(receiver.timeout);
  connection.interrupt = &interrupt;
  if (!Connect(receiver, connection, why)) return false;
  Progress progress = {image.size, quiet, isatty(STDERR_FILENO) == 1, Clock::now()};
  const bool sent = SendImage(connection, image, progress, why) && AwaitEnd(connection, why);
  if (progress.terminal && progress.shown != Clock::time_point()) fputc('\n', stderr);
  return sent;
}

}  // namespace bhctl
