// A remote command whose output comes in the reply, beside a bare server that runs the same by
// popen and sends a frame.

#include <unistd.h>

#include <cstring>

#include "bench/round_trip.h"
#include "daemon/state.h"

namespace {

// `true`, captured: its length, its type, the text, its NUL and the two bytes behind it.
constexpr char HEAD[] = "20 00 00 00 07 00 01 00 10 8A 0F 00 00 00 00 00";
constexpr char BODY[] = "04 00 00 00 03 00 00 00 74 72 75 65 00 00 00";

int ServeEnabled() {
  daemon_state.enable_state = 0;
  memcpy(daemon_state.enable_mac, CLIENT_MAC, sizeof(CLIENT_MAC));
  set_mode_flags(MODE_COMMAND_ENABLED);
  return ServeHere();
}

int ServeBare() {
  return execl(BARE_SERVER_PATH, "bare_server", "exec", nullptr);
}

wire::Bytes TrueCaptured() {
  return wire::Request(HEAD, wire::Hex(BODY));
}

void Exec(benchmark::State &state) {
  MeasureFunction(state, ServeEnabled, TrueCaptured());
}

void BareExec(benchmark::State &state) {
  MeasureFunction(state, ServeBare, TrueCaptured());
}

BENCHMARK(Exec)->Name("exec")->UseRealTime()->MinTime(LEAST_SECONDS);
BENCHMARK(BareExec)->Name("exec/bare")->UseRealTime()->MinTime(LEAST_SECONDS);

}  // namespace
