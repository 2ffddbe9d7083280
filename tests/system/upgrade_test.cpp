// Firmware updates by the client: the whole way of an image to flash and of an archive to the disk.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include "tests/system/fixture.h"

using std::string;

using Upgrade = ServingTest;

TEST_F(Upgrade, ClientInstallsAnImageOnFlash) {
  constexpr char FLASH[] = "/dev/mtdblock1";  // whose images are verified
  string image((16 << 20) + 3, '\0');
  std::mt19937 random;
  for (char &byte : image)
    byte = static_cast<char>(random());
  const string upgrade = " upgrade " + ClientFile(image) + " --type 2 ";
  board::WriteFile(board, FLASH, "old");
  ExpectBhctl(upgrade + "--password wrong", "ACP_STATE_PASSWORD_ERROR");
  ExpectBhctl(upgrade + "--dry-run --password admin", "exit 0");
  EXPECT_EQ(board::ReadFile(board, FLASH), "old");
  EXPECT_EQ(board::ReadFile(board, board::CALL_LOG), "");
  ExpectBhctl(upgrade + "--password admin", "exit 0");
  EXPECT_TRUE(board::ReadFile(board, FLASH) == image);
  EXPECT_TRUE(AwaitSyslog("<29>Firmware Update start.\n"));
  EXPECT_TRUE(AwaitSyslog("<29>Firmware Update end.\n"));
  ExpectBhctl(upgrade + "--password admin --product 77", "exit 1");
}

TEST_F(Upgrade, StopRequestAroundTheWritingCountsAfterTheLastReply) {
  const string image = ClientFile("image");
  for (const string step : {"start", "stop"}) {
    SCOPED_TRACE(step);
    board::WriteFile(board, "/run/stand-ins/fw_update.sh",
                     "[ $1 != " + step + " ] || bh_servd -t eth0");
    ExpectBhctl("upgrade " + image + " --type 1 --password admin", "exit 0");
    EXPECT_TRUE(AwaitServers(0));
    EXPECT_TRUE(AwaitSyslog("<24>kv_serv_exit() exit kv_servd. code=15\n"));
    board::WriteFile(board, board::SYSLOG, "");
    StartDaemon();
  }
}

TEST_F(Upgrade, ClientInstallsAnArchiveOnTheDisk) {
  const string archive = ClientFile("");
  const string folder = archive + "-system";
  std::filesystem::create_directories(folder + "/etc");
  std::ofstream(folder + "/etc/version") << "3.00\n";
  ASSERT_EQ(system((MKIMAGE_PATH " " + folder + " " + archive).c_str()), 0);
  std::filesystem::remove_all(folder);
  ExpectBhctl("--password admin upgrade " + archive + " --type 4", "exit 0");
  EXPECT_EQ(board::ReadFile(board, "/run/disks/hda1/etc/version"), "3.00\n");
}
