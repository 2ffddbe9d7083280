// The trace: printf-style lines about every request and reply, written in debug mode only.

#ifndef BH_DAEMON_TRACE_H_
#define BH_DAEMON_TRACE_H_

#include <cstdint>

// Rules that open a request's block of lines.
constexpr const char *TRACE_DASH_RULE = "--------------------------------------";
constexpr const char *TRACE_STAR_RULE = "**************************************\r\n";

// Writes one line exactly as given and flushes it. Returns the characters written, 0 when debug
// mode is off. C linkage, so that the settings library can refer to it weakly.
extern "C" int32_t DebugPrint(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Opens the trace file of -a, truncating it. Returns 0, or -1 when `path` is missing, empty or
// cannot be created; the trace then goes to standard output.
int32_t open_trace_file(const char *path);

#endif  // BH_DAEMON_TRACE_H_
