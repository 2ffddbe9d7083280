// The maintenance routines on a board: markers, mounts and settings files, and each step's trace.

#include "handlers/maintenance.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "board/board.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "tests/files.h"

namespace {

using namespace fixture;
using std::string;

TEST(Maintenance, NextBootIsSelectedWhereTheDiskSystemLies) {
  enum class Disk { RUNS, MOUNTED, UNMOUNTED };
  std::filesystem::create_directory("/run/bin");  // for stand-ins in front of the board's own
  for (const string name : {"mount", "umount"})
    std::filesystem::create_symlink("/usr/lib/board/stand-in", "/run/bin/" + name);
  setenv("PATH", "/run/bin:/usr/bin:/bin", 1);
  set_mode_flags(MODE_DEBUG);
  const string mount = "/run/bin/mount /dev/md0 /mnt/array1\n";
  const string umount = "/run/bin/umount /dev/md0\n";
  const string left = "unmount [/dev/md0]\n";
  const string marker = " [/mnt/array1/etc/hddrootmode]";
  const struct {
    const char *name;
    Disk disk;
    string on_mount;  // what the mount does
    int32_t on, result;
    string calls, trace;
    bool marked;   // hddrootmode is there, and empty
    bool booting;  // rootfs_booting is there
  } cases[] = {
      {"disk next", Disk::RUNS, "", 0, 0, "", "not emergence [/etc/hddrootmode]\n", true, false},
      {"emergency next", Disk::RUNS, "", 1, 0, "", "emergence [/etc/hddrootmode]\n", false, false},
      {"once more", Disk::RUNS, "", 1, 0, "",
       "emergence [/etc/hddrootmode]\ndelete [/etc/hddrootmode] fail.\n", false, false},
      {"no array", Disk::UNMOUNTED, "exit 32", 0, 0, mount, "failed [mount /dev/md0]", false,
       false},
      {"no /etc on it", Disk::UNMOUNTED, "", 0, -1, mount,
       "not emergence" + marker + "\ncreate" + marker + " fail.\n", false, false},
      {"emergency again", Disk::UNMOUNTED,
       "cd /mnt/array1; mkdir etc; >etc/hddrootmode; >etc/rootfs_booting", 1, 0, mount + umount,
       "emergence" + marker + "\n" + left, false, true},
      {"and once more", Disk::UNMOUNTED, "", 1, 0, mount + umount,
       "emergence" + marker + "\ndelete" + marker + " fail.\n" + left, false, true},
      {"disk from the emergency system", Disk::UNMOUNTED, "echo >/mnt/array1/etc/hddrootmode", 0, 0,
       mount + umount, "not emergence" + marker + "\n" + left, true, false},
      {"array that is mounted already", Disk::MOUNTED, "", 0, 0, "",
       "not emergence" + marker + "\n", true, false},
  };
  WriteFile("/etc/rootfs_booting", "");
  WriteFile("/etc/brackenhold_emergence", "");
  for (const auto &each : cases) {
    SCOPED_TRACE(each.name);
    if (each.disk != Disk::RUNS) RemoveFile("/etc/brackenhold_release");
    if (each.disk == Disk::MOUNTED) WriteFile("/mnt/array1/usr/file", "");
    WriteFile("/run/stand-ins/mount", each.on_mount);
    WriteFile(board::CALL_LOG, "");
    open_trace_file("/tmp/trace");
    EXPECT_EQ(SetEmergenceMode(each.on), each.result);
    EXPECT_EQ(ReadFile(board::CALL_LOG), each.calls);
    EXPECT_EQ(ReadFile("/tmp/trace"), each.trace);
    const std::filesystem::path etc = each.disk == Disk::RUNS ? "/etc" : "/mnt/array1/etc";
    EXPECT_EQ(exists(etc / "hddrootmode") && is_empty(etc / "hddrootmode"), each.marked);
    EXPECT_EQ(exists(etc / "rootfs_booting"), each.booting);
  }
}

TEST(Maintenance, SettingsFilesKeepTheirOtherLines) {
  const string info = "/etc/korvo/info";
  const string disks = "/etc/korvo/diskinfo";
  const string too_long(300, 'x');
  WriteFile(info, "wg=\"A\"\nlang=\"english\"\ncodepage=\"CP437\"\n");
  EXPECT_EQ(chage_language("english", "CP932"), 0);
  EXPECT_EQ(chage_language(too_long.c_str(), "CP850"), -1);
  EXPECT_EQ(chage_language("german", too_long.c_str()), -1);
  EXPECT_EQ(ReadFile(info), "wg=\"A\"\nlang=german\ncodepage=CP850\n");
  WriteFile(disks, "usb_disk1=1\ndisk1=normal\n#usb_disk3\nusb_dis=1\n");
  EXPECT_EQ(clear_usb_info(), 0);
  const string entries = "usb_disk1=\nusb_disk2=\nusb_disk3=\nusb_disk4=\n";
  EXPECT_EQ(ReadFile(disks), "disk1=normal\nusb_dis=1\n" + entries);
}

}  // namespace
