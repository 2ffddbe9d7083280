// The end of a firmware update: what is installed, and where.

#include <filesystem>

#include "firmware/zip_password.h"
#include "lib/libbh.h"
#include "tests/firmware_fixture.h"

using namespace fixture;

using UpdateEnd = FirmwareTest;

TEST_F(UpdateEnd, ImageIsInstalledOnFlashOrRefused) {
  const char *old_image = "old image";
  const char *image = "abcde\xFF\xFF\xFF\xFF";  // and erased bytes
  const struct {
    const char *name;
    Order order;
    string upload;
    string replies;
    const char *content;
  } cases[] = {
      {"not verified", {}, "abcde", INSTALLED, image},
      {"nothing, not verified", {}, "", FAILED, old_image},
      {"verified", {.type = 2, .sum = 0xC6626364}, "abcde", INSTALLED, image},
      {"another sum", {.type = 2, .sum = 0xC6626364}, "abcdd", REFUSED, old_image},
      {"nothing to be verified", {.type = 2}, "", REFUSED, old_image},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    Reset(FIRST);
    const string device = test.order.type == 2 ? "/dev/mtdblock1" : "/dev/mtdblock0";
    WriteFile(device, old_image);
    EXPECT_EQ(Update(test.order, test.upload), test.replies);
    EXPECT_EQ(ReadFile(device), test.content);
    EXPECT_EQ(Count(CALLS, "eraseall " + device), test.replies == INSTALLED ? 1 : 0);
    EXPECT_EQ(Count(CALLS, "fw_update.sh stop\n"), test.replies == REFUSED ? 0 : 1);
    EXPECT_EQ(Content().empty(), test.replies == REFUSED);
    EXPECT_EQ(libbh_checklock(), 1) << "the lock is still held";
  }
  for (const char *line :
       {"write_data_in_dev() start size=0x00000005\n", "write_data_in_dev() success!!!\n",
        "write_firmInflash() total_size == 0.\n", "FAILURE result=0 verify=-1\n"})
    EXPECT_NE(Count(TRACE, line), 0) << line;
}

TEST_F(UpdateEnd, FlashIsWrittenInUpToFiveAttempts) {
  const string image = string(4999, 'x') + "y";
  const struct {
    const char *device;  // behind the flash's name: it gives nothing back, or zeros
    const char *eraser;
    string replies;
    int attempts;
  } cases[] = {
      {"/dev/zero", "", FAILED, 5},
      {"/dev/null", "[ $(grep -c eraseall /var/log/calls) != 3 ] || { rm $1; printf old > $1; }",
       INSTALLED, 3},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(test.device);
    Reset(FIRST);
    WriteFile(ERASE, ReadFile(ERASE) + test.eraser);
    RunCommandLine(FormatText("ln -sf %s /dev/mtdblock0", test.device));
    EXPECT_EQ(Update({}, image), test.replies);
    EXPECT_EQ(Count(CALLS, "eraseall /dev/mtdblock0"), test.attempts);
  }
  EXPECT_EQ(ReadFile("/dev/mtdblock0"), image);
  EXPECT_EQ(Count(TRACE, "write_data_in_dev() failed!!!\n"), 1);
}

TEST_F(UpdateEnd, InstallationKeepsItsOrderAndIsNotEnded) {
  const string note = FormatText("cat %s /run/fwupdate >> %s; ", RAID_LIMIT, CALLS);
  WriteFile("/run/stand-ins/fw_update.sh", note);
  WriteFile(ERASE, note + FormatText("kill -TERM %d; kill -HUP %d", getpid(), getpid()));
  testing::internal::CaptureStdout();
  EXPECT_EQ(Update({}, "image"), INSTALLED);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "now F/W updating.\nnow F/W updating.\n");
  EXPECT_EQ(ReadFile(CALLS),
            "/usr/local/bin/fw_update.sh start\n4000\n"
            "/usr/sbin/eraseall /dev/mtdblock0\n4000\nfwupdate\n"
            "/usr/local/bin/fw_update.sh stop\n4000\n");
  EXPECT_EQ(daemon_state.exit_pending, 0);
}

TEST_F(UpdateEnd, DiskTakesAnArchiveWithItsPassword) {
  const string special = "'\"`$(touch /tmp/pwned)`;|&<>*?[x]{}~!#%\\\n \t-";
  const string third = GetZipPassword(2);
  const struct {
    const char *name;
    string password;
    string given;
    const char *before;
    string replies;
    int attempts;
  } cases[] = {
      {"third of the known ones", third, "", "true", INSTALLED, 3},
      {"none of the known ones", special, "", "true", FAILED, 4},
      {"given", special, special, "true", INSTALLED, 1},
      {"another given", third, "zip-word", "true", FAILED, 1},
      {"full disk", third, "", "mount -t tmpfs -o size=16k full /run/disks/hda3", FAILED, 0},
  };
  RunCommandLine("cd /tmp; head -c 99999 /dev/urandom > new; tar czf tmpimage.tgz new");
  for (const auto &test : cases) {
    SCOPED_TRACE(test.name);
    Reset(FIRST);
    RunCommandLine(test.before);
    const int earlier_attempts = Count(TRACE, "/bin/unzip");
    setenv("PASS", test.password.c_str(), 1);
    RunCommandLine("cd /tmp; rm -f a.zip /run/disks/hda1/new; zip -qP \"$PASS\" a.zip *.tgz");
    EXPECT_EQ(Update({.type = 4, .zip = test.given}, ReadFile("/tmp/a.zip")), test.replies);
    EXPECT_EQ(RunCommandLine("cmp -s /tmp/new /mnt/hda1/new") == 0, test.replies == INSTALLED);
    EXPECT_EQ(Count(TRACE, "/bin/unzip") - earlier_attempts, test.attempts);
    EXPECT_EQ(Content(), "");
    EXPECT_EQ(End(), FAILED) << "without touching the disk";
  }
  for (const char *line :
       {"write_firmInHdd() fopen(/mnt/hda3/image.zip) success!!!\n",
        "/bin/unzip -P zip-word /mnt/hda3/image.zip -d /mnt/hda3 > /dev/null 2>&1\n",
        "write_firmInHdd() *** ZIP extract fail ***\nwrite_firmInHdd() return =-1\n",
        "ALL OK!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!!\nwrite_firmInHdd() return =0\n"})
    EXPECT_NE(Count(TRACE, line), 0) << line;
  EXPECT_FALSE(std::filesystem::exists("/tmp/pwned"));
}
