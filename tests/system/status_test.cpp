// Disk, RAID and partition queries over the wire.

#include <algorithm>

#include "tests/system/fixture.h"

using wire::Bytes;
using wire::Hex;
using wire::Number;
using wire::Part;
using wire::Request;
using wire::Text;

namespace {

constexpr uint16_t PARTITION = 0x80D0, RAID = 0x80E0;

std::string TextAt(const Bytes &reply, size_t offset) {
  return reinterpret_cast<const char *>(reply.data() + offset);
}

// Type, index and path of the used entries, one a line.
std::string Entries(const Bytes &reply) {
  std::string lines;
  for (size_t start = 32; start + 92 <= reply.size(); start += 92) {
    if (Number(reply, start) == 0) continue;
    lines += std::to_string(Number(reply, start)) + " " + std::to_string(Number(reply, start + 4)) +
             " " + TextAt(reply, start + 28) + "\n";
  }
  return lines;
}

}  // namespace

using Status = ServingTest;

TEST_F(Status, DiskWordsOfTheNamedDrive) {
  board::WriteFile(board, "/proc/ide/hda/identify", "0001 0203 ffff\nzz\n8000 1 2 3 4 5 6 7 8\n");
  OnBoard({"/bin/mkdir", "-p", "/proc/ide/hdb", "/tmp/fifo", "/tmp/dir/identify"});
  OnBoard({"/usr/bin/mkfifo", "/tmp/fifo/identify"});
  std::string forty_lines;
  for (int i = 0; i < 40; ++i)
    forty_lines += "a0b0 1 2 3 4 5 6 7\r\n";
  board::WriteFile(board, "/proc/ide/hdb/identify", forty_lines);

  Bytes hda = Hex("01 00 03 02 ff ff 00 00");
  hda.resize(32);
  wire::Append(hda, Hex("00 80 01 00 02 00 03 00 04 00 05 00 06 00 07 00"));
  hda.resize(512);
  Bytes hdb;
  for (int i = 0; i < 32; ++i)
    wire::Append(hdb, Hex("b0 a0 01 00 02 00 03 00 04 00 05 00 06 00 07 00"));
  const std::string unterminated = "/proc/ide/hdb/" + std::string(50, '/');
  struct Row {
    Bytes body;
    Bytes words;
  };
  const Row rows[] = {
      {{}, hda},
      {Text("/proc/ide/hdb", 63), hda},
      {Text("/proc/ide/hdb", 64), hdb},
      {Text("/proc/ide/hdb/", 64), hdb},
      {Text(unterminated, 64), hdb},
      {Text("%s%n%s", 64), Bytes(512)},
      {Text("", 64), Bytes(512)},
      {Text("/tmp/fifo", 64), Bytes(512)},
      {Text("/tmp/dir", 64), Bytes(512)},
  };
  for (const Row &row : rows)
    EXPECT_EQ(Part(Ask(Request(DISK, row.body)), 32), row.words)
        << testing::PrintToString(row.body);
}

