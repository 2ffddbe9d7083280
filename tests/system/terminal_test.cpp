// What bhctl shows on a terminal only: colours, questions, progress; and how it is interrupted.

#include <poll.h>
#include <pty.h>

#include <csignal>
#include <cstdlib>

#include "tests/system/fixture.h"

using std::string;

namespace {

constexpr char INTERRUPT[] = "\x03";

struct Answer {
  const char *after;  // that text
  const char *typed;
};

}  // namespace

class OnTerminal : public ServingTest {
 protected:
  string Command(const string &arguments) {
    return BHCTL_PATH " --mac 02:0b:4a:00:00:10 -i " + board.wires[0] + " " + arguments;
  }
  string Type(const string &arguments, const std::vector<Answer> &answers = {}) {
    return TypeScript("exec " + Command(arguments), answers);
  }

  // Runs it on a terminal of 80 columns, types the answers, and gives all output and "exit N".
  string TypeScript(const string &script, const std::vector<Answer> &answers = {}) {
    const winsize size = {.ws_row = 24, .ws_col = 80, .ws_xpixel = 0, .ws_ypixel = 0};
    int terminal = -1;
    const pid_t process = forkpty(&terminal, nullptr, nullptr, &size);
    if (process == 0) {
      setenv("TERM", "xterm", 1);
      execl("/bin/sh", "sh", "-c", script.c_str(), nullptr);
      _exit(127);
    }
    string shown = Follow(terminal, answers);
    close(terminal);
    kill(process, SIGKILL);
    return shown + "exit " + std::to_string(board::Wait(process).exit_code);
  }

  static string Follow(int terminal, const std::vector<Answer> &answers) {
    string shown;
    size_t seen = 0;
    size_t next = 0;
    for (;;) {
      pollfd readable = {terminal, POLLIN, 0};
      if (poll(&readable, 1, 20000) <= 0) return shown + "[nothing more]";
      char part[1024];
      const ssize_t length = read(terminal, part, sizeof(part));
      if (length <= 0) return shown;
      shown.append(part, static_cast<size_t>(length));
      const size_t at =
          next < answers.size() ? shown.find(answers[next].after, seen) : string::npos;
      if (at == string::npos) continue;
      seen = at + string(answers[next].after).size();
      const string typed = answers[next++].typed;
      EXPECT_EQ(write(terminal, typed.data(), typed.size()), std::ssize(typed));
    }
  }
};

TEST_F(OnTerminal, ColoursAreForTerminals) {
  EXPECT_NE(Type("discover --columns state --color always").find("\x1B["), string::npos);
  EXPECT_NE(Type("discover --columns state").find("\x1B["), string::npos);
  EXPECT_EQ(Type("--color never discover --columns state").find('\x1B'), string::npos);
  EXPECT_EQ(Bhctl("discover --columns state").find('\x1B'), string::npos);
  setenv("NO_COLOR", "1", 1);
  EXPECT_EQ(Type("discover --columns state").find('\x1B'), string::npos);
  unsetenv("NO_COLOR");
}

TEST_F(OnTerminal, AsksBeforeItDoesHarm) {
  const string set =
      "--pass-phrase FernGate --password admin set --ip 192.168.40.50 --netmask 255.255.255.0";
  const string refused = Type(set, {{"are you sure? [y/N] ", "n\n"}});
  EXPECT_NE(refused.find("nothing was done\r\nexit 2"), string::npos) << refused;
  const string done = Type(set, {{"are you sure? [y/N] ", "y\n"}});
  EXPECT_NE(done.find("done; the appliance is at 192.168.40.50\r\nexit 0"), string::npos) << done;
}

TEST_F(OnTerminal, UpgradeAsksForThePasswordAndShowsHowFarItIs) {
  board::WriteFile(board, "/run/stand-ins/fw_update.sh", "sleep 1");
  string image;
  image.resize(9'000'000);
  const string upgrade = "upgrade " + ClientFile(image) + " --type 2";
  const string shown = Type(upgrade, {{"assword", "admin\n"}});
  EXPECT_EQ(shown.find("admin\r"), string::npos) << "the password is not shown";
  EXPECT_NE(shown.find("installing; this may take minutes  "), string::npos) << shown;
  EXPECT_NE(shown.find("installed 9.0 MB"), string::npos) << shown;
  EXPECT_TRUE(shown.ends_with("exit 0")) << shown;
}

TEST_F(OnTerminal, WatchDrawsTheTableAnewUntilItIsInterrupted) {
  const string shown =
      Type("--timeout 0.3 discover --watch", {{"1 appliances", ""}, {"1 appliances", INTERRUPT}});
  EXPECT_NE(shown.find("\x1B[H\x1B[J"), string::npos) << shown;
  EXPECT_TRUE(shown.ends_with("exit 130")) << shown;
}

TEST_F(OnTerminal, WatchInAPipePrintsChangesOnly) {
  FILE *pipe = popen(("timeout 5 " + Command("--timeout 0.3 discover --watch")).c_str(), "re");
  char line[256] = "";
  EXPECT_NE(fgets(line, sizeof(line), pipe), nullptr);
  EXPECT_NE(string(line).find("  +  192.168.40.2  brackenhold  "), string::npos) << line;
  StopDaemon();
  EXPECT_NE(fgets(line, sizeof(line), pipe), nullptr);
  EXPECT_NE(string(line).find("  -  192.168.40.2  brackenhold  "), string::npos) << line;
  StartDaemon();
  EXPECT_NE(fgets(line, sizeof(line), pipe), nullptr);
  EXPECT_NE(string(line).find("  +  192.168.40.2  brackenhold  "), string::npos) << line;
  pclose(pipe);
}

TEST_F(OnTerminal, InterruptSaysThatTheCommandGoesOn) {
  board::WriteFile(board, "/tmp/wait", "touch /tmp/begun; sleep 2");
  const string shown = TypeScript(
      Command("--pass-phrase FernGate exec sh /tmp/wait") + " & client=$!; while ! [ -e " +
      board.root + "/tmp/begun ]; do sleep 0.05; done; kill -TERM $client; wait $client");
  EXPECT_NE(shown.find("the command goes on, and the appliance answers nobody until it ends\r\n"),
            string::npos)
      << shown;
  EXPECT_TRUE(shown.ends_with("exit 130")) << shown;
}
