// Checks and reads image files.

#include "client/image.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <vector>

namespace acp {
namespace {

constexpr size_t WORD = 4;  // bytes

bool Fail(const std::string &what, std::string &why) {
  why = what;
  return false;
}

bool CheckFile(const struct stat &status, std::string &why) {
  if (!S_ISREG(status.st_mode)) return Fail("not a regular file", why);
  if (status.st_size == 0) return Fail("empty", why);
  if (status.st_size > off_t{MAX_IMAGE})
    return Fail("larger than " + std::to_string(MAX_IMAGE) + " bytes, the protocol's limit", why);
  return true;
}

bool ComputeChecksum(Image &image, std::string &why) {
  std::vector<uint8_t> buffer(IMAGE_PIECE);
  for (uint32_t at = 0; at < image.size;) {
    const Bytes piece = ReadPiece(image, at, buffer, why);
    if (piece.empty()) return false;
    image.checksum = AddToChecksum(image.checksum, piece);
    at += static_cast<uint32_t>(piece.size());
  }
  return true;
}

}  // namespace

uint32_t AddToChecksum(uint32_t sum, Bytes piece) {
  for (size_t i = 0; i < piece.size(); ++i)
    sum += uint32_t{piece[i]} << 8 * (WORD - 1 - i % WORD);
  return sum;
}

// O_NONBLOCK: opening a named pipe would wait for a writer.
bool OpenImage(const std::string &path, Image &image, std::string &why) {
  image.path = path;
  image.file = Descriptor(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat status = {};
  if (!image.file.IsOpen() || fstat(image.file.Get(), &status) != 0)
    return Fail(strerror(errno), why);
  if (!CheckFile(status, why)) return false;
  image.size = static_cast<uint32_t>(status.st_size);
  return ComputeChecksum(image, why);
}

Bytes ReadPiece(const Image &image, uint32_t at, std::span<uint8_t> buffer, std::string &why) {
  const size_t wanted = std::min<size_t>(image.size - at, IMAGE_PIECE);
  size_t size = 0;
  while (size < wanted) {
    const ssize_t got =
        pread(image.file.Get(), buffer.data() + size, wanted - size, static_cast<off_t>(at + size));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) {
      why = got < 0 ? strerror(errno) : "the file became shorter";
      return {};
    }
    size += static_cast<size_t>(got);
  }
  return buffer.first(size);
}

}  // namespace acp
