// Firmware updates over the wire: the whole way by the client, and what is left of it when it is
// disturbed.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/system/fixture.h"

using std::string;
using wire::Bytes;
using wire::Number;

namespace {

constexpr uint32_t kRefused = 0xFFFFFFFF;
constexpr uint32_t kNoReply = 0xEEEEEEEE;
constexpr char kFlash[] = "/dev/mtdblock1";  // whose images are verified
constexpr size_t kSize = 3 << 20;

void PutNumber(Bytes &bytes, uint32_t number) {
  for (int shift = 0; shift < 32; shift += 8)
    bytes.push_back(static_cast<uint8_t>(number >> shift));
}

// Bytes that are no multiple of four, no two pieces of 1024 alike.
string MakeImage(size_t size) {
  string image(size, '\0');
  uint32_t random = 1;
  for (char &byte : image) {
    random = random * 1664525 + 1013904223;
    byte = static_cast<char>(random >> 24);
  }
  return image;
}

uint32_t Checksum(const string &image) {
  uint32_t sum = 0;
  for (size_t i = 0; i < image.size(); ++i)
    sum += static_cast<uint32_t>(static_cast<uint8_t>(image[i])) << (24 - i % 4 * 8);
  return sum;
}

}  // namespace

class Upgrade : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    Start();
  }
  void Start() {
    board::WriteFile(board, "/www/.htpasswd", "root:abcHKXPavTczo\n");  // "FernGate7"
    Restore();
    StartDaemon();
  }
  void Restore() {
    board::WriteFile(board, kFlash, "old");
    board::WriteFile(board, board::kCallLog, "");
  }

  uint32_t StateOf(const Bytes &reply, uint8_t code) {
    return reply.size() == 32 && reply[8] == code ? Number(reply, 28) : kNoReply;
  }
  uint32_t AskUpdate(uint32_t type, const string &image) {
    TakeKey();
    Bytes body;
    for (const uint32_t number :
         {type, Number(discovered, 192), static_cast<uint32_t>(image.size()), Checksum(image)})
      PutNumber(body, number);
    body.resize(24);
    const Bytes password = Encoded("FernGate7");
    body.insert(body.end(), password.begin(), password.end());
    return StateOf(Ask(wire::Request("20 00 00 00 07 00 01 00 80 80 29 00 00 00 00 00", body)),
                   0x80);
  }
  int Connect() {
    struct sockaddr_in peer = {};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(22936);
    inet_pton(AF_INET, "192.168.40.2", &peer.sin_addr);
    int fd = -1;
    board::WaitFor([&] {
      close(fd);
      fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      return connect(fd, reinterpret_cast<struct sockaddr *>(&peer), sizeof(peer)) == 0;
    });
    return fd;
  }
  void Upload(const string &bytes, bool reset = false) {
    const int fd = Connect();
    const char *rest = bytes.data();
    for (ssize_t sent = 0; rest < bytes.data() + bytes.size() && sent >= 0; rest += sent)
      sent = send(fd, rest, static_cast<size_t>(bytes.data() + bytes.size() - rest), MSG_NOSIGNAL);
    const struct linger at_once = {1, 0};
    if (reset) setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
    close(fd);
  }
  uint32_t AskEnd(uint32_t result) {
    Bytes request = wire::Request("20 00 00 00 07 00 01 00 70 80 00 00 00 00 00 00");
    request[28] = static_cast<uint8_t>(result);
    wire::Send(client, request);
    const auto reply = wire::Receive(client, wire::milliseconds(20000));
    return StateOf(reply.value_or(Bytes{}), 0x70);
  }
  uint32_t AwaitFinish() {
    const auto reply = wire::Receive(client, wire::milliseconds(20000));
    return StateOf(reply.value_or(Bytes{}), 0x71);
  }
  void ExpectUpdateWorks(const string &image) {
    EXPECT_EQ(AskUpdate(2, image), 0U);
    Upload(image);
    EXPECT_EQ(AskEnd(0), 0U);
    EXPECT_EQ(AwaitFinish(), 0U);
    EXPECT_TRUE(board::ReadFile(board, kFlash) == image);
  }
  void ExpectUntouched(const string &stage) {
    ExpectAlive();  // the refusal is answered before the segment is removed
    EXPECT_EQ(board::ReadFile(board, kFlash), "old") << stage;
    EXPECT_EQ(board::ReadFile(board, board::kCallLog).find("eraseall"), string::npos) << stage;
    EXPECT_EQ(Shell("awk 'NR > 1 && $4 > 4096 { exit 1 }' /proc/sysvipc/shm").exit_code, 0)
        << stage;
  }
  board::Result Shell(const string &script) {
    return OnBoard({"/bin/sh", "-c", script});
  }
};

TEST_F(Upgrade, ClientInstallsAnImageOnFlash) {
  const string image = MakeImage((16 << 20) + 3);
  const string file =
      std::filesystem::temp_directory_path() / ("image-" + std::to_string(getpid()));
  std::ofstream(file, std::ios::binary) << image;
  const string upgrade = " upgrade " + file + " --type 2 ";
  EXPECT_NE(Bhctl(upgrade + "--password wrong").find("ACP_STATE_PASSWORD_ERROR"), string::npos);
  EXPECT_NE(Bhctl(upgrade + "--dry-run --password FernGate7").find("exit 0"), string::npos);
  ExpectUntouched("client");
  const string output = Bhctl(upgrade + "--password FernGate7");
  EXPECT_NE(output.find("exit 0"), string::npos) << output;
  EXPECT_TRUE(board::ReadFile(board, kFlash) == image);
  EXPECT_NE(Bhctl(upgrade + "--password FernGate7 --product 77").find("exit 1"), string::npos);
  std::filesystem::remove(file);
}

