// Each test ends at its first failure and leaves things as they are: the line wants to see them.

#include "handlers/factory.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/times.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "acp/packet.h"
#include "daemon/process.h"
#include "daemon/signals.h"
#include "daemon/trace.h"
#include "lib/descriptor.h"
#include "lib/libbh.h"
#include "lib/shell.h"

namespace {

constexpr int32_t TEST_FAILED = static_cast<int32_t>(ACP_STATE_TEST_FAIL);

constexpr char BAD_BLOCK_LIST[] = "/var/tmp/badlist";
constexpr int64_t SECTOR = 512;  // bytes
constexpr int64_t BLOCK = 1024;  // bytes
constexpr int64_t FIRST_TESTED_BLOCK = 512;
constexpr int64_t USB_BLOCKS = 3000;
constexpr long MAX_TICKS = 500;  // for each run

constexpr int UPS_ATTEMPTS = 3;
constexpr size_t MIN_REPORT = 30;  // characters
constexpr const char *UPS_SIGNALS[] = {
    "ups_test_apc_sd=", "ups_test_apc_lf=", "ups_test_omron_sd=", "ups_test_omron_lf="};
using UpsReport = std::array<char, 160>;

constexpr char FLASH[] = "/dev/fl3";
constexpr char BOOT_FLASH[] = "/dev/mtd2";
constexpr unsigned long FLASH_BEGIN = 0x20001273;  // around each write
constexpr unsigned long FLASH_END = 0x2000125D;
using FlashBlock = std::array<char, 256>;

clock_t Ticks() {
  struct tms unused = {};
  return times(&unused);
}

// The counter wraps to the lowest number.
long TicksSince(clock_t start) {
  return static_cast<long>(static_cast<unsigned long>(Ticks()) - static_cast<unsigned long>(start));
}

// `last` and `first` are badblocks' own: the run ends in front of the block `last`.
bool TestBlocks(const char *test, const char *device, int64_t last, int64_t first) {
  const std::string command = FormatText(
      "/sbin/badblocks -w -o %s %s %lld %lld", BAD_BLOCK_LIST, QuoteForShell(device).c_str(),
      static_cast<long long>(last), static_cast<long long>(first));
  DebugPrint("%s cmd=[%s]\n", test, command.c_str());
  const clock_t start = Ticks();
  const int status = RunCommandLine(command);
  const long ticks = TicksSince(start);
  DebugPrint("clk = %ld\n", ticks);
  return status == 0 && GetFileSize(BAD_BLOCK_LIST) == 0 && ticks <= MAX_TICKS;
}

// A child that ends must not cut the time short; an exit that the server is asked for does.
void Pause(int32_t seconds) {
  const ChildSignalBlock block;
  BeginWait();
  libbh_sleep(seconds);
  EndWait();
}

void DriveUpsPort(const char *output, int32_t seconds) {
  RunCommandLine(FormatText("brdctl -a ups_test_port %s", output));
  Pause(seconds);
}

bool ReadUpsPort(const char *title, UpsReport &report) {
  const int32_t result = exec_capture("brdctl -a ups_test_port", report.data(), report.size());
  if (result != 0 || strlen(report.data()) < MIN_REPORT) {
    DebugPrint("brdctl -a ups_test_port fail.!!!\n");
    return false;
  }
  DebugPrint("%s:\n%s", title, report.data());
  return true;
}

Descriptor OpenFlash(const char *path, int flags) {
  Descriptor flash(open(path, flags | O_CLOEXEC));
  if (!flash.IsOpen()) fprintf(stderr, "could not open \"%s\": %s\n", path, strerror(errno));
  return flash;
}

// A write that fails has no place in the result: the line reads the flash back by other means.
void WriteBlock(const Descriptor &flash, const FlashBlock &block) {
  const ssize_t written = write(flash.Get(), block.data(), block.size());
  (void)written;
}

bool Holds(const Descriptor &flash, const FlashBlock &block) {
  FlashBlock present = {};
  const ssize_t length = read(flash.Get(), present.data(), present.size());
  return length == static_cast<ssize_t>(present.size()) && present == block;
}

}  // namespace

