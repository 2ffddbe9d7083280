// Markers in the disk system's root file system tell the boot loader what to start. From the
// emergency system that root is reached on the array.

#include "handlers/maintenance.h"

#include <sys/vfs.h>
#include <unistd.h>

#include <string>

#include "acp/packet.h"
#include "daemon/process.h"
#include "daemon/trace.h"
#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr const char *DISK_BOOT_MARKER = "/etc/hddrootmode";
constexpr const char *BOOTING_MARKER = "/etc/rootfs_booting";
constexpr int USB_ENTRIES = 4;

struct DiskSystem {
  std::string root;  // of its file system, empty when it is the running one
  bool mounted;      // by us
};

// False when the disk system cannot be reached.
bool ReachDiskSystem(DiskSystem &system) {
  system = {};
  if (libbh_GetProductState() == PRODUCT_STATE_NORMAL) return true;
  system.root = "/mnt/array1";
  struct statfs status = {};
  if (statfs("/mnt/array1/usr", &status) == 0) return true;
  system.mounted = RunCommandLine("mount /dev/md0 /mnt/array1") == 0;
  if (!system.mounted) DebugPrint("failed [mount /dev/md0]");
  return system.mounted;
}

void LeaveDiskSystem(const DiskSystem &system) {
  if (!system.mounted) return;
  RunCommandLine("umount /dev/md0");
  DebugPrint("unmount [/dev/md0]\n");
}

void SelectEmergencySystem(const std::string &root) {
  const std::string marker = root + DISK_BOOT_MARKER;
  DebugPrint("emergence [%s]\n", marker.c_str());
  if (unlink(marker.c_str()) != 0) DebugPrint("delete [%s] fail.\n", marker.c_str());
}

bool SelectDiskSystem(const std::string &root) {
  const std::string marker = root + DISK_BOOT_MARKER;
  DebugPrint("not emergence [%s]\n", marker.c_str());
  if (WriteTextFile(marker.c_str(), "") != 0) {
    DebugPrint("create [%s] fail.\n", marker.c_str());
    return false;
  }
  unlink((root + BOOTING_MARKER).c_str());
  return true;
}

}  // namespace

int32_t SetEmergenceMode(int32_t on) {
  DiskSystem system;
  if (!ReachDiskSystem(system)) return 0;
  if (on != 0)
    SelectEmergencySystem(system.root);
  else if (!SelectDiskSystem(system.root))
    return -1;
  LeaveDiskSystem(system);
  return 0;
}

int32_t chage_language(const char *lang, const char *codepage) {
  const int32_t lang_result = libbh_SetConfigValue(INFO_FILE, "lang", lang);
  const int32_t codepage_result = libbh_SetConfigValue(INFO_FILE, "codepage", codepage);
  return lang_result == 0 && codepage_result == 0 ? 0 : -1;
}

int32_t clear_usb_info() {
  if (!RemoveLeftover("/tmp/diskinfo")) return 0;
  // Without a process for the copy the file would be emptied; its status plays no part.
  if (RunCommandLine("cp /etc/korvo/diskinfo /tmp/diskinfo") < 0) return 0;
  RunCommandLine("grep -v \"usb_disk\" /tmp/diskinfo > /etc/korvo/diskinfo");
  for (int entry = 1; entry <= USB_ENTRIES; ++entry)
    RunCommandLine(FormatText("echo \"usb_disk%d=\" >> /etc/korvo/diskinfo", entry));
  return 0;
}
