// bhctl with many appliances, and with bad networks.

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "tests/system/fixture.h"
#include "tests/system/lossy_wire.h"

using std::string;

namespace {

struct Output {
  string out;
  string errors;
  int status = 0;

  int Count(const string &text) const {
    int count = 0;
    for (size_t at = out.find(text); at != string::npos; at = out.find(text, at + 1))
      ++count;
    return count;
  }
};

string ReadAndClose(FILE *pipe, int &status) {
  string text;
  for (int c = fgetc(pipe); c != EOF; c = fgetc(pipe))
    text += static_cast<char>(c);
  status = WEXITSTATUS(pclose(pipe));
  return text;
}

}  // namespace

class Fleet : public testing::Test {
 protected:
  void Boot(int count) {
    string why;
    boards = board::BootAll(board::Network(count), why);
    ASSERT_EQ(std::ssize(boards), count) << why;
    for (const board::Board &each : boards)
      board::Spawn(each, {.argv = {"sh", "-c", "exec bh_servd --nofork > /dev/null"}});
    EXPECT_TRUE(board::WaitFor(
        [&] {
          return std::all_of(boards.begin(), boards.end(), [](const board::Board &each) {
            return board::ServiceSockets(each).size() == 1;
          });
        },
        std::chrono::seconds(60)));
  }
  void TearDown() override {
    Remove(lossy);
    board::HaltAll(boards);
    std::filesystem::remove_all(folder);
  }

  Output Bhctl(const string &arguments) {
    const string errors = folder + "/errors";
    const string interface = lossy.interface.empty() ? board::BRIDGE : lossy.interface;
    Output output;
    output.out = ReadAndClose(popen(("XDG_CONFIG_HOME=" + folder + " " BHCTL_PATH " -i " +
                                     interface + " --password admin --pass-phrase FernGate " +
                                     arguments + " 2>" + errors + " </dev/null")
                                        .c_str(),
                                    "re"),
                              output.status);
    std::ifstream file(errors);
    output.errors = {std::istreambuf_iterator<char>(file), {}};
    return output;
  }

  void WriteInventory(const string &text) {
    std::filesystem::create_directories(folder + "/bhctl");
    std::ofstream(folder + "/bhctl/inventory") << text;
  }

  std::vector<board::Board> boards;
  LossyWire lossy;
  string folder = std::filesystem::path(testing::TempDir() + "fleet-" + std::to_string(getpid()));

  void SetUp() override {
    std::filesystem::create_directories(folder);
  }
};

TEST_F(Fleet, IsNamedByTheInventory) {
  Boot(4);
  WriteInventory(
      "nas1 02:0b:4a:00:00:10 office\nnas2 02:0b:4a:00:00:11 office\n"
      "away 02:0b:4a:00:00:99\n");
  const struct {
    const char *targets;
    const char *out;
    const char *errors;
    int status;
  } cases[] = {
      {"--to nas2", "brackenhold-2\n", "", 0},
      {"--to 192.168.40.4", "brackenhold-3\n", "", 0},
      {"--to BRACKENHOLD-4", "brackenhold-4\n", "", 0},
      {"--to 02:0b:4a:00:00:12 --to office",
       "brackenhold-3  brackenhold-3\nnas1  brackenhold-1\nnas2  brackenhold-2\n",
       "bhctl: 3 of 3 done\n", 0},
      {"--to nas1,away,nas1", "nas1  brackenhold-1\n",
       "bhctl: away: no answer\nbhctl: 1 of 2 done; failed: away\n", 1},
      {"--all --parallel 1 --stop-after 1 --to away", "",
       "bhctl: away: no answer\nbhctl: 0 of 5 done; failed: away; not started: 4\n", 1},
      {"--to brackenhold-44", "",
       "bhctl: no answer from 'brackenhold-44', did you mean 'brackenhold-4'?\n", 3},
      {"", "",
       "bhctl: 4 appliances answer; choose with --to NAME, ADDRESS or MAC, or --all:\n"
       "  192.168.40.2  nas1           02:0b:4a:00:00:10\n"
       "  192.168.40.3  nas2           02:0b:4a:00:00:11\n"
       "  192.168.40.4  brackenhold-3  02:0b:4a:00:00:12\n"
       "  192.168.40.5  brackenhold-4  02:0b:4a:00:00:13\n",
       2},
  };
  for (const auto &each : cases) {
    const Output output = Bhctl("--timeout 1 " + string(each.targets) + " exec hostname");
    EXPECT_EQ(output.out, each.out) << each.targets;
    EXPECT_EQ(output.errors, each.errors) << each.targets;
    EXPECT_EQ(output.status, each.status) << each.targets;
  }
}

