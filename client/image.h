// A firmware image in a file. It is read in pieces, since it may be larger than memory.

#ifndef BH_CLIENT_IMAGE_H_
#define BH_CLIENT_IMAGE_H_

#include <cstdint>
#include <span>
#include <string>

#include "client/datagram.h"
#include "lib/descriptor.h"

namespace acp {

constexpr size_t IMAGE_PIECE = 65536;  // bytes; a multiple of the checksum's word
// The appliance adds 256 bytes to the size, in 32 bits.
constexpr uint32_t MAX_IMAGE = UINT32_MAX - 256;

struct Image {
  std::string path;
  Descriptor file;
  uint32_t size = 0;  // bytes, at least 1
  uint32_t checksum = 0;
};

// Adds the piece as big-endian 32-bit words to `sum`, the checksum of the previous pieces. The last
// word is padded with zeros. Only the last piece may end within a word.
uint32_t AddToChecksum(uint32_t sum, Bytes piece);

// Opens the file and computes its checksum. Returns false, with the reason in `why`, if the file
// cannot be read or sent.
bool OpenImage(const std::string &path, Image &image, std::string &why);

// Reads the piece at byte `at` into `buffer`, which has IMAGE_PIECE bytes. Returns an empty span,
// with the reason in `why`, if reading fails or the file became shorter.
Bytes ReadPiece(const Image &image, uint32_t at, std::span<uint8_t> buffer, std::string &why);

}  // namespace acp

#endif  // BH_CLIENT_IMAGE_H_
