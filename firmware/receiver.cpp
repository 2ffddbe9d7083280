// The image receiver: one single-threaded select loop over the listening socket and its
// connections. It does not look at the peer's address.

#include "firmware/receiver.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <iterator>
#include <utility>

#include "acp/packet.h"
#include "daemon/interface.h"
#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "firmware/image.h"
#include "lib/descriptor.h"

namespace {

constexpr int BACKLOG = 1;
constexpr time_t SELECT_TIMEOUT = 10;  // seconds between two looks at nothing
constexpr size_t MAX_CONNECTIONS = 1024;

// Milliseconds.
constexpr int64_t STANDSTILL_TIMEOUT =
    10'000;  // of an upload whose end is asked for, before it is stopped
constexpr int64_t UPLOAD_TIMEOUT = 120'000;  // of such an upload in all
constexpr int START_TIMEOUT = 1000;          // until a new receiver listens
constexpr int64_t STOP_TIMEOUT = 1000;       // until a receiver has ended on a signal
constexpr long PROGRESS_INTERVAL = 100;      // between two looks at an upload's progress

// Bytes received so far, in memory that the daemon shares with its receivers. Null without memory:
// every upload then seems to stand still.
volatile uint32_t *progress = nullptr;

void ShareProgress() {
  if (progress == nullptr) {
    void *page =
        mmap(nullptr, sizeof(*progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, 0, 0);
    if (page != MAP_FAILED) progress = static_cast<volatile uint32_t *>(page);
  }
  if (progress != nullptr) *progress = 0;
}

// The segment that this receiver fills. A later update request replaces it; what is received here
// is then of no use.
int segment_id = -1;

// The end of a pipe that is closed once the receiver listens, or cannot: the client connects as
// soon as it has its answer.
int ready_pipe = -1;

uint32_t Progress() {
  return progress == nullptr ? 0 : *progress;
}

// The connections that wait to be read, and what select() needs to know of them.
struct Connections {
  std::array<int, MAX_CONNECTIONS> slots;
  int highest;  // slot in use
  fd_set watched;
};

void CloseAndExit(int) {
  for (const int fd : {daemon_state.recv_fd, daemon_state.listen_fd, daemon_state.accept_fd,
                       daemon_state.max_fd}) {
    if (fd != -1) close(fd);
  }
  _exit(0);
}

struct sockaddr_in ServiceAddress(int socket) {
  struct sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(ACP_PORT);
  address.sin_addr.s_addr = InterfaceAddress(socket, htonl(INADDR_ANY));
  return address;
}

// The socket does not block: a connection that is gone before it is accepted must not keep the
// others waiting. None, with a line in the trace, when it cannot be had.
Descriptor OpenServer() {
  Descriptor server(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!server.IsOpen()) {
    DebugPrint("could not open socket %s\n", strerror(errno));
    return server;
  }
  const struct sockaddr_in address = ServiceAddress(server.Get());
  const int on = 1;
  setsockopt(server.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  if (bind(server.Get(), reinterpret_cast<const struct sockaddr *>(&address), sizeof(address)) !=
      0) {
    const int error = errno;
    DebugPrint("could not bind address to socket: %s(%d)\n", strerror(error), error);
    return {};
  }
  if (listen(server.Get(), BACKLOG) != 0) {
    DebugPrint("could not turn listen state: %s\n", strerror(errno));
    return {};
  }
  return server;
}

// Those that have no room in the table or in the set are turned away.
void AddConnection(Connections &connections, int fd) {
  const auto slot = std::find(connections.slots.begin(), connections.slots.end(), -1);
  if (slot == connections.slots.end() || fd >= FD_SETSIZE) {
    close(fd);
    return;
  }
  *slot = fd;
  FD_SET(fd, &connections.watched);
  daemon_state.accept_fd = fd;
  daemon_state.max_fd = std::max(daemon_state.max_fd, fd);
  connections.highest =
      std::max(connections.highest, static_cast<int>(slot - connections.slots.begin()));
}

void Accept(Connections &connections) {
  const int fd = accept4(daemon_state.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd >= 0) {
    const int on = 1;  // else a client that vanished would be waited for for ever
    setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
    AddConnection(connections, fd);
  } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
    FD_CLR(daemon_state.listen_fd, &connections.watched);  // until the next time-out
  }
}

// Reads to the end of the stream, or until nothing is left to ask for. An error makes the whole
// upload empty.
uint32_t ReadUpload(int fd, uint8_t *buffer, uint32_t received, uint32_t size) {
  daemon_state.recv_fd = fd;
  while (received < size) {
    const ssize_t got = recv(fd, buffer + received, size - received, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) received = 0;
    if (got <= 0) break;
    received += static_cast<uint32_t>(got);
    if (progress != nullptr) *progress = received;
  }
  daemon_state.recv_fd = -1;
  return received;
}

// Closes `slot`'s connection. The signal handler must not close the descriptor once more: its
// number may be another's by then.
void DropConnection(Connections &connections, int &slot) {
  FD_CLR(slot, &connections.watched);
  if (daemon_state.accept_fd == slot) daemon_state.accept_fd = -1;
  close(slot);
  slot = -1;
}

// Reads every connection of `ready`, one after the other into the buffer. Returns whether there was
// one.
bool ReadReady(Connections &connections, const fd_set &ready, uint8_t *buffer, uint32_t size,
               uint32_t &received) {
  bool any = false;
  for (int i = 0; i <= connections.highest; ++i) {
    int &slot = connections.slots[static_cast<size_t>(i)];
    if (slot == -1 || !FD_ISSET(slot, &ready)) continue;
    received = ReadUpload(slot, buffer, received, size);
    DropConnection(connections, slot);
    any = true;
  }
  return any;
}

// Waits until a connection has been read, for ever if need be. The number of received bytes.
uint32_t TakeUpload(uint8_t *buffer, uint32_t size) {
  Connections connections = {};
  connections.slots.fill(-1);
  connections.highest = -1;
  FD_SET(daemon_state.listen_fd, &connections.watched);
  daemon_state.max_fd = daemon_state.listen_fd;
  uint32_t received = 0;
  bool taken = false;
  while (!taken) {
    fd_set ready = connections.watched;
    struct timeval timeout = {.tv_sec = SELECT_TIMEOUT, .tv_usec = 0};
    const int count = select(daemon_state.max_fd + 1, &ready, nullptr, nullptr, &timeout);
    const int error = errno;
    DebugPrint("tcp_recive_serv() 2.\n");
    if (count == 0) FD_SET(daemon_state.listen_fd, &connections.watched);
    if (count < 0 && error != EINTR) break;
    if (count <= 0) continue;
    if (FD_ISSET(daemon_state.listen_fd, &ready)) Accept(connections);
    taken = ReadReady(connections, ready, buffer, size, received);
  }
  return received;
}

void GiveUp(Segment segment, pid_t daemon) {
  segment.reset();
  RemoveSegment(segment_id);
  kill(daemon, SIGUSR1);
  DebugPrint("firm_recive() error.\n");
  syslog(LOG_NOTICE, "firm_recive() failed. exit(0)\n");
}

// A receiver without its daemon would hold the port for ever: it ends with it.
[[noreturn]] void Receive(uint32_t size, pid_t daemon) {
  struct sigaction action = {};
  sigemptyset(&action.sa_mask);
  action.sa_handler = CloseAndExit;
  sigaction(SIGTERM, &action, nullptr);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != daemon) _exit(0);

  Segment segment = AttachSegment(segment_id);
  if (!segment || tcp_recive_serv(segment.get(), size) != 0) {
    GiveUp(std::move(segment), daemon);
    _exit(0);
  }
  segment.reset();
  DebugPrint("firm_recive() 2.\n");
  syslog(LOG_NOTICE, "firm_recive() exit(0)\n");
  _exit(0);
}

int64_t Now() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

// Sleeps until a child has ended, or for a moment. SIGCHLD is held back but for this sleep, so that
// its handler, which collects the child, cannot run between the caller's look and the sleep. ppoll
// would not sleep at all on the appliance: with checks of buffers, glibc 2.36 reads its 64-bit
// times as 32-bit ones.
void AwaitAnyChild(const ChildSignalBlock &block) {
  const struct timespec moment = {.tv_sec = 0, .tv_nsec = PROGRESS_INTERVAL * 1'000'000};
  BeginWait();
  pselect(0, nullptr, nullptr, nullptr, &moment, &block.Previous());
  EndWait();
}

void AwaitReady(const Descriptor &pipe) {
  struct pollfd closed = {.fd = pipe.Get(), .events = POLLIN, .revents = 0};
  BeginWait();
  poll(&closed, 1, START_TIMEOUT);
  EndWait();
}

bool IsLive(pid_t child) {
  const auto &live = daemon_state.live_receivers;
  return child > 0 && std::find(std::begin(live), std::end(live), child) != std::end(live);
}

// Waits until `standstill` after the last byte received, or for `longest`. Returns whether the
// child has been collected.
bool AwaitCollected(pid_t child, int64_t standstill, int64_t longest) {
  const ChildSignalBlock block;
  const int64_t end = Now() + longest;
  uint32_t received = Progress();
  int64_t deadline = Now() + standstill;
  while (IsLive(child) && Now() < std::min(deadline, end)) {
    AwaitAnyChild(block);
    if (Progress() != received) deadline = Now() + standstill;
    received = Progress();
  }
  return !IsLive(child);
}

// With SIGCHLD held back a live receiver's number is nobody else's.
void Signal(pid_t child, int number) {
  const ChildSignalBlock block;
  if (IsLive(child)) kill(child, number);
}

// To its end: the way that closes its sockets first, then the one that nothing can hold up.
void End(pid_t child) {
  Signal(child, SIGTERM);
  while (!AwaitCollected(child, STOP_TIMEOUT, STOP_TIMEOUT))
    Signal(child, SIGKILL);
}

// The table of live receivers is kept in their order. Of more than it holds, each abandoned on an
// address that the appliance no longer has, the oldest goes.
void MakePlace() {
  const auto &live = daemon_state.live_receivers;
  while (std::count(std::begin(live), std::end(live), 0) == 0)
    End(live[0]);
}

// Under a hold: else the child's end could move a place meanwhile.
void AddLive(pid_t child) {
  auto &live = daemon_state.live_receivers;
  const auto free_place = std::remove(std::begin(live), std::end(live), 0);
  std::fill(free_place, std::end(live), 0);
  *free_place = child;
}

}  // namespace

