// A firmware image in a file: read in pieces, since it may be larger than memory.

#ifndef BH_TOOLS_BHCTL_IMAGE_H_
#define BH_TOOLS_BHCTL_IMAGE_H_

#include <cstdint>
#include <span>
#include <string>

#include "lib/descriptor.h"
#include "tools/bhctl/datagram.h"

namespace bhctl {

constexpr size_t IMAGE_PIECE = 65536;  // bytes; whole words of the checksum
// The appliance adds 256 bytes to the size, in 32 bits.
constexpr uint32_t MAX_IMAGE = UINT32_MAX - 256;

struct Image {
  std::string path;
  Descriptor file;
  uint32_t size = 0;  // bytes, at least 1
  uint32_t checksum = 0;
};

// The sum of the bytes as 32-bit words whose most significant byte comes first, the last one filled
// up with zeros; added to `sum`, that of the pieces before. Only the last piece may end within a
// word.
uint32_t AddToChecksum(uint32_t sum, Bytes piece);

// Opens the file and reads it through. False, with what is wrong, unless it is a file that an
// appliance can take.
bool OpenImage(const std::string &path, Image &image, std::string &why);

// The piece that begins at byte `at`, up to IMAGE_PIECE bytes, in `room`, which has as many. Empty,
// with what is wrong, when it cannot be read or the file has become shorter.
Bytes ReadPiece(const Image &image, uint32_t at, std::span<uint8_t> buffer, std::string &why);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_IMAGE_H_
