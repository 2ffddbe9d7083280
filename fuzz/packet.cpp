// The way of datagrams from reception to reply. The input is a byte of what the client has obtained
// before, four of choices that the world makes, and datagrams one behind the other, each as long as
// its header says, the last to the end. What programs print and files hold is the input, too.

#include <sanitizer/asan_interface.h>

#include <ctime>

#include "access/keys.h"
#include "acp/dispatch.h"
#include "board/fuzz_stubs.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "fuzz/input.h"

using board::fuzz_stubs;

namespace {

constexpr size_t PREFIX = 5;

DaemonState StartState() {
  open_trace_file("/dev/null");
  daemon_state.ifname = "eth0";
  PutFile("/etc/passwords", "root:*\n");
  return daemon_state;
}

// Without a password file every password is accepted.
void Grant(uint8_t flags, const uint8_t *mac) {
  static constexpr uint32_t PRODUCTS[] = {0x10, 0x2001, 5, 0x2002};
  memcpy(daemon_state.enable_mac, mac, MAC_SIZE);
  daemon_state.enable_state = (flags & 1) != 0 ? 0 : -1;
  daemon_state.password_verified = (flags & 2) != 0 ? 0 : -1;
  set_mode_flags((flags & 1) * MODE_COMMAND_ENABLED | (flags >> 2 & 1) * MODE_DEBUG);
  if ((flags & 8) != 0) IssueKey(mac);
  if (KeyEntry *const entry = FindKey(mac)) entry->key = 0x12345678;  // the same in every run
  daemon_state.product_id = PRODUCTS[flags >> 4 & 3];
  const char *const passwords = (flags & 0x40) != 0 ? "/nowhere" : "/etc/passwords";
  CopyToField(daemon_state.password_file, sizeof(daemon_state.password_file), passwords);
}

// Takes a datagram off what is left, and gives its length. What lies behind it is not to be read.
size_t Receive(const uint8_t *data, size_t left) {
  if (left < ACP_HEADER_SIZE) return left;
  const auto number = [data](size_t at) {
    return static_cast<size_t>(data[at] | data[at + 1] << 8);
  };
  const size_t told =
      number(offsetof(ACPHeader, header_size)) + number(offsetof(ACPHeader, option_size));
  const size_t longest = std::min(left, RECEIVE_BUFFER);
  const size_t size = std::clamp(told, ACP_HEADER_SIZE, longest);
  alignas(8) static AcpRequest request = {.sock = -1, .peer_addr = 0x0128A8C0};
  ASAN_UNPOISON_MEMORY_REGION(request.packet, RECEIVE_BUFFER);
  memcpy(request.packet, data, size);
  request.recvlen = static_cast<int32_t>(size);
  ASAN_POISON_MEMORY_REGION(request.packet + size, RECEIVE_BUFFER - size);
  dispatch(request);
  return size;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const DaemonState start = StartState();
  if (size < PREFIX + ACP_HEADER_SIZE) return 0;
  daemon_state = start;
  Grant(data[0], data + PREFIX + offsetof(ACPHeader, src_mac));
  memcpy(&fuzz_stubs.choices, data + 1, sizeof(fuzz_stubs.choices));
  fuzz_stubs.output = InputText(data + PREFIX, size - PREFIX);
  for (const char *path : {"/var/tmp/results.txt", "/etc/korvo/diskinfo"})
    PutFile(path, fuzz_stubs.output);
  fuzz_stubs.running = true;
  if (sigsetjmp(fuzz_stubs.end, 1) == 0) {
    for (size_t at = PREFIX; at < size;)
      at += Receive(data + at, size - at);
  }
  fuzz_stubs.running = false;
  CleanKey(static_cast<uint32_t>(time(nullptr)) + 3600);
  return 0;
}
