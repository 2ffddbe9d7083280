// What the tests of firmware updates share: the appliance as it is before an update, the requests
// that a client sends, and its uploads.

#ifndef BH_TESTS_FIRMWARE_FIXTURE_H_
#define BH_TESTS_FIRMWARE_FIXTURE_H_

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "access/cipher.h"
#include "access/keys.h"
#include "acp/dispatch.h"
#include "board/board.h"
#include "board/client_end.h"
#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "firmware/image.h"
#include "lib/shell.h"
#include "tests/files.h"

namespace fixture {

using std::string;
using wire::Bytes;

// Replies, each as "COMMAND:STATE ".
inline const string STARTED = "C080:00000000 ";
inline const string REFUSED = "C070:FFFFFFFF ";
inline const string INSTALLED = "C070:00000000 C071:00000000 ";
inline const string FAILED = "C070:00000000 C071:FFFFFFFF ";

constexpr char CALLS[] = "/var/log/calls";
constexpr char ERASE[] = "/run/stand-ins/eraseall";
constexpr char RAID_LIMIT[] = "/proc/sys/dev/raid/speed_limit_max";
constexpr char SEGMENT_LIMIT[] = "/proc/sys/kernel/shmmax";
constexpr char TRACE[] = "/tmp/trace";

constexpr uint32_t FIRST = 0x10;  // a product of each family
constexpr uint32_t ZEPH = 0x2001;
constexpr uint32_t KEY = 0x12345678;  // no text of these tests has a zero in its code then

struct Order {
  uint32_t type = 1;
  uint32_t product = 0;  // the appliance's
  uint32_t size = 1000;
  uint32_t sum = 0;
  string password = "FernGate";
  string zip = {};  // with an archive password the command is ACP_FIRMUP3
};

inline void AppendEncoded(Bytes &body, string text) {
  for (text.resize((text.size() + 7) / 8 * 8); !text.empty(); text.erase(0, 8)) {
    body.resize(body.size() + 8);
    EncryptBlock(&*body.end() - 8, reinterpret_cast<uint8_t *>(text.data()), KEY);
  }
}

inline Bytes BodyOf(const Order &order) {
  const uint32_t product = order.product == 0 ? daemon_state.product_id : order.product;
  Bytes body;
  for (const uint32_t number : {order.type, product, order.size, order.sum, 0U, 0U})
    wire::Append(body, number);
  AppendEncoded(body, order.password);
  body.resize(order.zip.empty() ? std::max<size_t>(body.size(), 37) : 32);
  if (order.zip.empty()) return body;
  wire::Append(body, 8);
  AppendEncoded(body, order.zip);
  return body;
}

inline int Count(const string &path, const string &part) {
  const string text = ReadFile(path);
  int count = 0;
  for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

// Of the image segment; empty without one.
inline string Content() {
  struct shmid_ds status = {};
  const int id = FindImage();
  if (id < 0 || shmctl(id, IPC_STAT, &status) != 0) return "";
  return {reinterpret_cast<const char *>(AttachSegment(id).get()), status.shm_segsz};
}

inline std::vector<pid_t> Receivers() {
  const auto &live = daemon_state.live_receivers;
  return {std::begin(live), std::end(live)};
}

inline bool IsListening(const string &address = "0228A8C0") {
  return ReadFile("/proc/net/tcp").find(address + ":5998 00000000:0000 0A") != string::npos;
}

enum class Sender { CLOSES, STAYS, RESETS };

// Sends the data on a connection of its own. The connection, unless the sender has left.
inline int Send(const string &data, Sender sender) {
  const struct sockaddr_in server = {AF_INET, htons(22936), {inet_addr("192.168.40.2")}, {}};
  const auto *address = reinterpret_cast<const struct sockaddr *>(&server);
  const struct linger reset = {sender == Sender::RESETS, 0};
  EXPECT_TRUE(board::WaitFor([] { return IsListening(); }));
  const int connection = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(connection, address, sizeof(server)), 0);
  setsockopt(connection, SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
  send(connection, data.data(), data.size(), 0);
  if (sender == Sender::STAYS) return connection;
  close(connection);
  return -1;
}

inline bool AwaitNoReceiver() {
  return board::WaitFor([] { return Receivers() == std::vector<pid_t>(4); });
}

// A child that has done its work, stopped. Continued, it exits with 3.
inline pid_t ForkStopped(void (*work)()) {
  const pid_t child = fork();
  if (child != 0) return waitpid(child, nullptr, WUNTRACED);
  signal(SIGTERM, SIG_DFL);
  work();
  _exit(raise(SIGSTOP) + 3);
}

class FirmwareTest : public testing::Test {
 protected:
  void SetUp() override {
    InstallSignalHandlers();
    ASSERT_EQ(InstallChildHandler(), 0);
    ClaimServer();
    daemon_state.ifname = "eth0";
    set_mode_flags(MODE_DEBUG);
    ASSERT_EQ(open_trace_file(TRACE), 0);
    client = wire::Open("eth0");
    Reset(FIRST);
    alarm(60);
  }
  void TearDown() override {
    wire::Close(client);
  }

  static void Reset(uint32_t product) {
    unsetenv("BOARD_FAIL");
    RunCommandLine("umount -ql /mnt/array1 /mnt/hda1 /mnt/hda3 /run/disks/hda3 2> /dev/null");
    RunCommandLine("cd /run/stand-ins; cp -n eraseall /tmp; cp /tmp/eraseall .; rm -f fw*");
    RunCommandLine("rm -f /dev/mtd*; mkdir -p /mnt/array1");
    WriteFile("/www/.htpasswd", "root:$1$saltsalt$74XWup7HHnXNqmsJrxwc30");  // "FernGate"
    WriteFile(RAID_LIMIT, "200000\n");
    WriteFile(SEGMENT_LIMIT, "4294967296\n");
    WriteFile("/dev/mtdblock0", "");
    WriteFile(CALLS, "");
    strcpy(daemon_state.password_file, "/www/.htpasswd");
    strcpy(daemon_state.firm_mem_path, "/tmp/kv_firm_mem");
    daemon_state.product_id = product;
    daemon_state.enable_state = 0;
    daemon_state.password_verified = 0;
    const Bytes mac = wire::Hex("02 0b 4a 00 00 01");
    std::copy(mac.begin(), mac.end(), daemon_state.enable_mac);
    EXPECT_NE(IssueKey(mac.data()), 0U);
    FindKey(mac.data())->key = KEY;
  }

  // Behind the body's `received` bytes lies what an earlier request has left: its other bytes.
  string Ask(uint16_t command, uint8_t result, const Bytes &body = {}, size_t received = SIZE_MAX) {
    static AcpRequest request;
    Bytes packet = wire::Request(command, wire::Part(body, 0, received));
    packet[28] = result;
    wire::Deliver(client, packet, request);
    std::copy(body.begin(), body.end(), request.packet + 32);
    request.peer_addr = inet_addr("192.168.40.1");
    dispatch(request);
    string replies;
    for (const Bytes &frame : wire::ReplyFrames(client))
      replies += FormatText("%02X%02X:%08X ", frame[51], frame[50], wire::Number(frame, 70));
    return replies;
  }
  string Begin(const Order &order) {
    return Ask(order.zip.empty() ? 0x8080 : 0x8081, 0, BodyOf(order));
  }
  string End() {
    return Ask(0x8070, 0);
  }
  string GiveUp() {
    return Ask(0x8070, 5);
  }
  string Update(Order order, const string &image) {
    order.size = static_cast<uint32_t>(image.size()) + 1;
    EXPECT_EQ(Begin(order), STARTED);
    Send(image, Sender::CLOSES);
    return End();
  }

  wire::Client client;
};

}  // namespace fixture

#endif  // BH_TESTS_FIRMWARE_FIXTURE_H_
