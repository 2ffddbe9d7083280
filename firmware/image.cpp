// The uploaded firmware image and the two segments that hold it and its size.

#include "firmware/image.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/text.h"

namespace {

constexpr uint64_t SEGMENT_SLACK = 256;  // bytes behind the image, which stay zero
constexpr int SEGMENT_MODE = 0666;

constexpr const char *SIZE_FILE = "/tmp/firm_size_id";
constexpr const char *SEGMENT_LIMIT = "/proc/sys/kernel/shmmax";

// Bytes of the checksum's rows, and how many rows a 16-bit lane can take of the largest byte.
constexpr size_t LANES = 16;
constexpr size_t MAX_ROWS = 257;

bool IsRegular(const char *path) {
  struct stat status = {};
  return lstat(path, &status) == 0 && S_ISREG(status.st_mode);
}

// An empty file for its key alone. Whatever else is in its place, a link that others have left in
// /tmp for one, would lend its own key.
bool MakeKeyFile(const char *path) {
  if (!IsRegular(path)) unlink(path);
  return CreateRegularFile(path, 0644) != nullptr;
}

// -1 when no segment has the file's key. The private key would make a segment that nobody finds.
int FindSegment(const char *key_file, size_t least_size, int flags) {
  if (!IsRegular(key_file)) return -1;
  const key_t key = ftok(key_file, 0);
  if (key == -1 || key == IPC_PRIVATE) return -1;
  return shmget(key, least_size, flags);
}

uint64_t SegmentSize(int id) {
  struct shmid_ds status = {};
  return shmctl(id, IPC_STAT, &status) == 0 ? status.shm_segsz : 0;
}

int64_t SegmentLimit() {
  std::string text;
  if (ReadTextFile(SEGMENT_LIMIT, text) != 0) return 0;
  return strtoll(text.c_str(), nullptr, 10);
}

void RaiseSegmentLimit(uint64_t need) {
  const int64_t limit = SegmentLimit();
  if (limit <= 0 || static_cast<uint64_t>(limit) >= need) return;
  WriteTextFile(SEGMENT_LIMIT, std::to_string(need) + "\n");  // or the segment is refused
}

void ReplaceImage() {
  if (IsRegular(daemon_state.firm_mem_path))
    RemoveSegment(FindImage());
  else
    MakeKeyFile(daemon_state.firm_mem_path);
}

uint32_t RecordedSize() {
  const Segment size = AttachSegment(FindSegment(SIZE_FILE, sizeof(uint32_t), 0));
  uint32_t recorded = 0;
  if (size) memcpy(&recorded, size.get(), sizeof(recorded));
  return recorded;
}

uint32_t ShiftOf(size_t lane) {
  return static_cast<uint32_t>(24 - 8 * (lane % sizeof(uint32_t)));
}

// A byte's place in its word decides what it adds: bytes of the same place are summed up first, in
// lanes that the compiler keeps in vector registers.
uint32_t SumOfRows(const uint8_t *bytes, size_t rows) {
  uint16_t lanes[LANES] = {};
  for (size_t row = 0; row < rows; ++row) {
    for (size_t lane = 0; lane < LANES; ++lane)
      lanes[lane] = static_cast<uint16_t>(lanes[lane] + bytes[row * LANES + lane]);
  }
  uint32_t sum = 0;
  for (size_t lane = 0; lane < LANES; ++lane)
    sum += static_cast<uint32_t>(lanes[lane]) << ShiftOf(lane);
  return sum;
}

}  // namespace

void SegmentDetacher::operator()(uint8_t *segment) const {
  shmdt(segment);
}

bool CreateImage(uint32_t firm_size) {
  const uint64_t need = firm_size + SEGMENT_SLACK;
  if (need > std::numeric_limits<uint32_t>::max()) return false;
  RaiseSegmentLimit(need);
  ReplaceImage();
  const size_t size = static_cast<size_t>(need);
  // Nobody else's segment of that key will do: it may be larger, and full.
  const int id = FindSegment(daemon_state.firm_mem_path, size, IPC_CREAT | IPC_EXCL | SEGMENT_MODE);
  if (id < 0) return false;
  DebugPrint("initialize shared memory.\n");
  // A fresh segment is zero. To write zeros into it would take the memory at once, which may be
  // more than there is.
  const Segment segment = AttachSegment(id);
  // The receiver does the same. If it fails before that, an earlier upload's size must not pass for
  // this one's.
  RecordImageSize(0, false);
  if (segment && RecordedSize() == 0) return true;
  RemoveSegment(id);
  return false;
}

int FindImage() {
  return FindSegment(daemon_state.firm_mem_path, 0, 0);
}

Segment AttachSegment(int id) {
  if (id < 0) return nullptr;
  void *start = shmat(id, nullptr, 0);
  return Segment(reinterpret_cast<intptr_t>(start) == -1 ? nullptr : static_cast<uint8_t *>(start));
}

void RemoveSegment(int id) {
  if (id >= 0) shmctl(id, IPC_RMID, nullptr);
}

bool RecordImageSize(uint32_t size, bool create) {
  if (create && !MakeKeyFile(SIZE_FILE)) return false;
  const Segment recorded =
      AttachSegment(FindSegment(SIZE_FILE, sizeof(size), create ? IPC_CREAT | SEGMENT_MODE : 0));
  if (recorded) memcpy(recorded.get(), &size, sizeof(size));
  return recorded != nullptr;
}

Image ReceivedImage() {
  Image image;
  const uint32_t size = RecordedSize();
  const int id = size == 0 ? -1 : FindImage();
  if (id < 0 || SegmentSize(id) < size) return image;
  image.segment = AttachSegment(id);
  if (image.segment) image.size = size;
  return image;
}

uint32_t ImageChecksum(std::span<const uint8_t> bytes) {
  uint32_t sum = 0;
  size_t rows = bytes.size() / LANES;
  while (rows > 0) {
    const size_t together = std::min(rows, MAX_ROWS);
    sum += SumOfRows(bytes.data(), together);
    bytes = bytes.subspan(together * LANES);
    rows -= together;
  }
  for (size_t i = 0; i < bytes.size(); ++i)
    sum += static_cast<uint32_t>(bytes[i]) << ShiftOf(i);
  return sum;
}

int32_t verify_firmbinary(uint32_t expected) {
  const Image image = ReceivedImage();
  if (image.size == 0) {
    DebugPrint("verify_firmbinary() total_size == 0.\n");
    return -1;
  }
  const uint32_t sum = ImageChecksum(image.Bytes());
  if (sum == expected) return 0;
  DebugPrint("verify_firmbinary() chksum error. chksum=0x%04X true_chksum=0x%04X size=0x%04X\n",
             sum, expected, image.size);
  return -1;
}