int32_t read_write_test(const char *device, int64_t count) {
  const int64_t size = kensa_GetDrivePartitionSize(device);
  if (size <= 0) {
    DebugPrint("read_write_test() drive not foud.[%s]\n", device);
    return TEST_FAILED;
  }
  const int64_t blocks = size / BLOCK;
  printf("size=%lld, %lld[sectors], %lld[blocks] test=%lld\n", static_cast<long long>(size),
         static_cast<long long>(size / SECTOR), static_cast<long long>(blocks),
         static_cast<long long>(count));

  const struct {
    const char *test;
    int64_t last, first;
  } runs[] = {{"read_write_test(top)", count, FIRST_TESTED_BLOCK},
              {"read_write_test(middle)", blocks / 2, blocks / 2 - count},
              {"read_write_test(bottom)", blocks, blocks - count}};
  for (const auto &run : runs) {
    if (TestBlocks(run.test, device, run.last, run.first)) continue;
    DebugPrint("%s fail.\n", run.test);
    return TEST_FAILED;
  }
  DebugPrint("read_write_test() succes.\n");
  return 0;
}

int32_t read_write_testUsb(const char *device) {
  const bool passed = TestBlocks("read_write_testUsb()", device, USB_BLOCKS, 0);
  DebugPrint(passed ? "read_write_test() succes.\n" : "read_write_testUsb() fail.\n");
  return passed ? 0 : TEST_FAILED;
}

int64_t kensa_GetDrivePartitionSize(const char *device) {
  if (device[0] == '\0') return -1;
  // Not to be kept waiting by what is no drive; a drive without a medium has no size.
  const Descriptor drive(open(device, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!drive.IsOpen()) return -1;
  int64_t size = -1;
  int sector = 0;
  unsigned long count = 0;
  if (ioctl(drive.Get(), BLKSSZGET, &sector) != 0) {
    printf(">%s:fail.\n", "kensa_GetDrivePartitionSize");
  } else if (ioctl(drive.Get(), BLKGETSIZE, &count) == 0) {
    size = static_cast<int64_t>(uint64_t{count} * static_cast<uint64_t>(sector));
  }
  const double bytes = static_cast<double>(sector) * static_cast<double>(count);
  printf("%s %f [GB]\n", device, bytes / 1024 / 1024 / 1024);
  return size;
}

int32_t kensa_50_upstest() {
  for (int attempt = 0; attempt < UPS_ATTEMPTS; ++attempt) {
    if (kensa_UpsPortCheck() == 0) return 0;
  }
  return -1;
}

int32_t kensa_UpsPortCheck() {
  UpsReport apc = {};
  UpsReport omron = {};
  DriveUpsPort("reset", 2);
  DriveUpsPort("apc_sd", 1);
  if (!ReadUpsPort("result1", apc)) return -1;
  DriveUpsPort("omron_sd", 1);
  if (!ReadUpsPort("result2", omron)) return -1;

  for (const char *name : UPS_SIGNALS) {
    if (GetUpsPortState(name, apc.data()) != GetUpsPortState(name, omron.data())) continue;
    DebugPrint("kensa_50_upstest: state fail.\n");
    return -1;
  }
  RunCommandLine("brdctl -a ups_test_port reset");
  return 0;
}

int32_t GetUpsPortState(const char *name, const char *report) {
  const char *const found = strstr(report, name);
  if (found == nullptr) return -1;
  const char *const state = found + strlen(name);
  if (strncmp(state, "off", 3) == 0) return 0;
  return strncmp(state, "on", 2) == 0 ? 1 : -1;
}

int64_t GetFileSize(const char *path) {
  const Descriptor file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  return file.IsOpen() ? lseek(file.Get(), 0, SEEK_END) : 0;
}

int32_t kensa_WriteFlashMark(int32_t ng) {
  const char *const mark = ng == 0 ? "OK" : "NG";
  FlashBlock block = {};
  for (size_t i = 0; i < block.size(); ++i)
    block[i] = mark[i % 2];

  Descriptor flash = OpenFlash(FLASH, O_RDONLY);
  if (!flash.IsOpen() || Holds(flash, block)) return 0;
  flash.Close();
  flash = OpenFlash(FLASH, O_WRONLY);
  if (!flash.IsOpen()) return -1;
  ioctl(flash.Get(), FLASH_BEGIN, nullptr);
  WriteBlock(flash, block);
  ioctl(flash.Get(), FLASH_END, nullptr);
  return 0;
}

int32_t kensa_SetBootParam(int32_t ramdisk) {
  RunCommandLine("/usr/sbin/eraseall /dev/mtd2 > /dev/null 2>&1");
  FlashBlock block = {};
  block[2] = 0x41;
  block[3] = static_cast<char>(0x82);
  const std::string_view text = ramdisk != 0 ? "bootparm=root=/dev/ram0" : "bootparm=root=/dev/md0";
  text.copy(block.data() + 16, text.size());

  const Descriptor flash = OpenFlash(BOOT_FLASH, O_WRONLY);
  if (!flash.IsOpen()) return -1;
  WriteBlock(flash, block);
  return 0;
}