TEST_F(Status, RaidListFollowsTheDiskConfiguration) {
  struct Row {
    const char *config;
    const char *entries;
  };
  const Row rows[] = {
      {"array1=\"raid5\"\narray2=\"off\"\n", "5 0 /mnt/array1\n2 0 /mnt/usbdisk2\n"},
      {"array1=\"off\"\narray2=\"raid1\"\n", "4 0 /mnt/array2\n2 0 /mnt/usbdisk2\n"},
      {"array1=\"raid1\"\narray2=\"jbod\"\ndisk1=\"normal\"\ndisk2=\"Normal\"\ndisk4=normal\n",
       "4 0 /mnt/array1\n3 1 /mnt/array2\n1 0 /mnt/disk1\n1 0 /mnt/disk4\n2 0 /mnt/usbdisk2\n"},
      {"", "2 0 /mnt/usbdisk2\n"},
  };
  ASSERT_EQ(OnBoard({"mount", "-t", "tmpfs", "usb", "/mnt/usbdisk2"}).exit_code, 0);
  for (const Row &row : rows) {
    SCOPED_TRACE(row.config);
    board::WriteFile(board, "/etc/korvo/diskinfo", row.config);
    const Bytes reply = Ask(Request(RAID));
    EXPECT_EQ(reply.size(), 768U);
    EXPECT_EQ(Entries(reply), row.entries);
  }
  EXPECT_NE(Trace().find("GetRaidInfo : found usb2\n"), std::string::npos);

  board::WriteFile(
      board, "/etc/korvo/diskinfo",
      "array1=jbod\narray2=jbod\ndisk1=normal\ndisk2=normal\ndisk3=normal\ndisk4=normal\n");
  for (const char *disk : {"1", "3", "4"})
    OnBoard({"mount", "-t", "tmpfs", "usb", std::string("/mnt/usbdisk") + disk});
  const std::string full = Entries(Ask(Request(RAID)));
  EXPECT_EQ(std::count(full.begin(), full.end(), '\n'), 8) << full;
}

TEST_F(Status, PartitionOfAPath) {
  const std::string deep = "/mnt/" + std::string(80, 'd');
  OnBoard({"mkdir", deep});
  struct Row {
    Bytes body;
    std::string path;  // empty: of no file system
  };
  const Row rows[] = {
      {Text("/mnt", 64), "/mnt"},           {Text("/mnt"), "/mnt"},  // no NUL in the body
      {Text(deep, 90), deep.substr(0, 63)}, {Text("%n%n%n%n", 64), ""}, {{}, ""},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.body));
    const Bytes reply = Ask(Request(PARTITION, row.body));
    ASSERT_EQ(reply.size(), 124U);
    EXPECT_EQ(Number(reply, 28), row.path.empty() ? 0xFFFFFFFF : 0);
    EXPECT_EQ(TextAt(reply, 60), row.path);
  }
  const std::string trace = Trace();
  for (const char *lines :
       {"-> ACP_Partition_Reply\r\nACP_Partition_Reply success statfs(). path=/mnt\r\n",
        "ACP_Partition_Reply fail statfs(). path=%n%n%n%n\r\n"})
    EXPECT_NE(trace.find(lines), std::string::npos) << trace;
}

#if !defined(__SANITIZE_ADDRESS__)  // its allocator does not pass the shim

TEST_F(Status, WithoutMemoryForAReplyNoneIsSent) {
  struct Row {
    uint16_t command;
    const char *fault;
    const char *trace;
  };
  const Row rows[] = {
      {PING, "bh_servd/calloc=32:0", "ACP_Ping_Reply fail to allocate Memory\n"},
      {DISK, "bh_servd/calloc=544:0", "ACP_Info_HDD_Reply fail to allocate Memory\n"},
      {RAID, "bh_servd/calloc=768:0", "ACP_Info_HDD_Reply fail to allocate Memory\n"},
      {DISCOVER, "bh_servd/calloc=320:0", "ACP_Discover_Reply fail to allocate Memory\r\n"},
      {PARTITION, "bh_servd/calloc=124:0", "ACP_Partition_Reply fail to allocate Memory\r\n"},
  };
  for (const Row &row : rows) {
    SCOPED_TRACE(row.fault);
    StopDaemon();
    EXPECT_EQ(OnBoard({"bh_servd", "-d", "-a", "/var/log/trace"}, row.fault).exit_code, 0);
    ASSERT_TRUE(AwaitServers(1));
    wire::Send(client, Request(row.command));
    EXPECT_TRUE(board::WaitFor([&] { return Trace().ends_with(row.trace); })) << Trace();
    const bool other_is_disk = row.command == RAID;
    EXPECT_EQ(Ask(Request(other_is_disk ? DISK : RAID)).size(), other_is_disk ? 544U : 768U);
  }
}

#endif