int32_t tcp_recive_serv(uint8_t *buffer, uint32_t size) {
  DebugPrint("tcp_recive_serv() 1.\n");
  if (!RecordImageSize(0, true)) return -1;
  daemon_state.listen_fd = OpenServer().Release();
  if (daemon_state.listen_fd < 0) return -1;
  close(ready_pipe);
  const uint32_t received = TakeUpload(buffer, size);
  DebugPrint("tcp_recive_serv() 3.\n");
  close(daemon_state.listen_fd);
  daemon_state.listen_fd = -1;
  if (segment_id == -1 || FindImage() == segment_id) RecordImageSize(received, true);
  DebugPrint("tcp_recive_serv() total_size=%ld\n", static_cast<long>(received));
  return 0;
}

pid_t firm_recive(uint32_t size) {
  DebugPrint("firm_recive() \n");
  ShareProgress();
  segment_id = FindImage();
  Pipe ready;
  if (!OpenPipe(ready)) return -1;
  ready_pipe = ready.writer.Get();
  const pid_t daemon = getpid();
  MakePlace();
  ChildSignalBlock block;
  const pid_t child = ForkWorker();
  if (child == 0) {
    ready.reader.Close();
    Receive(size, daemon);
  }
  ready.writer.Close();
  if (child > 0) {
    AddLive(child);
    AwaitReady(ready.reader);
  }
  block.Release();
  DebugPrint("firm_recive() 3.\n");
  return child;
}

void AwaitReceiver(pid_t child) {
  if (!AwaitCollected(child, STANDSTILL_TIMEOUT, UPLOAD_TIMEOUT)) End(child);
}

void StopReceiver(pid_t child) {
  Signal(child, SIGTERM);
}

void StopReceiversBut(pid_t child) {
  for (const volatile pid_t &receiver : daemon_state.live_receivers) {
    const pid_t other = receiver;
    if (other != 0 && other != child) End(other);
  }
}
