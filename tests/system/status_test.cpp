// Ping, disk, RAID and partition queries over the wire, and bhctl's rendering of them.

#include <algorithm>

#include "tests/system/fixture.h"

using wire::Bytes;
using wire::Hex;
using wire::Number;
using wire::Request;

namespace {

constexpr char kDiskWithPath[] = "20 00 00 00 07 00 01 00 90 80 40 00 00 00 00 00";
constexpr char kPartition[] = "20 00 00 00 07 00 01 00 D0 80 00 00 00 00 00 00";
constexpr char kRaid[] = "20 00 00 00 07 00 01 00 E0 80 00 00 00 00 00 00";

// Text as a body of `size` bytes.
Bytes Text(const std::string &text, size_t size) {
  Bytes body(text.begin(), text.end());
  body.resize(size);
  return body;
}

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

class Status : public SystemTest {
 protected:
  void SetUp() override {
    SystemTest::SetUp();
    StartDaemon();
  }

  Bytes AskPartition(const Bytes &body) {
    Bytes request = Request(kPartition, body);
    request[10] = static_cast<uint8_t>(body.size());
    return Ask(request);
  }
};

TEST_F(Status, DiskWordsOfTheNamedDrive) {
  board::WriteFile(board, "/proc/ide/hda/identify", "0001 0203 ffff\nzz\n8000 1 2 3 4 5 6 7 8\n");
  OnBoard({"/bin/mkdir", "-p", "/proc/ide/hdb", "/tmp/fifo", "/tmp/dir/identify"});
  OnBoard({"/usr/bin/mkfifo", "/tmp/fifo/identify"});
  std::string forty_lines;
  for (int i = 0; i < 40; ++i)
    forty_lines += "a0b0 1 2 3 4 5 6 7\r\n";
  board::WriteFile(board, "/proc/ide/hdb/identify", forty_lines);

  Bytes hda(512);
  const Bytes first = Hex("01 00 03 02 ff ff 00 00");
  const Bytes third = Hex("00 80 01 00 02 00 03 00 04 00 05 00 06 00 07 00");
  std::copy(first.begin(), first.end(), hda.begin());
  std::copy(third.begin(), third.end(), hda.begin() + 32);
  Bytes hdb;
  for (int i = 0; i < 32; ++i) {
    const Bytes line = Hex("b0 a0 01 00 02 00 03 00 04 00 05 00 06 00 07 00");
    hdb.insert(hdb.end(), line.begin(), line.end());
  }
  const std::string unterminated = "/proc/ide/hdb/" + std::string(50, '/');
  const struct {
    Bytes request;
    Bytes words;
  } cases[] = {
      {Request(kDisk), hda},
      {Request("20 00 00 00 07 00 01 00 90 80 3F 00 00 00 00 00", Text("/proc/ide/hdb", 63)), hda},
      {Request(kDiskWithPath, Text("/proc/ide/hdb", 64)), hdb},
      {Request(kDiskWithPath, Text("/proc/ide/hdb/", 64)), hdb},
      {Request(kDiskWithPath, Text(unterminated, 64)), hdb},
      {Request(kDiskWithPath, Text("/none", 64)), Bytes(512)},
      {Request(kDiskWithPath, Text("%s%n%s", 64)), Bytes(512)},
      {Request(kDiskWithPath, Text("", 64)), Bytes(512)},
      {Request(kDiskWithPath, Text("/tmp/fifo", 64)), Bytes(512)},
      {Request(kDiskWithPath, Text("/tmp/dir", 64)), Bytes(512)},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(std::string(test.request.begin() + 32, test.request.end()));
    const Bytes reply = Ask(test.request);
    ASSERT_EQ(reply.size(), 544U);
    EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 32),
              Hex("20 00 00 00 07 00 01 00 90 C0 00 02 00 00 00 00 02 0b 4a 00 00 10 "
                  "02 0b 4a 00 00 01 00 00 00 00"));
    EXPECT_EQ(Bytes(reply.begin() + 32, reply.end()), test.words);
  }
}

