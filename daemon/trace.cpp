// Trace output; its destination is chosen anew for every line, since debug mode may change at any
// time.

#include "daemon/trace.h"

#include <cstdarg>
#include <cstdio>

#include "daemon/state.h"

namespace {

// In the foreground the trace belongs on the terminal, even with a trace file open.
FILE *TraceStream() {
  const bool foreground = (get_mode_flags() & MODE_NOFORK) != 0;
  return daemon_state.trace_fp != nullptr && !foreground ? daemon_state.trace_fp : stdout;
}

}  // namespace

int32_t DebugPrint(const char *format, ...) {
  if ((get_mode_flags() & MODE_DEBUG) == 0) return 0;

  FILE *stream = TraceStream();
  va_list arguments;
  va_start(arguments, format);
  const int written = vfprintf(stream, format, arguments);
  va_end(arguments);
  fflush(stream);
  return written;
}

int32_t open_trace_file(const char *path) {
  if (path == nullptr || path[0] == '\0') return -1;
  // A stream opened before stays open; nothing more is written to it.
  daemon_state.trace_fp = fopen(path, "we");
  return daemon_state.trace_fp != nullptr ? 0 : -1;
}
