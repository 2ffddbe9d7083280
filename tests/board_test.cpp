// The simulated board itself: that it is the appliance which tests take it for, and that nothing of
// it reaches the machine or stays there.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/sem.h>
#include <sys/time.h>
#include <unistd.h>

#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include "board/board.h"
#include "tests/files.h"

namespace {

namespace fs = std::filesystem;

constexpr char ON_BOARD[] = "--on-board";

std::string ThisProgram() {
  return fs::read_symlink("/proc/self/exe").string();
}

// What this program does when a test runs it on a board.
int SetClockAndPowerOff() {
  const struct timeval wanted { 981173106, 250000 };
  return settimeofday(&wanted, nullptr) == 0 && reboot(RB_POWER_OFF) == 0 ? 0 : 1;
}

// Boards booted by this process, which enters its namespaces once.
class BoardTest : public testing::Test {
 protected:
  void SetUp() override {
    static bool entered = false;
    std::string why;
    if (!entered) {
      ASSERT_TRUE(board::EnterNamespaces(why)) << why;
      entered = true;
    }
    booted = BootOne({});
    ASSERT_TRUE(booted);
  }
  void TearDown() override {
    if (booted) board::Halt(*booted);
  }
  static std::optional<board::Board> BootOne(const board::Config &config) {
    std::string why;
    std::optional<board::Board> board = board::Boot(config, why);
    EXPECT_TRUE(board) << why;
    return board;
  }
  std::string Shell(const std::string &line) {
    return board::Run(*booted, {.argv = {"/bin/sh", "-c", line}}).output;
  }
  std::optional<board::Board> booted;
};

TEST_F(BoardTest, KeepsItsFilesToItself) {
  Shell("echo new > /etc/board-test; echo new > /usr/share/man/man1/board-test");
  for (const char *path : {"/etc/board-test", "/usr/share/man/man1/board-test"}) {
    EXPECT_EQ(board::ReadFile(*booted, path), "new\n") << path;
    EXPECT_FALSE(fs::exists(path)) << path;
  }
  Shell("rm -f /etc/nsswitch.conf");
  EXPECT_FALSE(board::Exists(*booted, "/etc/nsswitch.conf"));
  EXPECT_TRUE(board::WriteFile(*booted, "/var/run/board-test", "by way of a link"));
  EXPECT_EQ(Shell("cat /run/board-test"), "by way of a link");
  EXPECT_FALSE(fs::exists("/run/board-test"));
  EXPECT_EQ(Shell("echo 1 2> /dev/null > /proc/sys/kernel/panic || echo refused"), "refused\n");
}

// The /etc that is changed here is that of this process's own namespace.
TEST_F(BoardTest, HasACopyOfTheMachinesEtc) {
  ASSERT_EQ(mount("test", "/etc", "tmpfs", 0, nullptr), 0);
  fixture::WriteFile("/etc/machine", "before");
  fixture::WriteFile("/etc/samba/machine", "before");
  std::optional<board::Board> other = BootOne({});
  fixture::WriteFile("/etc/machine", "after");
  fixture::WriteFile("/etc/samba/machine", "after");
  fixture::WriteFile("/etc/later", "");
  EXPECT_EQ(umount2("/etc", MNT_DETACH), 0);
  ASSERT_TRUE(other);
  EXPECT_EQ(board::ReadFile(*other, "/etc/machine"), "before");
  EXPECT_EQ(board::ReadFile(*other, "/etc/samba/machine"), "before");
  EXPECT_FALSE(board::Exists(*other, "/etc/later"));
  EXPECT_EQ(
      board::Run(*other, {.argv = {"getent", "ahostsv4", "brackenhold"}}).output.substr(0, 12),
      "192.168.40.2");
  board::Halt(*other);
}

TEST_F(BoardTest, TwoDoNotSeeEachOther) {
  std::optional<board::Board> other = BootOne({.host_name = "second", .product_id = "0x2001"});
  ASSERT_TRUE(other);
  EXPECT_NE(booted->wires[0], other->wires[0]);
  EXPECT_EQ(Shell("hostname; echo one > /tmp/mark"), "brackenhold\n");
  EXPECT_EQ(board::Run(*other, {.argv = {"hostname"}}).output, "second\n");
  EXPECT_FALSE(board::Exists(*other, "/tmp/mark"));
  const auto make = [] { return semget(0x4242, 1, IPC_CREAT | IPC_EXCL | 0600) >= 0 ? 0 : 1; };
  EXPECT_EQ(board::RunInside(*booted, make).exit_code, 0);
  EXPECT_EQ(board::RunInside(*booted, make).exit_code, 1);
  EXPECT_EQ(board::RunInside(*other, make).exit_code, 0);
  board::Halt(*other);
}

// What the shim stands for must not reach the machine.
TEST_F(BoardTest, MovesItsOwnClockAndNotesWhatIsRun) {
  const time_t before = time(nullptr);
  EXPECT_EQ(board::Run(*booted, {.argv = {ThisProgram(), ON_BOARD}}).exit_code, 0);
  EXPECT_EQ(Shell("date -u +%Y-%m-%dT%H:%M"), "2001-02-03T04:05\n");
  EXPECT_LT(time(nullptr) - before, 60);
  Shell("/usr/sbin/eraseall /dev/mtd2; usermod -l admin -p 'a\\nb' admin");
  EXPECT_EQ(board::ReadFile(*booted, board::CALL_LOG),
            "settimeofday 981173106.250000\nreboot 0x4321fedc\n/usr/sbin/eraseall /dev/mtd2\n"
            "/usr/sbin/usermod -l admin -p a\\nb admin\n");
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

// The arguments as the shell has them.
Started StartBoot(uid_t uid, const std::string &arguments, const char *limit = nullptr) {
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
  if (limit != nullptr && board::EnterNamespaces(why)) std::ofstream(limit) << 0;
  if (uid != 0 && setresuid(uid, uid, uid) != 0) _exit(126);
  const std::string line = "exec '" + BootProgram() + "' " + arguments;
  execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
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
  const std::string arguments =
      "--product 0x2002 --address 10.1.1.1/8 --file /etc/board-test=given -- /bin/sh -c '"
      "id -u; grep PRODUCTID /proc/brackenhold; cat /etc/board-test; "
      "ip -br addr show eth0 | grep -o 10.1.1.1/8; exit 5'";
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
  struct Row {
    const char *arguments;
    const char *limit;  // of the kernel, set to 0; null: none
    int exit_code;
    const char *output;  // a part of it
  };
  const Row rows[] = {
      {"-- true", "/proc/sys/user/max_user_namespaces", 125, "user.max_user_namespaces"},
      {"--address 1.2.3/99 -- true", nullptr, 125, "1.2.3/99"},
      {"--file noslash -- true", nullptr, 2, "--file wants /PATH=TEXT"},
      {"--enter", nullptr, 2, "BH_BOARD_PID is not set"},
      {"--boards 501", nullptr, 2, "--boards wants 1 to 500, not 501"},
      {"--boards 2 -- bash -c 'board 2 hostname'", nullptr, 0, "brackenhold-2\n"},
      {"--demo -- sh -c 'bhctl exec echo here; exit 7'", nullptr, 7, "here\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.arguments);
    const board::Result result = EndOf(StartBoot(0, row.arguments, row.limit));
    EXPECT_EQ(result.exit_code, row.exit_code);
    EXPECT_NE(result.output.find(row.output), std::string::npos) << result.output;
  }
}

TEST(BootTest, LeavesNothingWhenKilled) {
  const std::string mounts = fixture::ReadFile("/proc/self/mounts");
  const Started boot =
      StartBoot(0, "-- /bin/sh -c 'readlink /proc/self/ns/net; sleep 1000 & exec sleep 1000'");
  ASSERT_GT(boot.process, 0);
  std::string name;
  for (char byte = 0; read(boot.output, &byte, 1) == 1 && byte != '\n';)
    name += byte;
  ASSERT_TRUE(name.starts_with("net:["));
  EXPECT_TRUE(NamespaceInUse(name));
  kill(boot.process, SIGKILL);
  EXPECT_EQ(EndOf(boot).signal, SIGKILL);
  EXPECT_TRUE(board::WaitFor([&] { return !NamespaceInUse(name); }));
  EXPECT_EQ(fixture::ReadFile("/proc/self/mounts"), mounts);
}

}  // namespace

int main(int argc, char **argv) {
  if (argc == 2 && std::string(argv[1]) == ON_BOARD) return SetClockAndPowerOff();
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
