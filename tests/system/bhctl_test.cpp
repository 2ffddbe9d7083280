// bhctl as its user types it, with one appliance: arguments, output, exit status.

#include "tests/system/fixture.h"

using std::string;

class BhctlOnWire : public ServingTest {
 protected:
  struct Typed {
    string arguments;
    const char *output;  // a part of it
    int status = 0;
  };

  void ExpectAll(const std::vector<Typed> &typed) {
    for (const Typed &each : typed) {
      const string output = Bhctl(each.arguments);
      EXPECT_NE(output.find(each.output), string::npos) << each.arguments << ":\n" << output;
      EXPECT_TRUE(output.ends_with("exit " + std::to_string(each.status)))
          << each.arguments << ":\n"
          << output;
    }
  }
};

TEST_F(BhctlOnWire, TellsWhatTheApplianceHasAndHasNot) {
  ExpectAll({
      {"show", "\n  Capacity:       250.0 GB (250059350016 bytes)\n"},
      {"--json show", "\"drives\":[{\"directory\":\"/proc/ide/hda\""},
      {"ping -c 2", "2 sent, 2 received, 0% lost, min/avg/max/jitter "},
      {"disk /proc/ide/hdz", " has no such drive, or one that tells nothing\n", 1},
      {"partition /", "File system:  tmpfs\n"},
      {"--json partition /", "\"fs_type\":16914836"},
      {"partition /none", "there is no such path, or nothing can tell its file system\n", 1},
      {"discover --columns name,dhcp --sort mac", "HOST NAME    DHCP\nbrackenhold  no\n"},
      {"metrics", "\nbh_up{mac=\"02:0b:4a:00:00:10\",name=\"brackenhold\"} 1\n"},
      {"upgrade /etc/passwd --type 2", "the administrator's password is required", 2},
      {"--timeout 0.3 --mac 02:0b:4a:00:00:99 raid", "no answer", 3},
  });
}

TEST_F(BhctlOnWire, TakesTheWordsOfACommandAsTheyCome) {
  ASSERT_EQ(OnBoard({"sh", "-c", "for i in 1 2 3 4 5 6; do printf '%0300d\\n' $i; done >/tmp/long"})
                .exit_code,
            0);
  const string phrase = "--pass-phrase FernGate ";
  ExpectAll({
      {phrase + "exec -- echo -n --json here", "--json here"},
      {phrase + "exec echo 'two  spaces'", "two spaces\n"},
      {phrase + "exec cat /tmp/long", "the output may be truncated"},
      {phrase + "--json exec cat /tmp/long", "\"truncated\":true"},
      {phrase + "exec --full cat /tmp/long", "0005\n"},
      {phrase + "exec --full 'echo out; exit 3'", "out\n"},
      {phrase + "exec --type 1 sh -c true", "", 0},
      {phrase + "exec --type 2 cat /tmp/long", ""},
      {"result", "0005\n"},
  });
}

// What the appliance takes without a word, but does not show afterwards.
TEST_F(BhctlOnWire, SetSaysWhatWasNotTaken) {
  ASSERT_EQ(OnBoard({"sh", "-c", "rm -f /etc/bh_servd.log; mkdir /etc/bh_servd.log"}).exit_code, 0);
  const string password = "--pass-phrase FernGate --password admin ";
  ExpectAll({
      {password + "set --hostname other --wait", "done\n"},
      {password + "set --initialized",
       "did not take the setting 'initialized': wanted yes, found no\n", 1},
      {password + "--json set --initialised",
       "\"not_taken\":[{\"setting\":\"initialized\",\"wanted\":\"yes\",\"found\":\"no\"}]", 1},
      {password + "set --gateway 10.1.2.3", "is not in the network of 192.168.40.2", 2},
      {password + "--yes set --ip 192.168.40.9 --netmask 255.255.255.0",
       "done; the appliance is at 192.168.40.9\n"},
  });
}

// A client that vanished after its request leaves a receiver that waits for the image.
TEST_F(BhctlOnWire, UpgradeEndsAnEarlierUpload) {
  TakeKey();
  wire::Bytes body = wire::Hex("02000000 10000000 05000000 00000000 00000000 00000000");
  wire::Append(body, Encoded("admin"));
  body.resize(64);
  ASSERT_EQ(wire::Number(Ask(wire::Request(0x8080, body)), 28), 0U);
  const string upgrade = "--password admin upgrade " + ClientFile("image") + " --type 2 ";
  ExpectAll({{upgrade + "--dry-run", "nothing was changed"}, {upgrade, "installed 5 B"}});
}

TEST_F(BhctlOnWire, RestartIsAwaited) {
  board::WriteFile(board, "/run/stand-ins/korsub_shutdown2.sh",
                   "(bh_servd -t eth0; sleep 2; bh_servd) >/dev/null 2>&1 &");
  ExpectBhctl("--pass-phrase FernGate --yes reboot --wait", "done; it answers again after ");
}
