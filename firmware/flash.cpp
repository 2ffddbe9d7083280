// Flash devices: erase, write, read back. A device is never believed to have kept what it took.

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <span>

#include "daemon/process.h"
#include "daemon/trace.h"
#include "firmware/image.h"
#include "firmware/install.h"
#include "lib/descriptor.h"
#include "lib/libbh.h"
#include "lib/shell.h"

namespace {

constexpr int ATTEMPTS = 5;
constexpr size_t CHUNK = 1024;  // bytes, of a write and of a read

// In a process of its own, so that the server's connection to syslog stays as it is.
void LogWriting() {
  const ChildSignalBlock block;
  const pid_t child = ForkChild();
  if (child == 0) {
    closelog();
    openlog("Qrconf", 0, LOG_DAEMON);
    syslog(LOG_NOTICE, "Write the data to the flash.\n");
    closelog();
    _exit(0);
  }
  if (child > 0) WaitForChild(child, nullptr);
}

std::span<const uint8_t> NextChunkOf(std::span<const uint8_t> rest) {
  return rest.first(std::min(rest.size(), CHUNK));
}

// Takes what the device takes at once. False when it takes nothing or refuses.
bool WriteSome(const Descriptor &device, std::span<const uint8_t> &rest) {
  const std::span<const uint8_t> piece = NextChunkOf(rest);
  const ssize_t written = write(device.Get(), piece.data(), piece.size());
  if (written < 0 && errno == EINTR) return true;
  if (written <= 0) return false;
  rest = rest.subspan(static_cast<size_t>(written));
  return true;
}

bool WriteAll(const Descriptor &device, std::span<const uint8_t> rest) {
  while (!rest.empty()) {
    if (!WriteSome(device, rest)) return false;
  }
  return true;
}

// False when the device gives less.
bool ReadFull(const Descriptor &device, std::span<uint8_t> piece) {
  ssize_t got = -1;
  do {
    got = read(device.Get(), piece.data(), piece.size());
  } while (got < 0 && errno == EINTR);
  return got == std::ssize(piece);
}

// Else what is read back may never have been on the device. Character devices keep nothing back.
bool Flush(const Descriptor &device) {
  return fsync(device.Get()) == 0 || errno == EINVAL;
}

bool ReadsBack(const Descriptor &device, std::span<const uint8_t> rest) {
  uint8_t buffer[CHUNK];
  while (!rest.empty()) {
    const std::span<const uint8_t> piece = NextChunkOf(rest);
    const std::span<uint8_t> back(buffer, piece.size());
    if (!ReadFull(device, back) || !std::equal(back.begin(), back.end(), piece.begin()))
      return false;
    rest = rest.subspan(piece.size());
  }
  return true;
}

bool EraseAndWrite(const char *device, std::span<const uint8_t> image) {
  if (RunCommandLine(FormatText("/usr/sbin/eraseall %s > /dev/null 2>&1", device)) < 0) {
    DebugPrint("write_firmInflash() eraseall failed!!!\n");
    return false;
  }
  DebugPrint("write_firmInflash() eraseall success!!!\n");
  return write_data_in_dev(device, image.data(), image.size()) == 0;
}

bool WriteInAttempts(const char *device, std::span<const uint8_t> image) {
  for (int attempt = 0; attempt < ATTEMPTS; ++attempt) {
    if (EraseAndWrite(device, image)) return true;
  }
  return false;
}

}  // namespace

int32_t write_data_in_dev(const char *device, const uint8_t *data, size_t length) {
  if (device[0] == '\0') return -1;
  LogWriting();
  const std::span<const uint8_t> bytes(data, length);
  Descriptor writer(open(device, O_WRONLY | O_CLOEXEC));
  if (!writer.IsOpen()) {
    fprintf(stderr, "could not open \"%s\": %s\n", device, strerror(errno));
    return -1;
  }
  const bool written = WriteAll(writer, bytes) && Flush(writer);
  if (writer.Close() != 0 || !written) return -1;
  const Descriptor reader(open(device, O_RDONLY | O_CLOEXEC));
  return !reader.IsOpen() || ReadsBack(reader, bytes) ? 0 : -1;
}

int32_t write_firmInflash(const char *device) {
  const Image image = ReceivedImage();
  if (image.size == 0) {
    DebugPrint("write_firmInflash() total_size == 0.\n");
    return -1;
  }
  DebugPrint("write_firmInflash(%s) write_data_in_dev() start size=0x%08X\n", device, image.size);
  if (!WriteInAttempts(device, image.Bytes())) {
    DebugPrint("write_firmInflash() write_data_in_dev() failed!!!\n");
    return -1;
  }
  DebugPrint("write_firmInflash() write_data_in_dev() success!!!\n");
  libbh_lock();
  return 0;
}
