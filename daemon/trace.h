// The trace: printf-style lines about every request and reply, written in debug mode only.

#ifndef BH_DAEMON_TRACE_H_
#define BH_DAEMON_TRACE_H_

#include <cstdint>

// Rules that open a request's block of lines.
constexpr const char *TRACE_DASH_RULE = "--------------------------------------";
constexpr const char *TRACE_STAR_RULE = "**************************************\r\n";

// Writes one line exactly as given, at once. Returns its characters, 0 when debug mode is off. Once
// the server is to end, what the trace's reader does not take at once is left out, and all that
// follows it.
int32_t DebugPrint(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Whether a write of a short line to `fd` need not wait. Only a terminal may say so wrongly.
bool TakesMore(int fd);

// Opens the trace file of -a, truncating it. Returns 0, or -1 when `path` is missing, empty or
// cannot be created; the trace then goes to standard output.
int32_t open_trace_file(const char *path);

#endif  // BH_DAEMON_TRACE_H_
