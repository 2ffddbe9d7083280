// Owns a file descriptor and closes it at the end of its scope.

#ifndef BH_LIB_DESCRIPTOR_H_
#define BH_LIB_DESCRIPTOR_H_

#include <fcntl.h>
#include <unistd.h>

#include <utility>

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor &&other) noexcept : fd_(other.Release()) {}
  Descriptor &operator=(Descriptor &&other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor() {
    Close();
  }

  // The number, less than 0 for none.
  int Get() const {
    return fd_;
  }
  bool IsOpen() const {
    return fd_ >= 0;
  }
  // Hands the number over to the caller, who closes it.
  int Release() {
    return std::exchange(fd_, -1);
  }
  // Closes it now. Returns what close() does, 0 for none.
  int Close() {
    return IsOpen() ? close(Release()) : 0;
  }

 private:
  int fd_ = -1;
};

// The two ends of a pipe, which no program inherits.
struct Pipe {
  Descriptor reader, writer;
};

// False, with errno, when there is none to be had.
inline bool OpenPipe(Pipe &pipe) {
  int ends[2] = {-1, -1};
  if (pipe2(ends, O_CLOEXEC) != 0) return false;
  pipe = {Descriptor(ends[0]), Descriptor(ends[1])};
  return true;
}

#endif  // BH_LIB_DESCRIPTOR_H_
