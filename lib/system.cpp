// Power, the configuration scripts, file checksums and mounts.

#include <sys/mount.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "lib/checksum.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr uint16_t NO_CHECKSUM = 0xFFFF;
constexpr size_t CHUNK = 8192;  // even, so that no word is cut in two

constexpr int MOUNT_ATTEMPTS = 3;
constexpr useconds_t MOUNT_PAUSE = 300;  // microseconds

// In a process of its own, so that the caller's connection to syslog stays as it is.
void LogRebooting() {
  if (fork() != 0) return;
  openlog("Qrconf", 0, LOG_DAEMON);
  syslog(LOG_NOTICE, "Now Rebooting.");
  closelog();
  _exit(0);
}

void RunShutdownScript(const char *command) {
  LogRebooting();
  sync();
  RunShell(command);
}

bool TryMount(const char *device, const char *directory, const char *fstype) {
  if (mount(device, directory, fstype, 0, nullptr) == 0) return true;
  if (errno != EBUSY) return false;
  umount(directory);
  return mount(device, directory, fstype, 0, nullptr) == 0;
}

}  // namespace

int32_t libbh_Reboot() {
  RunShutdownScript("sh /www/script/korsub_shutdown2.sh 1");
  return 0;
}

int32_t libbh_Shutdown() {
  RunShutdownScript("sh /www/script/korsub_shutdown2.sh 2");
  return 0;
}

int32_t libbh_SaveConfig() {
  return RunShell("/usr/local/bin/save_config.sh");
}

int32_t libbh_LoadConfig() {
  return RunShell("/usr/local/bin/load_config.sh");
}

// Piece by piece: a file may be larger than the memory. The size is the one at the start; what a
// shrinking file lacks counts as zeros.
uint16_t libbh_FileChksum(const char *path) {
  const FilePtr file = path == nullptr ? nullptr : OpenRegularFile(path);
  struct stat status = {};
  if (!file || fstat(fileno(file.get()), &status) != 0 || status.st_size > INT32_MAX)
    return NO_CHECKSUM;
  size_t left = static_cast<size_t>(status.st_size);
  uint32_t sum = 0;
  uint8_t chunk[CHUNK];
  size_t length = 0;
  bool any = false;
  while (left > 0 && (length = fread(chunk, 1, left < CHUNK ? left : CHUNK, file.get())) > 0) {
    sum = AddToSum(sum, chunk, length);
    left -= length;
    any = true;
  }
  return any ? static_cast<uint16_t>(~sum) : NO_CHECKSUM;
}

int32_t libbh_Mount(const char *device, const char *directory, const char *fstype) {
  for (int attempt = 1; attempt <= MOUNT_ATTEMPTS; ++attempt) {
    if (TryMount(device, directory, fstype)) return 0;
    if (attempt < MOUNT_ATTEMPTS) usleep(MOUNT_PAUSE);
  }
  return -1;
}
