// Owns a file descriptor: closes it at the end.

#ifndef BH_TOOLS_BHCTL_DESCRIPTOR_H_
#define BH_TOOLS_BHCTL_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

namespace bhctl {

struct Descriptor {
  int fd = -1;  // less than 0: none
  Descriptor() = default;
  explicit Descriptor(int descriptor) : fd(descriptor) {}
  Descriptor(Descriptor &&other) noexcept : fd(std::exchange(other.fd, -1)) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  ~Descriptor() {
    if (fd >= 0) close(fd);
  }
};

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_DESCRIPTOR_H_