TEST_F(Status, RaidListFollowsTheDiskConfiguration) {
  const struct {
    const char *config;
    const char *entries;
  } cases[] = {
      {"array1=\"raid5\"\narray2=\"off\"\n", "5 0 /mnt/array1\n2 0 /mnt/usbdisk2\n"},
      {"array1=\"off\"\narray2=\"raid1\"\n", "4 0 /mnt/array2\n2 0 /mnt/usbdisk2\n"},
      {"array1=\"raid1\"\narray2=\"jbod\"\ndisk1=\"normal\"\ndisk2=\"Normal\"\ndisk4=normal\n",
       "4 0 /mnt/array1\n3 1 /mnt/array2\n1 0 /mnt/disk1\n1 0 /mnt/disk4\n2 0 /mnt/usbdisk2\n"},
      {"", "2 0 /mnt/usbdisk2\n"},
  };
  ASSERT_EQ(
      OnBoard({"/bin/mount", "-t", "tmpfs", "-o", "size=8m", "usb", "/mnt/usbdisk2"}).exit_code, 0);
  for (const auto &test : cases) {
    board::WriteFile(board, "/etc/korvo/diskinfo", test.config);
    const Bytes reply = Ask(Request(kRaid));
    ASSERT_EQ(reply.size(), 768U);
    EXPECT_EQ(Bytes(reply.begin() + 8, reply.begin() + 12), Hex("E0 C0 E0 02"));
    EXPECT_EQ(Entries(reply), test.entries);
  }
  const Bytes usb = Ask(Request(kRaid));
  EXPECT_EQ(Number(usb, 32 + 8), 0x01021994U);  // tmpfs
  EXPECT_EQ(Number(usb, 32 + 12) * Number(usb, 32 + 16), 8U << 20);
  EXPECT_NE(Trace().find("GetRaidInfo : found usb2\n"), std::string::npos);

  board::WriteFile(board, "/etc/korvo/diskinfo", "array1=\"raid1\"\n");
  const Bytes unmounted = Ask(Request(kRaid));
  EXPECT_EQ(Bytes(unmounted.begin() + 32 + 8, unmounted.begin() + 32 + 28),
            Hex("00 00 00 00 00 02 00 00 00 08 00 00 00 00 00 00 00 00 00 00"));

  board::WriteFile(
      board, "/etc/korvo/diskinfo",
      "array1=jbod\narray2=jbod\ndisk1=normal\ndisk2=normal\ndisk3=normal\ndisk4=normal\n");
  for (const char *disk : {"1", "3", "4"}) {
    OnBoard({"/bin/mount", "-t", "tmpfs", "usb", std::string("/mnt/usbdisk") + disk});
  }
  const std::string full = Entries(Ask(Request(kRaid)));
  EXPECT_EQ(std::count(full.begin(), full.end(), '\n'), 8) << full;
}

TEST_F(Status, PartitionOfAPath) {
  ASSERT_EQ(
      OnBoard({"/bin/mount", "-t", "tmpfs", "-o", "size=4m,nr_inodes=100", "t", "/mnt"}).exit_code,
      0);
  const std::string deep = "/mnt/" + std::string(80, 'd');
  OnBoard({"/bin/mkdir", deep});
  const struct {
    Bytes body;
    uint32_t state;
    std::string path;
  } cases[] = {
      {Text("/mnt", 64), 0, "/mnt"},           {Text("/mnt", 4), 0, "/mnt"},  // no NUL in the body
      {Text(deep, 90), 0, deep.substr(0, 63)}, {Text("/none", 64), 0xFFFFFFFF, ""},
      {Text("%n%n%n%n", 64), 0xFFFFFFFF, ""},  {{}, 0xFFFFFFFF, ""},
  };
  for (const auto &test : cases) {
    SCOPED_TRACE(std::string(test.body.begin(), test.body.end()));
    const Bytes reply = AskPartition(test.body);
    ASSERT_EQ(reply.size(), 124U);
    EXPECT_EQ(Bytes(reply.begin() + 8, reply.begin() + 12), Hex("D0 C0 5C 00"));
    EXPECT_EQ(Number(reply, 28), test.state);
    EXPECT_EQ(TextAt(reply, 60), test.path);
    if (test.state != 0) {
      EXPECT_EQ(Bytes(reply.begin() + 32, reply.end()), Bytes(92));
      continue;
    }
    EXPECT_EQ(Number(reply, 32), 0x01021994U);
    EXPECT_EQ(Number(reply, 36) * Number(reply, 40), 4U << 20);
    EXPECT_EQ(Number(reply, 52), 100U);
    EXPECT_LT(Number(reply, 56), 100U);
  }
  EXPECT_NE(
      Trace().find("-> ACP_Partition_Reply\r\nACP_Partition_Reply success statfs(). path=/mnt\r\n"),
      std::string::npos);
  EXPECT_NE(Trace().find("ACP_Partition_Reply fail statfs(). path=%n%n%n%n\r\n"),
            std::string::npos);
}

