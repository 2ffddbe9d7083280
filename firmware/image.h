// The uploaded firmware image: a segment of shared memory that the update request makes, the
// receiver fills and the installer reads, and a segment of 4 bytes in which the receiver records
// how much of it came. The keys of both come from files, so that tools of the appliance find them
// too.

#ifndef BH_FIRMWARE_IMAGE_H_
#define BH_FIRMWARE_IMAGE_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

struct SegmentDetacher {
  void operator()(uint8_t *segment) const;
};
// The start of an attached segment; detached at its end, which does not remove it.
using Segment = std::unique_ptr<uint8_t, SegmentDetacher>;

// What has been uploaded: nothing, with size 0, when there is no image.
struct Image {
  Segment segment;
  uint32_t size = 0;  // bytes received, "total_size"
  std::span<const uint8_t> Bytes() const {
    return {segment.get(), size};
  }
};

// Makes the zeroed segment of daemon_state.firm_mem_path for an image of `firm_size` bytes, in
// place of one that is there, and raises the kernel's limit if that is too low. False when it
// cannot be had, and for a size that does not fit the segment's 32 bits.
bool CreateImage(uint32_t firm_size);

// The segment of daemon_state.firm_mem_path, -1 when there is none.
int FindImage();

// Null when it cannot be attached.
Segment AttachSegment(int id);

// Nothing happens for -1. The memory is free when nobody has the segment attached any more.
void RemoveSegment(int id);

// Stores the number of received bytes; `create`: also if there is no size segment yet. False when
// it cannot be had.
bool RecordImageSize(uint32_t size, bool create);

// The image that the recorded size tells of. Nothing when no segment is there that holds so much.
Image ReceivedImage();

// The sum, modulo 2^32, of the bytes taken as big-endian 32-bit words; the last 1 to 3 bytes are
// the most significant ones of a word.
uint32_t ImageChecksum(std::span<const uint8_t> bytes);

// Returns 0 when the checksum of the received image is `expected`, else -1.
int32_t verify_firmbinary(uint32_t expected);

#endif  // BH_FIRMWARE_IMAGE_H_