TEST_F(Upgrade, ClientInstallsAnArchiveOnTheDisk) {
  const std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("system-" + std::to_string(getpid()));
  std::filesystem::create_directories(folder / "etc");
  std::ofstream(folder / "etc/version") << "3.00\n";
  const string archive = folder.string() + ".img";
  ASSERT_EQ(system((MKIMAGE_PATH " " + folder.string() + " " + archive).c_str()), 0);
  const string upgrade = " --password FernGate7 upgrade " + archive + " --type 4";
  EXPECT_EQ(Shell("mount -t tmpfs -o size=4k none /run/disks/hda3").exit_code, 0);
  EXPECT_NE(Bhctl(upgrade).find("exit 1"), string::npos);
  EXPECT_EQ(Shell("umount /mnt/hda3; umount /run/disks/hda3").exit_code, 0);
  const string output = Bhctl(upgrade);
  EXPECT_NE(output.find("exit 0"), string::npos) << output;
  EXPECT_EQ(board::ReadFile(board, "/run/disks/hda1/etc/version"), "3.00\n");
  std::filesystem::remove_all(folder);
  std::filesystem::remove(archive);
}

TEST_F(Upgrade, DisturbedUploadLeavesTheFlashAlone) {
  const string image = MakeImage(kSize + 1);
  for (const size_t offset : {size_t{0}, size_t{1}, size_t{1024}, kSize / 2 + 1, kSize}) {
    for (const bool reset : {false, true}) {
      EXPECT_EQ(AskUpdate(2, image), 0U);
      Upload(image.substr(0, offset), reset);
      EXPECT_EQ(AskEnd(0), kRefused) << offset;
      ExpectUntouched("cut at " + std::to_string(offset));
    }
  }
  string flipped = image;
  flipped[kSize] ^= 1;
  EXPECT_EQ(AskUpdate(2, image), 0U);
  Upload(flipped);
  EXPECT_EQ(AskEnd(0), kRefused);
  EXPECT_EQ(AskUpdate(2, image), 0U);
  EXPECT_EQ(AskEnd(5), kRefused);  // nothing was sent, as the client says
  EXPECT_EQ(AskEnd(0), kRefused);  // once more, without an image
  ExpectUntouched("the client's own report");
  ExpectUpdateWorks(image);
}

TEST_F(Upgrade, LostProcessesLeaveTheFlashAlone) {
  const string image = MakeImage(kSize);
  const string receiver = "pkill -KILL -P " + std::to_string(ServerPid());
  EXPECT_EQ(AskUpdate(2, image), 0U);
  const int half = Connect();
  EXPECT_EQ(send(half, image.data(), 1000, 0), 1000);
  EXPECT_EQ(Shell(receiver).exit_code, 0);
  EXPECT_EQ(AskEnd(0), kRefused);
  close(half);

  // A request that is refused in between must not hide the receiver from the end.
  EXPECT_EQ(AskUpdate(2, image), 0U);
  EXPECT_EQ(AskUpdate(99, image), kRefused);
  EXPECT_EQ(AskEnd(1), kRefused);
  ExpectUpdateWorks(image);
  Restore();

  // The client is gone without an end; another one's receiver then finds the port taken.
  EXPECT_EQ(AskUpdate(2, image), 0U);
  close(Connect());
  EXPECT_EQ(AskUpdate(2, image), 0U);
  EXPECT_EQ(AskUpdate(2, image), 0U);
  Upload(image);
  EXPECT_EQ(AskEnd(0), kRefused);
  ExpectUntouched("gone client");
  ExpectUpdateWorks(image);

  Restore();
  EXPECT_EQ(AskUpdate(2, image), 0U);
  const int open = Connect();
  EXPECT_TRUE(board::Kill(board, ServerPid(), SIGTERM));
  ASSERT_TRUE(AwaitServers(0));
  EXPECT_TRUE(board::WaitFor([&] { return Shell("pgrep bh_servd").exit_code == 1; }));
  close(open);
  EXPECT_EQ(board::ReadFile(board, kFlash), "old");
  StartDaemon();
  ExpectUpdateWorks(image);
}

TEST_F(Upgrade, InstallationOutlivesSignals) {
  const string image = MakeImage(5000);
  board::WriteFile(board, "/run/stand-ins/eraseall",
                   "kill -TERM $(cat /var/run/bh_servd-eth0.pid)\n"
                   "kill -HUP $(cat /var/run/bh_servd-eth0.pid)\n"
                   "cat /var/run/fwupdate /proc/sys/dev/raid/speed_limit_max > /tmp/seen\n");
  ExpectUpdateWorks(image);
  EXPECT_EQ(board::ReadFile(board, "/tmp/seen"), "fwupdate\n4000\n");
  EXPECT_FALSE(board::Exists(board, "/var/run/fwupdate"));
  ExpectAlive();
  EXPECT_TRUE(AwaitSyslog("<29>Firmware Update start.\n"));
  EXPECT_TRUE(AwaitSyslog("<29>Firmware Update end.\n"));
  EXPECT_EQ(board::ReadFile(board, board::kCallLog),
            "/usr/local/bin/fw_update.sh start\n/usr/sbin/eraseall /dev/mtdblock1\n"
            "/usr/local/bin/fw_update.sh stop\n");
}