#if !defined(__SANITIZE_ADDRESS__)  // its allocator does not pass the shim

TEST_F(Status, WithoutMemoryForAReplyNoneIsSent) {
  const struct {
    const char *head;
    const char *fail;
    const char *trace;
  } cases[] = {
      {kPing, "bh_servd/calloc=32:0", "ACP_Ping_Reply fail to allocate Memory\n"},
      {kDisk, "bh_servd/calloc=544:0", "ACP_Info_HDD_Reply fail to allocate Memory\n"},
      {kRaid, "bh_servd/calloc=768:0", "ACP_Info_HDD_Reply fail to allocate Memory\n"},
      {"20 00 00 00 07 00 01 00 20 80 00 00 00 00 00 00", "bh_servd/calloc=320:0",
       "ACP_Discover_Reply fail to allocate Memory\r\n"},
      {kPartition, "bh_servd/calloc=124:0", "ACP_Partition_Reply fail to allocate Memory\r\n"},
  };
  for (const auto &test : cases) {
    EXPECT_EQ(OnBoard({"bh_servd", "-t", "eth0"}).exit_code, 0);
    ASSERT_TRUE(AwaitServers(0));
    EXPECT_EQ(OnBoard({"bh_servd", "-d", "-a", "/var/log/trace"}, test.fail).exit_code, 0);
    ASSERT_TRUE(AwaitServers(1));
    wire::Send(client, Request(test.head));
    EXPECT_TRUE(board::WaitFor([&] { return Trace().ends_with(test.trace); })) << Trace();
    const Bytes other = Ask(Request(test.head == kRaid ? kDisk : kRaid));
    EXPECT_EQ(other.size(), test.head == kRaid ? 544U : 768U) << test.fail;
  }
}

#endif

TEST_F(Status, BhctlShowsWhatTheApplianceAnswers) {
  const struct {
    const char *arguments;
    int status;
    const char *output;
  } cases[] = {
      {"ping", 0, "02:0b:4a:00:00:10"},
      {"--mac 02:0b:4a:00:00:10 ping --json", 0, "\"mac\":\"02:0b:4a:00:00:10\""},
      {"--mac 02:0b:4a:00:00:77 --timeout 0.2 ping", 3, ""},
      {"disk", 0, ""},
      {"raid", 0, ""},
      {"partition /tmp", 0, "/tmp"},
      {"partition /none", 1, "ACP_STATE_FAILURE"},
  };
  for (const auto &test : cases) {
    const std::string command =
        std::string(BHCTL_PATH) + " -i " + board.wires[0] + " " + test.arguments + " 2>&1";
    FILE *pipe = popen(command.c_str(), "re");
    std::string output(65536, '\0');
    output.resize(fread(output.data(), 1, output.size(), pipe));
    const int status = pclose(pipe);
    EXPECT_EQ(WEXITSTATUS(status), test.status) << command << "\n" << output;
    EXPECT_NE(output.find(test.output), std::string::npos) << command << "\n" << output;
  }
}
