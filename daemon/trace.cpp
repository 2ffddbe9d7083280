// Trace output; its destination is chosen anew for every line, since debug mode may change at any
// time.
//
// A trace may be a pipe or a terminal whose reader has stopped reading. A signal that asks for the
// end must get the server out of a write to it: writes are waited for in short looks, and past
// stdio, which would try once more at the exit. One that has begun is ended by a second signal.

#include "daemon/trace.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "daemon/state.h"

// The name by which the settings library knows DebugPrint, and looks for it.
extern "C" int32_t libbh_debug_print(const char *format, ...) __attribute__((format(printf, 1, 2)));

namespace {

constexpr size_t MAX_LINE = 8192;   // more than the texts of any datagram
constexpr int LOOK_INTERVAL = 200;  // milliseconds between two looks whether the server is to end

// In the foreground the trace belongs on the terminal, even with a trace file open.
int TraceDescriptor() {
  const bool foreground = (get_mode_flags() & MODE_NOFORK) != 0;
  const bool to_file = daemon_state.trace_fp != nullptr && !foreground;
  return to_file ? fileno(daemon_state.trace_fp) : STDOUT_FILENO;
}

bool TakesMoreWithin(int fd, int milliseconds) {
  struct pollfd trace = {.fd = fd, .events = POLLOUT, .revents = 0};
  const int ready = poll(&trace, 1, milliseconds);
  return ready > 0 || (ready < 0 && errno != EINTR);  // the write tells what is wrong
}

// Set once a line was cut at the end of the server.
volatile bool reader_is_stuck = false;

// False when the server is to end before the reader takes more.
bool AwaitReader(int fd) {
  if (reader_is_stuck) return false;
  while (!TakesMoreWithin(fd, daemon_state.exit_pending == 0 ? LOOK_INTERVAL : 0)) {
    if (daemon_state.exit_pending != 0) return false;
  }
  return true;
}

// A pipe that takes more takes PIPE_BUF bytes at once.
void Write(int fd, const char *text, size_t length) {
  while (length > 0 && AwaitReader(fd)) {
    const size_t piece = std::min<size_t>(length, PIPE_BUF);
    const ssize_t written = write(fd, text, piece);
    if (written == 0 || (written < 0 && errno != EINTR)) return;  // errors are nobody's to see
    const size_t taken = written < 0 ? 0 : static_cast<size_t>(written);
    reader_is_stuck = daemon_state.exit_pending != 0 && taken < piece;
    text += taken;
    length -= taken;
  }
}

int32_t Print(const char *format, va_list arguments) {
  if ((get_mode_flags() & MODE_DEBUG) == 0) return 0;
  char line[MAX_LINE] = "";
  const int length = vsnprintf(line, sizeof(line), format, arguments);
  const int fd = TraceDescriptor();
  if (fd == STDOUT_FILENO && AwaitReader(fd)) fflush(stdout);  // what was printed there before
  Write(fd, line, strlen(line));
  return length;
}

}  // namespace

int32_t DebugPrint(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = Print(format, arguments);
  va_end(arguments);
  return written;
}

int32_t libbh_debug_print(const char *format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int32_t written = Print(format, arguments);
  va_end(arguments);
  return written;
}

bool TakesMore(int fd) {
  return TakesMoreWithin(fd, 0);
}

int32_t open_trace_file(const char *path) {
  if (path == nullptr || path[0] == '\0') return -1;
  // A stream opened before stays open; nothing more is written to it.
  daemon_state.trace_fp = fopen(path, "we");
  return daemon_state.trace_fp != nullptr ? 0 : -1;
}
