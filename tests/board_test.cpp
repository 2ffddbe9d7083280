// The simulated board itself: that it is the appliance which tests take it for, and that nothing of
// it reaches the machine or stays there.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <net/if.h>
#include <sys/reboot.h>
#include <sys/resource.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "board/board.h"

namespace {

namespace fs = std::filesystem;

std::string ThisProgram() {
  return fs::read_symlink("/proc/self/exe").string();
}

std::string TextOf(const std::string &path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// What this program does when a test runs it on a board: each call's result, as a letter or number.
int CallOnBoard(const std::string &what) {
  if (what == "settimeofday") {
    const struct timeval wanted { 981173106, 250000 };
    return settimeofday(&wanted, nullptr);
  }
  if (what == "reboot") return reboot(RB_POWER_OFF);
  return 2;
}

// Boards booted by this process, which enters the lab once.
class BoardTest : public testing::Test {
 protected:
  void SetUp() override {
    static bool entered = false;
    std::string why;
    if (!entered) {
      ASSERT_TRUE(board::EnterLab(&why)) << why;
      entered = true;
    }
    board_ = BootOne({});
    ASSERT_TRUE(board_);
  }
  void TearDown() override {
    if (board_) board::Halt(*board_);
  }
  static std::optional<board::Board> BootOne(const board::Config &config) {
    std::string why;
    std::optional<board::Board> board = board::Boot(config, &why);
    EXPECT_TRUE(board) << why;
    return board;
  }
  std::string Shell(const std::string &line) {
    return board::Run(*board_, {.argv = {"/bin/sh", "-c", line}}).output;
  }
  board::Result Call(const std::string &what, const std::string &fail = "") {
    return board::Run(*board_, {.argv = {ThisProgram(), "--call", what}, .fail = fail});
  }
  std::optional<board::Board> board_;
};

TEST_F(BoardTest, IsAnAppliance) {
  const struct {
    const char *line;
    const char *output;
  } cases[] = {
      {"grep PRODUCTID /proc/brackenhold", "PRODUCTID=\"0x0010\"\n"},
      {"head -n 1 /proc/ide/hda/identify", "0040 3fff 0000 0010 0000 0000 003f 0000\n"},
      {"wc -l < /proc/net/if_inet6 2> /dev/null || echo 0", "0\n"},
      {"test $(readlink /proc/$$) = /run/kernel-proc/$$ && echo itself", "itself\n"},
      {"echo 200000 > /proc/sys/kernel/shmmax; cat /proc/sys/kernel/shmmax", "200000\n"},
      {"echo 1 2> /dev/null > /proc/sys/kernel/panic || echo refused", "refused\n"},
  };
  for (const auto &one : cases)
    EXPECT_EQ(Shell(one.line), one.output) << one.line;
}

// The daemon looks for mount points in the first 1023 bytes of the table.
TEST_F(BoardTest, ShowsItsStorageEarlyInTheMountTable) {
  EXPECT_EQ(Shell("cd /mnt && echo *"),
            "array1 array2 disk1 disk2 disk3 disk4 hda1 hda3 usbdisk1 usbdisk2 usbdisk3 "
            "usbdisk4\n");
  EXPECT_EQ(Shell("mount -t tmpfs stick /mnt/usbdisk2 && head -c 300 /proc/mounts | cut -c 1-20 | "
                  "tail -n 1"),
            "stick /mnt/usbdisk2 \n");
  EXPECT_EQ(Shell("umount /mnt/usbdisk2; grep -c usbdisk /proc/mounts"), "0\n");
}

TEST_F(BoardTest, KeepsItsFilesToItself) {
  const std::string hosts = TextOf("/etc/hosts");
  EXPECT_EQ(Shell("echo 10.9.8.7 elsewhere > /etc/hosts; echo new > /etc/board-test; "
                  "rm -f /etc/nsswitch.conf; cat /etc/hosts /etc/board-test"),
            "10.9.8.7 elsewhere\nnew\n");
  EXPECT_EQ(TextOf("/etc/hosts"), hosts);
  EXPECT_FALSE(fs::exists("/etc/board-test"));
  EXPECT_TRUE(board::Exists(*board_, "/etc/board-test"));
  EXPECT_FALSE(board::Exists(*board_, "/etc/nsswitch.conf"));
  EXPECT_TRUE(board::WriteFile(*board_, "/var/run/board-test", "by way of a link"));
  EXPECT_EQ(Shell("cat /run/board-test"), "by way of a link");
  EXPECT_FALSE(fs::exists("/run/board-test"));
}

TEST_F(BoardTest, TwoDoNotSeeEachOther) {
  std::optional<board::Board> other = BootOne({.host_name = "second", .product_id = "0x2001"});
  ASSERT_TRUE(other);
  EXPECT_NE(board_->wires[0], other->wires[0]);
  EXPECT_EQ(Shell("hostname; echo one > /tmp/mark"), "brackenhold\n");
  EXPECT_EQ(board::Run(*other, {.argv = {"hostname"}}).output, "second\n");
  EXPECT_FALSE(board::Exists(*other, "/tmp/mark"));
  const auto make = [] { return semget(0x4242, 1, IPC_CREAT | IPC_EXCL | 0600) >= 0 ? 0 : 1; };
  EXPECT_EQ(board::RunInside(*board_, make).exit_code, 0);
  EXPECT_EQ(board::RunInside(*board_, make).exit_code, 1);
  EXPECT_EQ(board::RunInside(*other, make).exit_code, 0);
  board::Halt(*other);
}

TEST_F(BoardTest, MovesItsOwnClockOnly) {
  const time_t before = time(nullptr);
  EXPECT_EQ(Call("settimeofday").exit_code, 0);
  EXPECT_EQ(Shell("date -u +%Y-%m-%dT%H:%M"), "2001-02-03T04:05\n");
  EXPECT_EQ(board::ReadFile(*board_, board::kCallLog), "settimeofday 981173106.250000\n");
  EXPECT_LT(time(nullptr) - before, 60);
}

TEST_F(BoardTest, NotesWhatIsRun) {
  const struct {
    const char *line;
    const char *logged;
  } cases[] = {
      {"sh /usr/local/bin/set_timezone.sh -540", "/usr/local/bin/set_timezone.sh -540\n"},
      {"/usr/sbin/eraseall /dev/mtd2 > /dev/null 2>&1", "/usr/sbin/eraseall /dev/mtd2\n"},
      {"usermod -l admin -p 'a\\nb' admin", "/usr/sbin/usermod -l admin -p a\\nb admin\n"},
      {"echo text > /tmp/in; test \"$(nkf -e /tmp/in)\" = text", "/usr/bin/nkf -e /tmp/in\n"},
      {"mkdir -p /run/stand-ins; echo 'exit 3' > /run/stand-ins/save_config.sh; "
       "/usr/local/bin/save_config.sh; test $? = 3",
       "/usr/local/bin/save_config.sh\n"},
  };
  for (const auto &one : cases) {
    EXPECT_TRUE(board::WriteFile(*board_, board::kCallLog, ""));
    EXPECT_EQ(board::Run(*board_, {.argv = {"/bin/sh", "-c", one.line}}).exit_code, 0) << one.line;
    EXPECT_EQ(board::ReadFile(*board_, board::kCallLog), one.logged);
  }
  EXPECT_TRUE(board::WriteFile(*board_, board::kCallLog, ""));
  EXPECT_EQ(Call("reboot").exit_code, 0);
  EXPECT_EQ(board::ReadFile(*board_, board::kCallLog), "reboot 0x4321fedc\n");
}

// Opens UDP port 5000, or another if that is taken, and broadcasts `name` to port 5000 of all
// boards.
int Shout(const std::string &name) {
  const struct sockaddr_in all = {AF_INET, htons(5000), {inet_addr("192.168.41.255")}, {}};
  const auto *const address = reinterpret_cast<const struct sockaddr *>(&all);
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  const int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
  static_cast<void>(bind(fd, address, sizeof all));
  sendto(fd, name.data(), name.size(), 0, address, sizeof all);
  return fd;
}

bool Hears(int fd, char name) {
  char heard = 0;
  return board::WaitFor([&] { return recv(fd, &heard, 1, 0) == 1 && heard == name; });
}

TEST_F(BoardTest, ManyShareABridge) {
  std::string why;
  std::vector<board::Board> boards = board::BootAll(board::Network(3), &why);
  ASSERT_EQ(boards.size(), 3U) << why;
  const int client = Shout("c");
  std::vector<pid_t> listeners;
  for (const char *name : {"1", "2", "3"}) {
    listeners.push_back(board::Fork(boards[listeners.size()]));
    if (listeners.back() == 0) _exit(Hears(Shout(name), 'C') ? 0 : 1);
    EXPECT_TRUE(Hears(client, *name)) << name;
  }
  close(Shout("C"));
  for (const pid_t listener : listeners)
    EXPECT_EQ(board::Wait(listener).exit_code, 0);
  close(client);
  board::Halt(boards[0]), board::Halt(boards[2]);
  EXPECT_NE(if_nametoindex("bridge0"), 0U);
  board::Halt(boards[1]);
  EXPECT_EQ(if_nametoindex("bridge0"), 0U);
}

bool NamespaceInUse(const std::string &name) {
  std::error_code error;
  for (const fs::directory_entry &process : fs::directory_iterator("/proc", error))
    if (fs::read_symlink(process.path() / "ns/net", error) == name) return true;
  return false;
}

// The program `boot`, as people run it.
struct Started {
  pid_t process;
  int output;
};

std::string BootProgram() {
  return fs::path(ThisProgram()).replace_filename("boot").string();
}

// Whether the build folder is open to that user; a home directory's often is not.
bool MayRunBoot(uid_t uid) {
  const pid_t child = fork();
  if (child == 0) {
    _exit(setresuid(uid, uid, uid) == 0 && access(BootProgram().c_str(), X_OK) == 0 ? 0 : 1);
  }
  return board::Wait(child).exit_code == 0;
}

Started StartBoot(uid_t uid, const std::vector<std::string> &arguments,
                  const char *limit = nullptr) {
  int pipe_fds[2];
  EXPECT_EQ(pipe2(pipe_fds, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child != 0) {
    close(pipe_fds[1]);
    return {child, pipe_fds[0]};
  }
  std::string why;
  dup2(pipe_fds[1], STDOUT_FILENO);
  dup2(pipe_fds[1], STDERR_FILENO);
  if (limit != nullptr && board::EnterLab(&why)) std::ofstream(limit) << 0;
  if (uid != 0 && setresuid(uid, uid, uid) != 0) _exit(126);
  const std::string program = BootProgram();
  std::vector<char *> argv{const_cast<char *>("boot")};
  for (const std::string &argument : arguments)
    argv.push_back(const_cast<char *>(argument.c_str()));
  argv.push_back(nullptr);
  execv(program.c_str(), argv.data());
  _exit(126);
}

board::Result EndOf(const Started &started) {
  std::string output;
  char byte = 0;
  while (read(started.output, &byte, 1) == 1)
    output += byte;
  close(started.output);
  board::Result result = board::Wait(started.process);
  result.output = output;
  return result;
}

TEST(BootTest, RunsACommandForRootAndForOthers) {
  const std::string line =
      "id -u; grep PRODUCTID /proc/brackenhold; cat /etc/board-test; "
      "ip -br addr show eth0 | grep -o 10.1.1.1/8; exit 5";
  const std::vector<std::string> arguments = {
      "--product", "0x2002",  "--address", "10.1.1.1/8", "--file", "/etc/board-test=given",
      "--",        "/bin/sh", "-c",        line};
  const std::string output = "0\nPRODUCTID=\"0x2002\"\ngiven10.1.1.1/8\n";
  unsigned long id = 0;
  unsigned long count = 0;
  std::ifstream("/proc/self/uid_map") >> id >> id >> count;
  std::vector<uid_t> users = {geteuid()};
  if (geteuid() == 0 && count > 65534 && MayRunBoot(65534)) users.push_back(65534);
  for (const uid_t uid : users) {
    const board::Result result = EndOf(StartBoot(uid, arguments));
    EXPECT_EQ(result.output, output) << "uid " << uid;
    EXPECT_EQ(result.exit_code, 5) << "uid " << uid;
  }
}

TEST(BootTest, SaysWhyThereIsNoBoard) {
  const struct {
    std::vector<std::string> arguments;
    const char *limit;
    int exit_code;
    const char *text;
  } cases[] = {
      {{"--", "true"}, "/proc/sys/user/max_user_namespaces", 125, "user.max_user_namespaces"},
      {{"--address", "1.2.3/99", "--", "true"}, nullptr, 125, "1.2.3/99"},
      {{"--file", "noslash", "--", "true"}, nullptr, 2, "--file wants /PATH=TEXT"},
      {{"--enter"}, nullptr, 2, "BH_BOARD_PID is not set"},
      {{"--boards", "501"}, nullptr, 2, "--boards wants 1 to 500, not 501"},
      {{"--boards", "2", "--", "bash", "-c", "board 2 hostname"}, nullptr, 0, "brackenhold-2\n"},
  };
  for (const auto &one : cases) {
    const board::Result result = EndOf(StartBoot(0, one.arguments, one.limit));
    EXPECT_EQ(result.exit_code, one.exit_code) << one.text;
    EXPECT_NE(result.output.find(one.text), std::string::npos) << result.output;
  }
}

TEST(BootTest, LeavesNothingWhenKilled) {
  const std::string mounts = TextOf("/proc/self/mounts");
  const Started boot = StartBoot(
      0, {"--", "/bin/sh", "-c", "readlink /proc/self/ns/net; sleep 1000 & exec sleep 1000"});
  ASSERT_GT(boot.process, 0);
  std::string name;
  for (char byte = 0; read(boot.output, &byte, 1) == 1 && byte != '\n';)
    name += byte;
  ASSERT_TRUE(name.starts_with("net:["));
  EXPECT_TRUE(NamespaceInUse(name));
  kill(boot.process, SIGKILL);
  EXPECT_EQ(EndOf(boot).signal, SIGKILL);
  EXPECT_TRUE(board::WaitFor([&] { return !NamespaceInUse(name); }));
  EXPECT_EQ(TextOf("/proc/self/mounts"), mounts);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 3 && std::string(argv[1]) == "--call") return CallOnBoard(argv[2]);
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