TEST_F(Fleet, IsUpgradedUntilOneFails) {
  Boot(4);
  // The second one's image cannot be written; the third one installs and restarts.
  board::WriteFile(boards[0], "/dev/mtdblock1", "old");
  for (const board::Board &each : boards)
    board::WriteFile(each, "/run/stand-ins/fw_update.sh",
                     "[ $1 != stop ] || echo VERSION=3.01 >/etc/brackenhold_release");
  board::Remove(boards[1], "/dev/mtdblock1");
  board::Run(boards[1], {.argv = {"mkdir", "/dev/mtdblock1"}});
  std::ofstream(folder + "/image") << "firmware";
  const Output output = Bhctl("upgrade " + folder +
                              "/image --type 2 --product 0x10 --all --wait "
                              "--parallel 1 --stop-after 1");
  EXPECT_EQ(output.status, 1);
  EXPECT_EQ(output.Count("; it answers with version 3.1"), 1) << output.out << output.errors;
  EXPECT_NE(output.errors.find("failed: brackenhold-2; not started: 2\n"), string::npos)
      << output.errors;
  EXPECT_EQ(board::ReadFile(boards[0], "/dev/mtdblock1"), "firmware");
}

// Slow products in such a number would answer too late.
int HundredsOfBoards() {
  return getenv("BOARD_POWERPC") != nullptr || HAS_SANITIZERS ? 40 : 250;
}

TEST_F(Fleet, OfHundredsAnswersAsOne) {
  const int count = HundredsOfBoards();
  Boot(count);
  const Output names = Bhctl("--all --parallel 16 --json exec hostname");
  EXPECT_EQ(names.Count("\"output\":\"brackenhold-"), count) << names.errors;
  EXPECT_EQ(names.errors,
            "bhctl: " + std::to_string(count) + " of " + std::to_string(count) + " done\n");
  EXPECT_EQ(Bhctl("metrics --all").Count("\nbh_up{"), count);
}

TEST_F(Fleet, IsFoundOnABadNetwork) {
  Boot(20);
  lossy = MakeLossy(board::BRIDGE, "192.168.40.1/23",
                    {.loss = 20,
                     .duplicates = 10,
                     .delay = std::chrono::milliseconds(100),
                     .jitter = std::chrono::milliseconds(100)});
  ASSERT_GT(lossy.process, 0);
  EXPECT_EQ(Bhctl("--timeout 5 discover --json").Count("\"host_name\":\"brackenhold-"), 20);
  const Output disks = Bhctl("--all --timeout 5 disk --json");
  EXPECT_EQ(disks.Count("\"model\":\"THORNFIELD TF3250A\""), 20) << disks.errors;
}

TEST_F(Fleet, RequestThatMustNotBeRepeatedIsSentOnce) {
  Boot(1);
  constexpr uint16_t EXEC_REPLY = 0xCA10;
  lossy =
      MakeLossy(board::BRIDGE, "192.168.40.1/23", {.duplicates = 0, .lost_command = EXEC_REPLY});
  ASSERT_GT(lossy.process, 0);
  const Output output = Bhctl("--timeout 2 exec 'echo once >>/tmp/ran'");
  EXPECT_EQ(output.errors,
            "bhctl: no answer\nbhctl: the appliance may have run the command anyway\n");
  EXPECT_EQ(output.status, 3);
  EXPECT_EQ(board::ReadFile(boards[0], "/tmp/ran"), "once\n");
}
