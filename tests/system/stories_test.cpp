// What an administrator does with an appliance, by bhctl and over the wire.

#include <filesystem>
#include <fstream>

#include "tests/system/fixture.h"

using std::string;

class Story : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    StartDaemon();
  }
  void Expect(const string &arguments, const string &part) {
    const string output = Bhctl(arguments);
    EXPECT_NE(output.find(part), string::npos) << arguments << ":\n" << output;
  }
  string TakeCalls() {
    string calls = board::ReadFile(board, board::kCallLog);
    board::WriteFile(board, board::kCallLog, "");
    return calls;
  }
};

const string kSecrets = "--pass-phrase FernGate --password admin ";

TEST_F(Story, FirstSetUpOfANewAppliance) {
  Expect("--json discover", "\"initialized\":false");
  OnBoard({"mkfifo", "/tmp/libbh_tmp", "/tmp/diskinfo"});  // left by somebody, to keep it waiting
  Expect("set --hostname fresh", "ACP_STATE_PASSWORD_ERROR");
  client.frames.clear();
  Expect(kSecrets +
             "--yes set --ip 192.168.40.77 --netmask 255.255.255.0 --gateway 192.168.40.1 "
             "--hostname fresh --workgroup OFFICE --time '2026-05-04 03:02:01' --timezone -540 "
             "--initialised",
         "exit 0");
  ExpectAlive();  // when all is done
  const string calls = TakeCalls();
  for (const char *call : {"settimeofday 1777", "networking restart", "smb restart", "atalk"})
    EXPECT_NE(calls.find(call), string::npos) << calls;
  const string found = Bhctl("--json discover");
  for (const char *part :
       {"\"address\":\"192.168.40.77\"", "\"host_name\":\"fresh\"", "\"workgroup\":\"OFFICE\"",
        "\"gateway\":\"192.168.40.1\"", "\"initialized\":true", "T03:02:"})
    EXPECT_NE(found.find(part), string::npos) << found;
  EXPECT_NE(board::ReadFile(board, "/etc/network/interfaces").find("address 192.168.40.77"),
            string::npos);
  Expect("clear-usb", "exit 0");
  EXPECT_NE(board::ReadFile(board, "/etc/korvo/diskinfo").find("usb_disk4="), string::npos);
}

TEST_F(Story, ClientsLockEachOtherOut) {
  Expect("--pass-phrase WrongOne enable", "ACP_STATE_PASSWORD_ERROR");
  Expect("--yes reboot", "ACP_STATE_NOT_PERMIT");
  Expect("--pass-phrase FernGate enable", "exit 0");
  Expect("exec 'echo here'", "here\nexit 0");
  // Another client takes the command mode over, and off again.
  TakeKey();
  wire::Bytes body(8);
  const wire::Bytes phrase = Encoded("FernGate");
  body[0] = 0x0D;
  body.resize(8 + phrase.size());
  std::copy(phrase.begin(), phrase.end(), body.begin() + 8);
  wire::Bytes enable = wire::Request("20 00 00 00 07 00 01 00 A0 80 19 00 00 00 00 00", body);
  EXPECT_EQ(wire::Number(Ask(enable), 28), 0U);
  Expect("exec 'echo here'", "exit 1");
  Expect("--yes shutdown", "ACP_STATE_NOT_PERMIT");
  EXPECT_EQ(TakeCalls(), "");
  Expect("--password admin login", "ACP_STATE_NOT_PERMIT");
  Expect("--pass-phrase FernGate --password Admin login", "ACP_STATE_PASSWORD_ERROR");
  Expect(kSecrets + "login", "exit 0");
  Expect("--yes remove /etc/hosts", "exit 0");
  EXPECT_FALSE(board::Exists(board, "/etc/hosts"));
  Expect("disable", "exit 0");
  Expect("--yes remove /etc/passwd", "exit 1");
  // Who stops the daemon does not wait for a script of the appliance's.
  board::WriteFile(board, "/run/stand-ins/save_config.sh", "sleep 9");
  wire::Send(client, wire::Request("20 00 00 00 07 00 01 00 A0 80 08 00 00 00 00 00",
                                   {6, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(board::WaitFor([&] { return TakeCalls().find("save_config") != string::npos; }));
  EXPECT_TRUE(board::Kill(board, ServerPid(), SIGTERM));
  EXPECT_TRUE(AwaitServers(0));
}

TEST_F(Story, EmergencySystemIsRescued) {
  board::WriteFile(board, "/etc/brackenhold_emergence", "");
  board::Remove(board, "/etc/brackenhold_release");
  const string file =
      std::filesystem::temp_directory_path() / ("rescue-" + std::to_string(getpid()));
  std::ofstream(file) << string(5000, 'f');
  Expect("--json discover", "\"product_state\":\"emergency\"");
  Expect(kSecrets + "--yes set --hostname lost", "ACP_STATE_FAILURE");
  Expect("--password admin upgrade " + file + " --type 2", "exit 0");
  EXPECT_EQ(board::ReadFile(board, "/dev/mtdblock1"), string(5000, 'f'));
  Expect("--yes boot disk --pass-phrase FernGate", "exit 0");
  TakeCalls();
  Expect("--yes reboot", "exit 0");
  EXPECT_EQ(TakeCalls(), "/sbin/reboot\n");
  Expect(kSecrets + "--yes set --ip 192.168.40.9 --netmask 255.255.255.0", "exit 0");
  Expect("--json discover", "\"address\":\"192.168.40.9\"");
  std::filesystem::remove(file);
}

TEST_F(Story, OfficeProductKeepsItsAccounts) {
  BootBoard({.product_id = "0x2001"});
  StartDaemon();
  Expect(kSecrets + "passwd --new-password secret", "exit 0");
  EXPECT_EQ(TakeCalls().substr(0, 30), "/usr/sbin/usermod -l admin -p ");
  const string file = std::filesystem::temp_directory_path() / ("zeph-" + std::to_string(getpid()));
  std::ofstream(file) << "image";
  Expect(kSecrets + "upgrade " + file + " --type 5", "exit 0");
  EXPECT_EQ(board::ReadFile(board, "/dev/mtd4"), "image");
  Expect("--yes raid create jbod", "exit 0");
  EXPECT_TRUE(board::WaitFor([&] { return TakeCalls().find("dkwiz_mkjbod.sh") != string::npos; }));
  Expect("language japanese", "exit 0");
  EXPECT_NE(board::ReadFile(board, "/etc/korvo/info").find("japanese"), string::npos);
  // What switches the appliance off stops the daemon first, which answers all the same.
  board::WriteFile(board, "/run/stand-ins/shutdown.sh",
                   "kill -TERM $(cat /var/run/bh_servd-eth0.pid); sleep 5");
  Expect("--yes shutdown", "exit 0");
  EXPECT_TRUE(AwaitServers(0));
  std::filesystem::remove(file);
}
