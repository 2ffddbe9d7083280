// What an administrator does with an appliance, by bhctl and over the wire.

#include "tests/system/fixture.h"

using std::string;

class Story : public ServingTest {
 protected:
  string TakeCalls() {
    string calls = board::ReadFile(board, board::CALL_LOG);
    board::WriteFile(board, board::CALL_LOG, "");
    return calls;
  }
  // Taken while one is being written, it would be lost.
  bool AwaitCall(const string &call) {
    return board::WaitFor(
        [&] { return board::ReadFile(board, board::CALL_LOG).find(call) != string::npos; });
  }
};

const string SECRETS = "--pass-phrase FernGate --password admin ";

TEST_F(Story, FirstSetUpOfANewAppliance) {
  ExpectBhctl("--json discover", "\"initialized\":false");
  OnBoard({"mkfifo", "/tmp/libbh_tmp", "/tmp/diskinfo"});  // left by somebody, to keep it waiting
  ExpectBhctl("set --hostname fresh", "ACP_STATE_PASSWORD_ERROR");
  client.frames.clear();
  ExpectBhctl(
      SECRETS +
          "--yes set --ip 192.168.40.77 --netmask 255.255.255.0 --gateway 192.168.40.1 "
          "--hostname fresh --workgroup OFFICE --time '2026-05-04 03:02:01' --timezone -540 "
          "--initialised",
      "exit 0");
  ExpectAlive();  // when all is done
  const string calls = TakeCalls();
  for (const char *call : {"settimeofday 1777", "networking restart", "smb restart", "atalk"})
    EXPECT_NE(calls.find(call), string::npos) << call << " is not in\n" << calls;
  const string found = Bhctl("--json discover");
  for (const char *part :
       {"\"address\":\"192.168.40.77\"", "\"host_name\":\"fresh\"", "\"workgroup\":\"OFFICE\"",
        "\"gateway\":\"192.168.40.1\"", "\"initialized\":true", "T03:02:"})
    EXPECT_NE(found.find(part), string::npos) << part << " is not in\n" << found;
  EXPECT_NE(board::ReadFile(board, "/etc/network/interfaces").find("address 192.168.40.77"),
            string::npos);
  ExpectBhctl("clear-usb", "exit 0");
  EXPECT_NE(board::ReadFile(board, "/etc/korvo/diskinfo").find("usb_disk4="), string::npos);
}

TEST_F(Story, ClientsLockEachOtherOut) {
  ExpectBhctl("--pass-phrase WrongOne enable", "ACP_STATE_PASSWORD_ERROR");
  ExpectBhctl("--yes reboot", "ACP_STATE_NOT_PERMIT");
  ExpectBhctl("--pass-phrase FernGate enable", "exit 0");
  ExpectBhctl("exec 'echo here'", "here\nexit 0");
  // Another client takes the command mode over, and off again.
  TakeKey();
  wire::Bytes body = {0x0D, 0, 0, 0, 0, 0, 0, 0};
  wire::Append(body, Encoded("FernGate"));
  EXPECT_EQ(wire::Number(Ask(wire::Request(SPECIAL, body)), 28), 0U);
  ExpectBhctl("exec 'echo here'", "exit 1");
  ExpectBhctl("--yes shutdown", "ACP_STATE_NOT_PERMIT");
  EXPECT_EQ(TakeCalls(), "");
  ExpectBhctl("--password admin login", "ACP_STATE_NOT_PERMIT");
  ExpectBhctl("--pass-phrase FernGate --password Admin login", "ACP_STATE_PASSWORD_ERROR");
  ExpectBhctl(SECRETS + "login", "exit 0");
  ExpectBhctl("--yes remove /etc/hosts", "exit 0");
  EXPECT_FALSE(board::Exists(board, "/etc/hosts"));
  ExpectBhctl("disable", "exit 0");
  ExpectBhctl("--yes remove /etc/passwd", "exit 1");
  // Who stops the daemon does not wait for a script of the appliance's.
  board::WriteFile(board, "/run/stand-ins/save_config.sh", "sleep 60");
  wire::Send(client, wire::Request(SPECIAL, {6, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_TRUE(AwaitCall("save_config"));
  EXPECT_TRUE(board::Kill(board, ServerPid(), SIGTERM));
  EXPECT_TRUE(AwaitServers(0));
}

// What switches the appliance off stops the daemon first, which answers all the same.
TEST_F(Story, ApplianceThatIsSwitchedOffAnswersFirst) {
  for (const string script : {"/run/stand-ins/shutdown.sh", "/run/stand-ins/korsub_shutdown2.sh"})
    board::WriteFile(board, script, "kill -TERM $(cat /var/run/bh_servd-eth0.pid); sleep 5");
  for (const char *state : {"/etc/brackenhold_release", "/etc/brackenhold_emergence"}) {
    SCOPED_TRACE(state);
    ExpectBhctl("--yes shutdown --pass-phrase FernGate", "exit 0");
    EXPECT_TRUE(AwaitServers(0));
    board::Remove(board, state);
    board::WriteFile(board, "/etc/brackenhold_emergence", "");
    StartDaemon();
  }
}
