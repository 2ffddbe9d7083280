// The image's segment and its checksum.

#include <sys/ipc.h>

#include "lib/libbh.h"
#include "tests/firmware_fixture.h"

using namespace fixture;

using ImageTest = FirmwareTest;

namespace {

// Of all segments: what of them has been written, and so takes memory.
unsigned long ResidentPages() {
  struct shm_info info = {};
  shmctl(0, SHM_INFO, reinterpret_cast<struct shmid_ds *>(&info));
  return info.shm_rss;
}

}  // namespace

TEST_F(ImageTest, SegmentTakesNoMemoryBeforeTheUpload) {
  constexpr uint32_t SIZE = 512 << 20;
  const unsigned long before = ResidentPages();
  ASSERT_TRUE(CreateImage(SIZE));
  EXPECT_LE(ResidentPages(), before + 1) << "more than the page of the other segment";
  struct shmid_ds status = {};
  ASSERT_EQ(shmctl(FindImage(), IPC_STAT, &status), 0);
  EXPECT_EQ(status.shm_segsz, SIZE + 256);
  RemoveSegment(FindImage());
}

TEST_F(ImageTest, LimitOfSegmentsIsRaisedWhereItIsTooLow) {
  const struct {
    const char *limit;
    bool created;
    const char *limit_afterwards;
  } cases[] = {
      {"10255\n", true, "10256\n"},
      {"20000\n", true, "20000\n"},
      {"0\n", false, "0\n"},
  };
  for (const auto &test : cases) {
    WriteFile(SEGMENT_LIMIT, test.limit);
    EXPECT_EQ(CreateImage(10000), test.created) << test.limit;
    EXPECT_EQ(ReadFile(SEGMENT_LIMIT), test.limit_afterwards);
    RemoveSegment(FindImage());
  }
}

TEST_F(ImageTest, ChecksumIsThatOfTheReceivedBytes) {
  const struct {
    const char *name;
    string image;
    uint32_t size, sum;
    int32_t result;
  } cases[] = {
      {"a word and a byte", "abcde", 5, 0xC6626364, 0},
      {"another sum", "abcde", 5, 0xC6626300, -1},
      {"bytes behind the received ones", "abcdefgh", 5, 0xC6626364, 0},
      {"the whole segment", "abc", 300, 0x61626300, 0},
      {"more than the segment", "abc", 301, 0x61626300, -1},
      {"lanes at their largest sums", string(200003, '\xFF'), 200003, 0xFFFF3BB0, 0},
      {"nothing", "", 0, 0, -1},
  };
  for (const auto &test : cases) {
    ASSERT_TRUE(CreateImage(std::max<uint32_t>(44, static_cast<uint32_t>(test.image.size()))));
    ASSERT_TRUE(RecordImageSize(test.size, true));
    memcpy(AttachSegment(FindImage()).get(), test.image.data(), test.image.size());
    EXPECT_EQ(verify_firmbinary(test.sum), test.result) << test.name;
    RemoveSegment(FindImage());
  }
  RecordImageSize(4, false);
  EXPECT_EQ(verify_firmbinary(0), -1) << "without a segment";
  for (const char *line :
       {"verify_firmbinary() chksum error. chksum=0xC6626364 true_chksum=0xC6626300 size=0x0005\n",
        "verify_firmbinary() total_size == 0.\n"})
    EXPECT_NE(Count(TRACE, line), 0) << line;
}
