// Firmware updates on a board: who may begin one and with what, uploads of every kind, what is
// installed where and what is not, and how the server gets out of each way that goes wrong.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "access/cipher.h"
#include "access/keys.h"
#include "acp/dispatch.h"
#include "board/board.h"
#include "board/client_end.h"
#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/state.h"
#include "firmware/image.h"
#include "firmware/receiver.h"
#include "firmware/zip_password.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "tests/files.h"

using namespace fixture;
using std::string;
using wire::Bytes;

namespace {

const string STARTED = "C080:00000000 ", REFUSED = "C070:FFFFFFFF ", TRACE = "/tmp/trace";
const string DONE = "C070:00000000 C071:00000000 ", FAILED = "C070:00000000 C071:FFFFFFFF ";
const string ERASE = "/run/stand-ins/eraseall", CALLS = "/var/log/calls";
const string LIMIT = "/proc/sys/kernel/shmmax", RAID_LIMIT = "/proc/sys/dev/raid/speed_limit_max";

wire::Client client;

struct Firmware : testing::Test {
  void SetUp() override {
    InstallSignalHandlers();
    ASSERT_EQ(InstallChildHandler(), 0);
    ClaimServer();
    daemon_state.ifname = "eth0";
    set_mode_flags(MODE_DEBUG);
    if (daemon_state.trace_fp == nullptr) daemon_state.trace_fp = fopen(TRACE.c_str(), "ae");
    if (client.socket == -1) client = wire::Open("eth0");
    Reset(0x10);
    alarm(60);
  }
  static void Reset(uint32_t product) {
    unsetenv("BOARD_FAIL");
    RunCommandLine(R"(exec 2> /tmp/errors; cd /run/stand-ins; cp -n eraseall /tmp; rm -f fw*
        umount -ql /mnt/array1 /mnt/hda1 /mnt/hda3 /run/disks/hda3 /tmp/small; cp /tmp/eraseall .
        mkdir -p /mnt/array1 /tmp/small; rm -f /dev/mtd*; : > /dev/mtdblock0; : > /tmp/trace; : > /var/log/calls
        echo 'root:$1$saltsalt$74XWup7HHnXNqmsJrxwc30' > /www/.htpasswd; cd /proc/sys
        echo 200000 > dev/raid/speed_limit_max; echo 4294967296 > kernel/shmmax)");  // "FernGate"
    const Bytes mac = wire::Hex("02 0b 4a 00 00 01");
    std::copy(mac.begin(), mac.end(), daemon_state.enable_mac);
    strcpy(daemon_state.password_file, "/www/.htpasswd");
    strcpy(daemon_state.firm_mem_path, "/tmp/kv_firm_mem");
    daemon_state.product_id = product;
    daemon_state.enable_state = daemon_state.password_verified = 0;
    EXPECT_NE(IssueKey(mac.data()), 0U);
    FindKey(mac.data())->key = 0x12345678;  // no text below has a zero in its code then
  }
};

struct Order {
  uint32_t type = 1, pid = 0x10, size = 1000, sum = 0;
  string password = "FernGate", zip{};  // with an archive password the command is ACP_FIRMUP3
  uint32_t zip_length = 8;              // as the client says
};

void Encode(Bytes &body, string text) {
  for (text.resize((text.size() + 7) / 8 * 8); !text.empty(); text.erase(0, 8)) {
    body.resize(body.size() + 8);
    EncryptBlock(&*body.end() - 8, reinterpret_cast<uint8_t *>(text.data()), 0x12345678);
  }
}

Bytes BodyOf(const Order &order) {
  Bytes body;
  for (const uint32_t number : {order.type, order.pid, order.size, order.sum, 0U, 0U})
    wire::Append(body, number);
  Encode(body, order.password);
  body.resize(order.zip.empty() ? std::max<size_t>(body.size(), 37) : 32);
  if (!order.zip.empty()) wire::Append(body, order.zip_length);
  Encode(body, order.zip);
  return body;
}

// The replies as "COMMAND:STATE ". The packet holds the whole body, of which `received` came.
string Ask(uint16_t command, uint8_t result, const Bytes &body = {}, size_t received = 9999) {
  static AcpRequest request;
  Bytes packet = wire::Request(command, wire::Part(body, 0, received));
  packet[28] = result;
  wire::Deliver(client, packet, request);
  std::copy(body.begin(), body.end(), request.packet + 32);
  request.peer_addr = inet_addr("192.168.40.1");
  dispatch(request);
  string replies;
  const Bytes rest = wire::Hex("00 00 00 00 00 00 02 0b 4a 00 00 10 02 0b 4a 00 00 01");
  for (const Bytes &frame : wire::ReplyFrames(client)) {
    replies += FormatText("%02X%02X:%08X ", frame[51], frame[50], wire::Number(frame, 70));
    EXPECT_EQ(Bytes(frame.begin() + 52, frame.end() - 4), rest);
  }
  return replies;
}

string Begin(const Order &order) {
  return Ask(order.zip.empty() ? 0x8080 : 0x8081, 0, BodyOf(order));
}

string End(uint8_t result) {
  return Ask(0x8070, result);
}

void AwaitListener(const string &address = "0228A8C0", bool wanted = true) {
  const string line = address + ":5998 00000000:0000 0A";
  const auto is_there = [&] { return ReadFile("/proc/net/tcp").find(line) != string::npos; };
  EXPECT_TRUE(board::WaitFor([&] { return is_there() == wanted; }));
}

long LiveReceivers() {
  const auto &live = daemon_state.live_receivers;
  return std::ssize(live) - std::count(std::begin(live), std::end(live), 0);
}

int Connect() {
  const struct sockaddr_in address = {AF_INET, htons(22936), {inet_addr("192.168.40.2")}, {}};
  const auto *server = reinterpret_cast<const struct sockaddr *>(&address);
  AwaitListener();
  const int connection = socket(AF_INET, SOCK_STREAM, 0);
  EXPECT_EQ(connect(connection, server, sizeof(address)), 0);
  return connection;
}

// By one connection each: 'c' is closed, 'k' kept open, 'r' reset; 's' sends nothing.
void Upload(const string &data, const string &connections, bool to_its_end = true) {
  std::vector<int> open;
  for (const char how : connections) {
    open.push_back(Connect());
    const struct linger reset = {how == 'r', 0};
    setsockopt(open.back(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    if (how != 's') send(open.back(), data.data(), data.size(), 0);
    if (how == 'c' || how == 'r') close(open.back());
  }
  const auto is_over = [=] { return !to_its_end || LiveReceivers() == 0; };
  EXPECT_TRUE(board::WaitFor(is_over));
  for (size_t i = 0; to_its_end && i < open.size(); ++i)
    close(open[i]);
}

// From a child, a byte each half second. Returns at once.
void UploadSlowly(const string &data) {
  const int connection = Connect();
  if (fork() == 0) {
    for (const char byte : data) {
      usleep(500'000);
      send(connection, &byte, 1, MSG_NOSIGNAL);
    }
    _exit(0);
  }
  close(connection);
}

string Update(Order order, const string &image) {
  order.size = static_cast<uint32_t>(image.size()) + 1;
  EXPECT_EQ(Begin(order), STARTED);
  Upload(image, "c");
  return End(0);
}

// Of the image segment; empty without one.
string Content() {
  struct shmid_ds status = {};
  const int id = shmget(ftok(daemon_state.firm_mem_path, 0), 0, 0);
  if (id < 0 || shmctl(id, IPC_STAT, &status) != 0) return "";
  return {reinterpret_cast<const char *>(AttachSegment(FindImage()).get()), status.shm_segsz};
}

// Of a segment: what of it has been written, and so takes memory.
long ResidentBytes(int id) {
  std::ifstream table("/proc/sysvipc/shm");
  string line;
  std::getline(table, line);
  while (std::getline(table, line)) {
    std::istringstream columns(line);
    string skipped;
    int segment = -1;
    long resident = -1;
    columns >> skipped >> segment;
    for (int i = 0; i < 12; ++i)
      columns >> skipped;
    columns >> resident;
    if (segment == id) return resident;
  }
  return -1;
}

std::ptrdiff_t PipesOf(pid_t process) {
  const std::filesystem::directory_iterator files("/proc/" + std::to_string(process) + "/fd");
  return std::count_if(begin(files), end(files), [](const auto &file) {
    return std::filesystem::read_symlink(file).string().starts_with("pipe:");
  });
}

int Count(const string &path, const string &part) {
  const string text = ReadFile(path);
  int count = 0;
  for (size_t at = text.find(part); at != text.npos; at = text.find(part, at + 1))
    ++count;
  return count;
}

// Whether what the order asks for can be had: a letter for each thing that is unusual.
void Prepare(const string &around, Order &order) {
  const auto is = [&](char what) { return around.find(what) != string::npos; };
  if (is('L')) order.password = "FernGateLong";
  if (is('p')) order.password = "fernGate";
  if (is('P')) order.password = string(40, 'x');
  if (is('z')) order.zip = string(504, 'x') + (is('Z') ? "FernGate" : "FernGat");
  if (is('L')) WriteFile("/www/.htpasswd", "root:$1$saltsalt$E5KeHmE3OKSR6P4LGNeKs0");
  if (is('s')) RunCommandLine("mount -t tmpfs -o size=199m array /mnt/array1");
  if (is('a')) RunCommandLine("mount -t tmpfs -o size=200m array /mnt/array1");
  if (is('n')) rmdir("/mnt/array1");
  if (is('k')) CleanKey(0);
  if (is('e')) daemon_state.enable_mac[5] = 2;
  if (is('v')) daemon_state.password_verified = -1;
}

// A child that has done its work, stopped. Continued, it exits with 3.
pid_t ForkStopped(void (*work)()) {
  const pid_t child = fork();
  if (child != 0) return waitpid(child, nullptr, WUNTRACED);
  signal(SIGTERM, SIG_DFL);
  work();
  _exit(raise(SIGSTOP) + 3);
}

// Sends the child a signal. Its exit status, or minus the signal that ended it.
int EndOf(pid_t child, int number) {
  ChildSignalBlock block;
  kill(child, number);
  const siginfo_t info = AwaitEnd(child);
  block.Release();
  return info.si_code == CLD_EXITED ? info.si_status : -info.si_status;
}

}  // namespace

TEST_F(Firmware, RequestIsAdmittedOrRefused) {
  // Product, what is around, type, product of the image, size; the device or the refusing state.
  std::istringstream cases(R"(
      10 ev 1 10 1 /dev/mtdblock0     10 . 2 10 9 /dev/mtdblock1      10 . 4 10 7FFFFF /dev/hda1
      10 . 4 10 800000 /dev/hda1      10 L 1 10 9 /dev/mtdblock0      10 z 1 10 9 /dev/mtdblock0
      10 f 1 10 9 /dev/mtdblock0      2003 . 2 2003 9 /dev/mtdblock1  2001 p 1 2001 9 /dev/mtd0
      2002 k 2 2002 800000 /dev/mtd1  2001 z 5 2001 9 /dev/mtd4       2001 a 6 2001 9 /dev/hda1
      2001 a 6 2001 800000 /dev/hda1  10 Lz 1 10 9 80000001           10 zZ 1 10 9 80000001
      10 P 1 10 9 80000001            10 p 3 11 9 80000001            10 pk 3 11 9 80000005
      10 kl 1 10 9 80000009           10 . 3 10 9 FFFFFFFF            10 . 5 10 9 FFFFFFFF
      10 1 4 10 9 FFFFFFFF            10 3 4 10 9 FFFFFFFF            10 . 1 11 9 FFFFFFFF
      10 . 1 10 0 /dev/mtdblock0      10 . 1 10 FFFFFFFF FFFFFFFF     10 . 1 10 FFFFFF00 FFFFFFFF
      2001 . 1 2001 0 /dev/mtd0       2001 s 6 2001 9 8000000F        2001 n 6 2001 9 8000000F
      2001 s 6 2002 9 80000010        2001 . 3 2002 9 80000010        2002 . 4 2002 9 80000011
      2001 e 3 10 9 80000001          2001 v 3 10 9 80000001          2001 el 3 10 9 80000009)");
  string around, outcome, trace;
  uint32_t product = 0;
  for (Order order;
       cases >> std::hex >> product >> around >> order.type >> order.pid >> order.size >> outcome;
       order = {}) {
    SCOPED_TRACE(FormatText("%s %s", around.c_str(), outcome.c_str()));
    Reset(product);
    Prepare(around, order);
    const bool locked = around.find('l') != string::npos, forks = around.find('f') == string::npos;
    const pid_t locker = locked ? ForkStopped([] { libbh_lock(); }) : 0;
    const bool started = outcome[0] == '/';
    if (started && CreateImage(9999)) memset(AttachSegment(FindImage()).get(), 0xAA, 9999);
    const string failure = forks ? "*/mount=/dev/hda" + around + ":0:EIO" : "*/fork:0:EAGAIN";
    setenv("BOARD_FAIL", failure.c_str(), 1);
    EXPECT_EQ(Begin(order), started ? STARTED : "C080:" + outcome + " ");
    unsetenv("BOARD_FAIL");
    EXPECT_STREQ(daemon_state.firm_dev, started ? outcome.c_str() : nullptr);
    const bool on_disk = order.size == 0x800000 && outcome == "/dev/hda1";
    EXPECT_EQ(daemon_state.firm_mem_path == string("/tmp/kv_firm_mem"), !started || !on_disk);
    EXPECT_EQ(Content(), started ? string(order.size + 256, '\0') : "");
    EXPECT_EQ(daemon_state.zip_pass, started ? order.zip : "");
    EXPECT_EQ(daemon_state.firm_down_chpid > 0, started && forks);
    EXPECT_EQ(libbh_lock(), locked ? -3 : 0);
    libbh_unlock();
    if (locked) EndOf(locker, SIGKILL);
    EXPECT_EQ(End(5), REFUSED);
    EXPECT_EQ(Content(), "");
    trace += ReadFile(TRACE);
  }
  for (const char *line :
       {"ACP_FIRMUP2_REPLY NOW_LOCKING==libbh_lock() >>>>>>>>\n", "firm_recive() fialed.\n",
        "ACP_FIRMUP2_REPLY failed libbh_Mount()\nACP_FIRMUP2_REPLY result != ACP_STATE_OK >>>>>>",
        "ACP_FIRMUP2_REPLY not equal FIRM PID=0x11 ProductID=0x10\n", "array1 size=192 MB\n",
        "ACP_FIRMUP2_REPLY ACP_STATE_OK >>>>>>>>>>>>\n   ip=0xc0a82801 port=0x", "faild!!!\n",
        "ACP_FIRMUP_ZEPH_REPLY Unknown FIRM_TYPE acpfirm3->firm_type=0x3\nACP_FIRMUP_ZEPH_REPLY n",
        "SHM_MEM_FOR_FIRM=/mnt/array1/kv_firm_mem\ninitialize shared memory.\nfirm_recive() \n"})
    EXPECT_NE(trace.find(line), string::npos) << line;
}

TEST_F(Firmware, RequestMayEndAnywhere) {
  const Bytes first = BodyOf({.zip = "zip-word"}), zeph = BodyOf({.pid = 0x2001});
  for (size_t length = 0; length <= first.size(); ++length) {
    daemon_state.product_id = 0x10;
    EXPECT_EQ(Ask(0x8081, 0, first, length), length < 32 ? "C080:80000001 " : STARTED) << length;
    EXPECT_EQ(strcmp(daemon_state.zip_pass, "zip-word") == 0, length == 44) << length;
    End(5);
    daemon_state.product_id = 0x2001;
    EXPECT_EQ(Ask(0x8080, 0, zeph, length), length < 8 ? "C080:80000010 " : STARTED) << length;
    End(5);
  }
  std::istringstream limits(
      "10255 10256 00000000 10256 10256 00000000 20000 20000 00000000 0 0 FFFFFFFF");
  for (string before, after, state; limits >> before >> after >> state; End(5)) {
    WriteFile(LIMIT, before);
    EXPECT_EQ(Begin({.pid = 0x2001, .size = 10000}), "C080:" + state + " ") << before;
    EXPECT_EQ(ReadFile(LIMIT), after + "\n");
  }
}

TEST_F(Firmware, PasswordBeforeAnArchivePasswordHasItsField) {
  // What stands behind the password's 8 bytes runs on without a zero byte, or ends there.
  const struct {
    const char *what;
    uint32_t zip_length;
    size_t zip_size;
    string reply;
  } cases[] = {
      {"ends at the length", 0x00111111, 40, STARTED},
      {"32 bytes in a row", 0x11111111, 20, STARTED},
      {"33 bytes in a row", 0x11111111, 21, "C080:80000001 "},
  };
  for (const auto &test : cases) {
    Bytes body = BodyOf({.zip = "x", .zip_length = test.zip_length});
    body.resize(36);
    body.resize(36 + test.zip_size, 0x11);
    body.resize(body.size() + 1);
    EXPECT_EQ(Ask(0x8081, 0, body), test.reply) << test.what;
    End(5);
  }
}

TEST_F(Firmware, ImageWithoutABytePassesTheRequestAlone) {
  const struct {
    const char *what;
    uint32_t type;
    string replies;
  } cases[] = {
      {"verified", 2, REFUSED},
      {"not verified", 1, FAILED},
  };
  for (const auto &test : cases) {
    EXPECT_EQ(Begin({.type = test.type, .size = 0}), STARTED) << test.what;
    Upload("", "c");
    EXPECT_EQ(End(0), test.replies) << test.what;
    EXPECT_EQ(Update({}, "image"), DONE) << "after one that is " << test.what;
  }
}

TEST_F(Firmware, SegmentTakesNoMemoryBeforeTheUpload) {
  EXPECT_EQ(Begin({.size = 512 << 20}), STARTED);
  struct shmid_ds status = {};
  const int id = shmget(ftok("/tmp/kv_firm_mem", 0), 0, 0);
  ASSERT_EQ(shmctl(id, IPC_STAT, &status), 0);
  EXPECT_EQ(status.shm_segsz, (512U << 20) + 256);
  EXPECT_EQ(ResidentBytes(id), 0);
  EXPECT_EQ(End(5), REFUSED);
}

TEST_F(Firmware, ChecksumIsThatOfTheReceivedBytes) {
  std::istringstream cases(R"(abc 3 61626300 0  abcdefgh 8 C6C8CACC 0  abcde 5 C6626364 0
      abcde 5 C6626300 -1  abcdefgh 5 C6626364 0  abc 12c 61626300 0  abc 12d 61626300 -1
      abc 0 61626300 -1  abc FFFFFFFF 61626300 -1  ~~~~~~~~ 8 FCFCFCFC 0)");
  uint32_t size = 0, sum = 0;
  string result;
  for (string image; cases >> std::hex >> image >> size >> sum >> result;) {
    ASSERT_TRUE(CreateImage(44) && RecordImageSize(size, true));
    memcpy(AttachSegment(FindImage()).get(), image.data(), image.size());
    EXPECT_EQ(std::to_string(verify_firmbinary(sum)), result) << image << size;
  }
  EXPECT_EQ(Count(TRACE, "chksum error. chksum=0xC6626364 true_chksum=0xC6626300 size=0x0005\n"),
            1);
  ASSERT_TRUE(CreateImage(200003) && RecordImageSize(200003, true));
  memset(AttachSegment(FindImage()).get(), 0xFF, 200003);
  EXPECT_EQ(verify_firmbinary(0xFFFF3BB0), 0);
  RecordImageSize(4, false);
  RemoveSegment(FindImage());
  EXPECT_EQ(verify_firmbinary(0), -1);
  EXPECT_EQ(Count(TRACE, "verify_firmbinary() total_size == 0.\n"), 4);
}

TEST_F(Firmware, ReceiverTakesOneUpload) {
  Update({}, "image");  // opens what stays open
  const std::ptrdiff_t before = OpenDescriptors();
  for (int round = 0; round < 6; ++round) {
    std::istringstream cases(
        "1000 k 1000 500 c 500 1500 k 1000 1000 sk 1000 500 sc 500 500 r 0 0 c 0 0 ssc 0");
    size_t sent = 0, recorded = 0;
    for (string how; cases >> sent >> how >> recorded;) {
      EXPECT_EQ(Begin({}), STARTED);
      Upload(string(sent, 'x'), how);
      EXPECT_EQ(ReceivedImage().size, recorded) << sent << how;
      const size_t stored = std::min<size_t>(sent, 1000);
      EXPECT_EQ(Content(), string(stored, 'x') + string(1256 - stored, '\0'));
      EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
    }
  }
  EXPECT_EQ(OpenDescriptors(), before);
  AwaitListener("0228A8C0", false);
}

TEST_F(Firmware, ReceiverNoticesAClientThatVanished) {
  EXPECT_EQ(Begin({}), STARTED);
  Upload("some", "k", false);
  // The kernel's table of connections has a timer of kind 2, that of keep-alive.
  const string kept_alive = "grep -q '0228A8C0:5998 ........:.... 01 .* 02:' /proc/net/tcp";
  EXPECT_TRUE(board::WaitFor([&] { return RunCommandLine(kept_alive) == 0; }));
  EXPECT_EQ(End(5), REFUSED);
}

TEST_F(Firmware, ReceiverKeepsNoEndOfItsStartersPipe) {
  EXPECT_EQ(Begin({}), STARTED);
  AwaitListener();
  const std::ptrdiff_t pipes = PipesOf(getpid());
  EXPECT_EQ(PipesOf(daemon_state.firm_down_chpid), pipes) << "those that both were started with";
  EXPECT_EQ(End(5), REFUSED);
}

// A receiver keeps the address that the appliance had: only so can several live. Starts one on the
// address that ends with `host`.
pid_t BeginOn(int host) {
  const string move = "ip addr flush dev eth0; ip addr add 192.168.40.%d/24 brd + dev eth0";
  RunCommandLine(FormatText(move.c_str(), host));
  EXPECT_EQ(Begin({}), STARTED);
  return daemon_state.firm_down_chpid;
}

std::vector<pid_t> Receivers() {
  const auto &live = daemon_state.live_receivers;
  return {std::begin(live), std::end(live)};
}

TEST_F(Firmware, OldestOfManyAbandonedReceiversGoes) {
  std::vector<pid_t> begun;
  for (int host = 8; host > 2; --host)
    begun.push_back(BeginOn(host));
  EXPECT_EQ(Receivers(), std::vector<pid_t>(begun.end() - 4, begun.end()));

  // When two have ended, the others move up.
  kill(begun[2], SIGKILL);
  kill(begun[3], SIGKILL);
  EXPECT_TRUE(board::WaitFor([] { return LiveReceivers() == 2; }));
  const pid_t last = BeginOn(2);
  EXPECT_EQ(Receivers(), (std::vector<pid_t>{begun[4], begun[5], last, 0}));
  EXPECT_EQ(End(5), REFUSED);
  EXPECT_EQ(LiveReceivers(), 0);
}

TEST_F(Firmware, ReceiverEndsWithoutOne) {
  for (const char *ifname : {"none", "eth0"}) {
    daemon_state.ifname = ifname;
    ASSERT_TRUE(CreateImage(9));
    const pid_t receiver = firm_recive(9);
    AwaitListener(*ifname == 'n' ? "00000000" : "0228A8C0");
    EXPECT_EQ(EndOf(receiver, SIGTERM), 0);
    EXPECT_EQ(LiveReceivers(), 0);
    EXPECT_EQ(ReceivedImage().size, 0U);
  }
  const std::tuple<const char *, const char *> failures[] = {
      {"*/socket=2:0:EMFILE", "could not open socket Too many open files\n"},
      {"*/bind:0:EADDRINUSE", "could not bind address to socket: Address already in use(98)\n"},
      {"*/listen:0:EIO",
       "could not turn listen state: Input/output error\nfirm_recive() error.\n"}};
  for (const auto &[failure, trace] : failures) {
    ChildSignalBlock block;
    ASSERT_TRUE(CreateImage(9));
    setenv("BOARD_FAIL", failure, 1);
    EXPECT_EQ(EndOf(firm_recive(9), 0), 0);
    unsetenv("BOARD_FAIL");
    EXPECT_EQ(libbh_lock(), 0);
    block.Release();  // SIGUSR1 comes now, and gives the lock back
    EXPECT_EQ(libbh_lock() + LiveReceivers() + Count(TRACE, trace), 1) << failure;
    libbh_unlock();
    EXPECT_EQ(Content(), "");
  }
  EXPECT_NE(Count("/var/log/syslog", "firm_recive() failed. exit(0)"), 0);
  const pid_t server = ForkStopped([] { Begin({}); });
  AwaitListener();
  EndOf(server, SIGKILL);
  AwaitListener("0228A8C0", false);
}

TEST_F(Firmware, EndStopsItsReceiverOnly) {
  EXPECT_EQ(Begin({}), STARTED);
  AwaitListener();
  EXPECT_EQ(End(5), REFUSED);
  EXPECT_EQ(Content(), "");
  EXPECT_EQ(Count(TRACE, FormatText("kill(firm_down_chpid,SIGTERM). firm_down_chpid=%d\nwaitpid(",
                                    daemon_state.firm_down_chpid)),
            1);
  EXPECT_EQ(Count(TRACE, "verify_firmbinary() < 0 ACP_STATE_FAILURE result=5 verify=0\n"), 1);
  const pid_t stranger = ForkStopped([] {});  // has the receiver's number by now
  daemon_state.firm_down_chpid = stranger;
  EXPECT_EQ(End(5), REFUSED);
  EXPECT_EQ(End(0), FAILED);
  EXPECT_EQ(EndOf(stranger, SIGCONT), 3);
  EXPECT_EQ(Begin({}), STARTED);
  AwaitListener();
  EXPECT_EQ(Begin({}), STARTED);  // the first one keeps the port
  EXPECT_EQ(End(0), FAILED);
  EXPECT_EQ(Begin({}), STARTED);
  EXPECT_EQ(Begin({.type = 5}), "C080:FFFFFFFF ");  // which hides no receiver from the end
  EXPECT_EQ(End(5), REFUSED);
  AwaitListener("0228A8C0", false);
  EXPECT_EQ(Begin({}), STARTED);
  Upload("half", "k", false);
  kill(daemon_state.firm_down_chpid, SIGKILL);
  EXPECT_EQ(End(0), FAILED);
  EXPECT_EQ(Update({}, "image"), DONE);
  EXPECT_EQ(Begin({}), STARTED);
  Upload("standing still", "k", false);
  const time_t start = time(nullptr);
  EXPECT_EQ(End(0), FAILED);
  EXPECT_NEAR(static_cast<double>(time(nullptr) - start), 11, 1.5);
  EXPECT_EQ(Update({}, "image"), DONE);
}

TEST_F(Firmware, EndAwaitsAnUploadThatFlows) {
  const string image = "twelve and a half seconds";  // ten of them without a byte would end it
  EXPECT_EQ(Begin({}), STARTED);
  UploadSlowly(image);
  EXPECT_EQ(End(0), DONE);
  EXPECT_EQ(ReadFile("/dev/mtdblock0"), image);
}

TEST_F(Firmware, ImageIsWrittenToFlashOrRefused) {
  const string b0 = "/dev/mtdblock0", b1 = "/dev/mtdblock1", large = string(4999, 'x') + "y";
  const string failed = "write_data_in_dev() failed!!!\n",
               success = "write_data_in_dev() success!!!\n";
  const struct {
    uint32_t product, type, sum;
    int erasures;
    string upload, device, link, replies, trace;
  } cases[] = {{0x10, 2, 0xC6626364, 1, "abcde", b1, "", DONE, "start size=0x00000005\n"},
               {0x10, 2, 0xC6626364, 0, "abcdd", b1, "", REFUSED, "FAILURE result=0 verify=-1\n"},
               {0x10, 2, 0, 0, "", b1, "", REFUSED, "verify_firmbinary() total_size == 0.\n"},
               {0x10, 1, 1, 0, "", b0, "", FAILED, "write_firmInflash() total_size == 0.\n"},
               {0x2001, 5, 1, 1, large, "/dev/mtd4", "", DONE, success},
               {0x2001, 1, 1, 3, large, "/dev/mtd0", "/dev/null", DONE, success},
               {0x10, 1, 1, 5, large, b0, "/dev/zero", FAILED, failed},
               {0x10, 1, 1, 5, large, b0, "/dev/full", FAILED, failed},
               {0x10, 1, 1, 5, large, b0, "/tmp/small/device", FAILED, failed},
               {0x10, 1, 1, 5, large, b0, "/nowhere/device", FAILED, failed}};
  for (const auto &[product, type, sum, erasures, upload, device, link, replies, trace] : cases) {
    SCOPED_TRACE(trace);
    Reset(product);
    RunCommandLine("mount -t tmpfs -o size=4k small /tmp/small; : > /tmp/small/device");
    WriteFile(device, "old image");
    RunCommandLine(
        FormatText("[ -z '%s' ] || ln -sf %s %s", link.c_str(), link.c_str(), device.c_str()));
    string hook = ReadFile(ERASE);
    hook +=
        "[ $(grep -c era /var/log/calls)$(readlink $1) != 3/dev/null ] || { printf old > "
        "/tmp/flash; ln -sf /tmp/flash $1; }";
    WriteFile(ERASE, hook);
    EXPECT_EQ(Update({type, product, 0, sum}, upload), replies);
    EXPECT_EQ(Count(CALLS, "eraseall " + device), erasures);
    EXPECT_EQ(Count(CALLS, "fw_update.sh stop\n"), replies == REFUSED ? 0 : 1);
    EXPECT_EQ(Content().size(), replies == REFUSED ? 0 : upload.size() + 257);
    EXPECT_EQ(libbh_lock() + Count(TRACE, trace), 1) << trace;
    libbh_unlock();
    const string now = erasures == 0     ? "old image"
                       : upload == large ? large
                                         : "abcde\xFF\xFF\xFF\xFF";
    if (link.empty() || replies == DONE) {
      EXPECT_EQ(ReadFile(device), now);
    }
    EXPECT_EQ(End(5), REFUSED);
    EXPECT_EQ(End(0), device == b1 ? REFUSED : FAILED);
    EXPECT_EQ(Count(CALLS, "eraseall"), erasures);
  }
}

TEST_F(Firmware, InstallationKeepsItsOrderAndIsNotEnded) {
  const string note = "cat " + RAID_LIMIT + " /run/fwupdate >> /var/log/calls; ";
  WriteFile("/run/stand-ins/fw_update.sh", note);
  WriteFile(ERASE, note + FormatText("kill -TERM %d; kill -HUP %d", getpid(), getpid()));
  daemon_state.firm_dev = nullptr;
  daemon_state.firm_down_chpid = 0;
  EXPECT_EQ(End(0), FAILED);  // nothing has been begun
  EXPECT_EQ(ReadFile(CALLS) + ReadFile(RAID_LIMIT), "200000\n");
  testing::internal::CaptureStdout();
  EXPECT_EQ(Update({}, "image"), DONE);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "now F/W updating.\nnow F/W updating.\n");
  EXPECT_EQ(ReadFile(CALLS),
            "/usr/local/bin/fw_update.sh start\n4000\n/usr/sbin/eraseall "
            "/dev/mtdblock0\n4000\nfwupdate\n/usr/local/bin/fw_update.sh stop\n4000\n");
  EXPECT_EQ(ReadFile("/dev/mtdblock0"), "image");
  EXPECT_EQ(daemon_state.exit_pending, 0);
}

TEST_F(Firmware, DiskTakesAnArchiveWithItsPassword) {
  const string special = "'\"`$(touch /tmp/pwned)`;|&<>*?[x]{}~!#%\\\n \t-",
               nr2 = GetZipPassword(2);
  RunCommandLine("cd /tmp; head -c 99999 /dev/urandom > new; tar czf tmpimage.tgz new");
  const std::tuple<string, string, bool, string, int, const char *> cases[] = {
      {nr2, "", false, DONE, 3, "write_firmInHdd() return =0\n"},
      {nr2, "", true, FAILED, 0, "write_firmInHdd() fopen(/mnt/hda3/image.zip) success!!!\n"},
      {special, special, false, DONE, 1, "ALL OK!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!\n"},
      {special, "wrong word", false, FAILED, 1, "write_firmInHdd() *** ZIP extract fail ***\n"},
      {special, "", false, FAILED, 4, "write_firmInHdd() *** ZIP extract fail ***\n"},
      {"zip-word", "zip-word", false, DONE, 1,
       "-P zip-word /mnt/hda3/image.zip -d /mnt/hda3 > /d"}};
  for (const auto &[password, zip_pass, full, replies, attempts, trace] : cases) {
    SCOPED_TRACE(zip_pass + trace);
    Reset(0x10);
    if (full) RunCommandLine("mount -t tmpfs -o size=16k full /run/disks/hda3");
    setenv("PASS", password.c_str(), 1);
    RunCommandLine(
        "cd /tmp; rm -f a.zip /run/disks/hda1/new; zip -qP \"$PASS\" a.zip tmpimage.tgz");
    EXPECT_EQ(Update({.type = 4, .zip = zip_pass}, ReadFile("/tmp/a.zip")), replies);
    EXPECT_EQ(RunCommandLine("cmp -s /tmp/new /mnt/hda1/new") == 0, replies == DONE);
    EXPECT_EQ(Count(TRACE, "/bin/unzip"), attempts);
    EXPECT_EQ(Count(TRACE, trace), 1);
    EXPECT_EQ(Content(), "");
    EXPECT_EQ(End(0), FAILED);  // without touching the disk
  }
  EXPECT_FALSE(std::filesystem::exists("/tmp/pwned"));
}
