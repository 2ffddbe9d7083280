// The maintenance routines on a board: markers, mounts and settings files, and each step's trace.

#include "handlers/maintenance.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "board/board.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "tests/files.h"

using std::string;
using namespace fixture;

TEST(Maintenance, NextBootIsSelectedWhereTheDiskSystemLies) {
  std::filesystem::create_directory("/run/bin");  // for stand-ins in front of the board's own
  for (const string name : {"mount", "umount"})
    std::filesystem::create_symlink("/usr/lib/board/stand-in", "/run/bin/" + name);
  setenv("PATH", "/run/bin:/usr/bin:/bin", 1);
  set_mode_flags(MODE_DEBUG);
  const string mount = "/run/bin/mount /dev/md0 /mnt/array1\n", left = "unmount [/dev/md0]\n";
  const string both = mount + "/run/bin/umount /dev/md0\n", p = " [/mnt/array1/etc/hddrootmode]";
  const struct {
    string disk;  // "runs", "mounted", or what its mount does
    int on, result;
    string calls, trace, markers;  // h: hddrootmode is there and empty, b: rootfs_booting is there
  } CASES[] = {
      {"runs", 0, 0, "", "not emergence [/etc/hddrootmode]\n", "h"},
      {"runs", 1, 0, "", "emergence [/etc/hddrootmode]\n", ""},
      {"runs", 1, 0, "", "emergence [/etc/hddrootmode]\ndelete [/etc/hddrootmode] fail.\n", ""},
      {"exit 32", 0, 0, mount, "failed [mount /dev/md0]", ""},
      {"", 0, -1, mount, "not emergence" + p + "\ncreate" + p + " fail.\n", ""},
      {"cd /mnt/array1; mkdir etc; >etc/hddrootmode; >etc/rootfs_booting", 1, 0, both,
       "emergence" + p + "\n" + left, "b"},
      {"", 1, 0, both, "emergence" + p + "\ndelete" + p + " fail.\n" + left, "b"},
      {"echo >/mnt/array1/etc/hddrootmode", 0, 0, both, "not emergence" + p + "\n" + left, "h"},
      {"mounted", 0, 0, "", "not emergence" + p + "\n", "h"},
  };
  WriteFile("/etc/rootfs_booting", "");
  WriteFile("/etc/brackenhold_emergence", "");
  for (const auto &c : CASES) {
    if (c.disk != "runs") RemoveFile("/etc/brackenhold_release");
    if (c.disk == "mounted") WriteFile("/mnt/array1/usr/file", "");
    WriteFile("/run/stand-ins/mount", c.disk);
    WriteFile(board::CALL_LOG, "");
    open_trace_file("/tmp/trace");
    EXPECT_EQ(SetEmergenceMode(c.on), c.result) << c.trace;
    EXPECT_EQ(ReadFile(board::CALL_LOG), c.calls) << c.trace;
    EXPECT_EQ(ReadFile("/tmp/trace"), c.trace);
    const std::filesystem::path etc = c.disk == "runs" ? "/etc" : "/mnt/array1/etc";
    const bool marked = exists(etc / "hddrootmode") && is_empty(etc / "hddrootmode");
    EXPECT_EQ(string(marked ? "h" : "") + (exists(etc / "rootfs_booting") ? "b" : ""), c.markers);
  }
}

TEST(Maintenance, SettingsFilesKeepTheirOtherLines) {
  const string info = "/etc/korvo/info", disks = "/etc/korvo/diskinfo", too_long(300, 'x');
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
