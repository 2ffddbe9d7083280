// Preloaded into every program on the simulated board; stands for what must not or cannot be real.
//
// Never real: settimeofday, clock_settime and reboot. They are noted in /var/log/calls; the first
// two move the clock that all programs on the board see: time, gettimeofday and clock_gettime add
// the offset kept in /run/board-clock (nanoseconds, the least significant byte first, for programs
// of both byte orders). Waiting for a point of time is left to the kernel's own clock.
//
// The drivers of the appliance are a few ioctls, noted in /var/log/calls with their number, their
// device or interface and the bytes of their argument. Regular files below /dev stand for devices:
//
//   any            BLKSSZGET and BLKGETSIZE, by the file's size or by what /run/block-size/NAME
//                  holds: the count of 512-byte units and, if it is not 512, the sector's bytes;
//                  they change nothing and are not noted
//   /dev/idtinfo   keeps the address that it is given in its file, and reads it back to verify
//   /dev/fl3       notes the first bytes that it holds before and after a write
//   sockets        0x89f5, the EEPROM's: notes command, length and address
//
// Mounting a partition, a device with an ext2 or ext3 file system, is noted, and binds the
// directory /run/disks/NAME instead.
//
// No kernel has the socket families IPX, AX.25 and AppleTalk any more; asking for one is noted.
//
// While there is a file /run/fast-sleep, a select without descriptors is over at once: it is noted
// and the board's clock is set on by its time. /run/board-ticks, if there is one, has what times()
// returns.
//
// Calls fail on demand: see board/failing.h. Those that know times are in board/shim_timed.cpp.
//
// The shim is loaded into programs of any language: it uses nothing of the C++ library.

#include <endian.h>
#include <fcntl.h>
#include <linux/fs.h>
#include <net/if.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/reboot.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "board/failing.h"
#include "board/shim.h"

namespace {

uint32_t *clock_offset = nullptr;  // low and high half, shared by all processes on the board

// A program finds itself under /proc by its number as it would on the appliance. The board's /proc
// cannot follow the process table by itself, so each new process adds its own link.
void AnnounceProcess() {
  char link[32];
  char target[48];
  const int error = errno;
  snprintf(link, sizeof(link), "/proc/%d", getpid());
  snprintf(target, sizeof(target), "/run/kernel-proc/%d", getpid());
  if (symlink(target, link) != 0) errno = error;  // an earlier bearer of the number has left it
}

void MapClock() {
  const int file = openat(AT_FDCWD, "/run/board-clock", O_RDWR | O_CLOEXEC);
  if (file < 0) return;
  void *page = mmap(nullptr, sizeof(int64_t), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
  if (page != MAP_FAILED) clock_offset = static_cast<uint32_t *>(page);
  close(file);
}

__attribute__((constructor)) void Start() {
  AnnounceProcess();
  MapClock();
}

}  // namespace

int Refusal(int error) {
  errno = error;
  return -1;
}

// One write, so that lines of several programs do not mix.
void LogCall(const char *line) {
  const int log =
      openat(AT_FDCWD, "/var/log/calls", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
  if (log < 0) return;
  if (write(log, line, strlen(line)) < 0) perror("board shim: call log");
  close(log);
}

// Not every processor of the board can move eight bytes at once: a half-written offset is read
// again.
int64_t ClockOffset() {
  if (clock_offset == nullptr) return 0;
  uint32_t low = 0;
  uint32_t high = 0;
  do {
    high = __atomic_load_n(clock_offset + 1, __ATOMIC_SEQ_CST);
    low = __atomic_load_n(clock_offset, __ATOMIC_SEQ_CST);
  } while (high != __atomic_load_n(clock_offset + 1, __ATOMIC_SEQ_CST) ||
           low != __atomic_load_n(clock_offset, __ATOMIC_SEQ_CST));
  return static_cast<int64_t>(static_cast<uint64_t>(le32toh(high)) << 32 | le32toh(low));
}

bool SetClockOffset(int64_t offset) {
  if (clock_offset == nullptr) return false;
  const auto bits = static_cast<uint64_t>(offset);
  __atomic_store_n(clock_offset, htole32(static_cast<uint32_t>(bits)), __ATOMIC_SEQ_CST);
  __atomic_store_n(clock_offset + 1, htole32(static_cast<uint32_t>(bits >> 32)), __ATOMIC_SEQ_CST);
  return true;
}

namespace {

// Moves a decimal number off the front of a file of the board into `number`, and another one into
// `second` if there is one. False, with nothing moved, when there is no such file.
bool ReadNumbers(const char *path, long *number, long *second = nullptr) {
  char text[64] = "";
  const int file = openat(AT_FDCWD, path, O_RDONLY | O_CLOEXEC);
  const ssize_t length = file < 0 ? -1 : read(file, text, sizeof(text) - 1);
  if (file >= 0) close(file);
  if (length <= 0) return false;
  char *rest = text;
  *number = static_cast<long>(std::strtoll(rest, &rest, 10));
  char *end = rest;
  const auto further = static_cast<long>(std::strtoll(rest, &end, 10));
  if (second != nullptr && end != rest) *second = further;
  return true;
}

// Notes an ioctl with up to 16 bytes of what it is about.
void LogIoctl(unsigned long request, const char *subject, const uint8_t *bytes, size_t size) {
  char line[256];
  int used =
      snprintf(line, sizeof(line), "ioctl %#lx %.128s%s", request, subject, size == 0 ? "" : " ");
  for (size_t i = 0; i < size && i < 16; ++i)
    used += snprintf(line + used, sizeof(line) - static_cast<size_t>(used), "%02x", bytes[i]);
  snprintf(line + used, sizeof(line) - static_cast<size_t>(used), "\n");
  LogCall(line);
}

// The network driver's request: the EEPROM's address anew.
int EepromIoctl(unsigned long request, const void *argument) {
  struct {
    uint8_t command;
    const uint8_t *address;
    uint32_t length;
  } block{};
  struct ifreq named {};
  memcpy(&named, argument, sizeof(named));
  memcpy(&block, &named.ifr_ifru, sizeof(block));
  char subject[64];
  snprintf(subject, sizeof(subject), "%.*s %u %u", IFNAMSIZ, named.ifr_name, block.command,
           block.length);
  LogIoctl(request, subject, block.address, block.length);
  return 0;
}

int BlockIoctl(int fd, const char *device, unsigned long request, void *argument) {
  struct stat64 info {};
  fstat64(fd, &info);
  long units = static_cast<long>(info.st_size / 512);
  long sector = 512;
  char side[64];
  snprintf(side, sizeof(side), "/run/block-size/%.32s", device + strlen("/dev/"));
  ReadNumbers(side, &units, &sector);
  const int bytes = static_cast<int>(sector);
  if (request == BLKSSZGET) {
    memcpy(argument, &bytes, sizeof(bytes));
  } else {
    memcpy(argument, &units, sizeof(units));
  }
  return 0;
}

int IdIoctl(int fd, const char *device, unsigned long request, void *argument) {
  const bool has_address = request == 0x80065A04 || request == 0x80065A06;
  LogIoctl(request, device, static_cast<const uint8_t *>(argument), has_address ? 6 : 0);
  if (request == 0x80065A04 && pwrite(fd, argument, 6, 0) != 6) return -1;
  if (request == 0x80065A06 && pread(fd, argument, 6, 0) < 0) return -1;
  return 0;
}

int FlashIoctl(const char *device, unsigned long request) {
  uint8_t head[4] = {};
  const int file = openat(AT_FDCWD, device, O_RDONLY | O_CLOEXEC);
  const ssize_t length = file < 0 ? 0 : read(file, head, sizeof(head));
  if (file >= 0) close(file);
  LogIoctl(request, device, head, length < 0 ? 0 : static_cast<size_t>(length));
  return 0;
}

}  // namespace

bool DriverAnswers(int fd, unsigned long request, void *argument, int *result) {
  char link[32];
  char device[64] = "";
  struct stat64 info {};
  if (fstat64(fd, &info) != 0) return false;
  if (S_ISSOCK(info.st_mode) && request == 0x89F5) {
    *result = EepromIoctl(request, argument);
    return true;
  }
  snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
  if (!S_ISREG(info.st_mode) || readlink(link, device, sizeof(device) - 1) < 0) return false;
  if (strncmp(device, "/dev/", 5) != 0) return false;
  const bool is_id = strcmp(device, "/dev/idtinfo") == 0;
  const bool is_flash = strcmp(device, "/dev/fl3") == 0;
  if (request == BLKSSZGET || request == BLKGETSIZE) {
    *result = BlockIoctl(fd, device, request, argument);
  } else if (is_id && (request >> 8 == 0x20005A || request >> 8 == 0x80065A)) {
    *result = IdIoctl(fd, device, request, argument);
  } else if (is_flash && (request == 0x20001273 || request == 0x2000125D)) {
    *result = FlashIoctl(device, request);
  } else {
    return false;
  }
  return true;
}

namespace {

// The look-up of the real calloc may itself ask for memory, which it never gives back.
void *EarlyMemory(size_t size) {
  alignas(std::max_align_t) static char memory[2048];
  static size_t used = 0;
  const size_t step = (size + 15) / 16 * 16;
  if (step < size || step > sizeof(memory) - used) return nullptr;
  used += step;
  return memory + used - step;
}

// What has been opened has its effect on the file; then one that takes no writes has its place.
int WithFailingWrites(int fd, const char *path, int flags) {
  if (fd < 0 || (flags & O_ACCMODE) == O_RDONLY || !Fails("write", path)) return fd;
  const int sealed = memfd_create("sealed", MFD_CLOEXEC | MFD_ALLOW_SEALING);
  if (fcntl(sealed, F_ADD_SEALS, F_SEAL_WRITE) != 0 || dup3(sealed, fd, flags & O_CLOEXEC) != fd)
    abort();
  close(sealed);
  return fd;
}

FILE *WithFailingWrites(FILE *file, const char *path, const char *mode) {
  const bool is_read = std::strpbrk(mode, "wa+") == nullptr;
  if (file != nullptr && !is_read) WithFailingWrites(fileno(file), path, O_WRONLY | O_CLOEXEC);
  return file;
}

}  // namespace

extern "C" {

#define WRAP(type, name, failure, parameters, arguments) \
  WRAP_AS(#name, type, name, failure, parameters, arguments)

WRAP(int, bind, -1, (int fd, const struct sockaddr *address, socklen_t length),
     (fd, address, length))
WRAP(int, listen, -1, (int fd, int backlog), (fd, backlog))
WRAP(ssize_t, sendto, -1,
     (int fd, const void *data, size_t size, int flags, const struct sockaddr *to,
      socklen_t length),
     (fd, data, size, flags, to, length))
WRAP(int, pipe, -1, (int *fds), (fds))
WRAP(int, posix_spawn, errno,
     (pid_t * child, const char *path, const posix_spawn_file_actions_t *actions,
      const posix_spawnattr_t *attributes, char *const *arguments, char *const *environment),
     (child, path, actions, attributes, arguments, environment))
WRAP(int, pipe2, -1, (int *fds, int flags), (fds, flags))
WRAP(int, system, -1, (const char *command), (command))
WRAP(int, shmget, -1, (key_t key, size_t size, int flags), (key, size, flags))
WRAP(void *, shmat, MAP_FAILED, (int id, const void *address, int flags), (id, address, flags))
WRAP(int, shmdt, -1, (const void *address), (address))
WRAP(int, semop, -1, (int set, struct sembuf *operations, size_t count), (set, operations, count))
WRAP(int, sigaction, -1, (int number, const struct sigaction *action, struct sigaction *old),
     (number, action, old))
WRAP(sighandler_t, signal, SIG_ERR, (int number, sighandler_t handler), (number, handler))

// Signal handlers' calls look for BOARD_FAIL too, where nothing is for a moment while this moves
// it.
int setenv(const char *name, const char *value, int overwrite) {
  static auto *const real = FindReal(&setenv, "setenv");
  sigset_t all{};
  sigset_t previous{};
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &previous);
  const int result = real(name, value, overwrite);
  sigprocmask(SIG_SETMASK, &previous, nullptr);
  return result;
}

// The calls of a file's name; programs with 64-bit file offsets call them under their second name,
// which the headers put in the first one's place here too.
FILE *OpenStreamFor32(const char *path, const char *mode) __asm__("fopen");
FILE *OpenStreamFor64(const char *path, const char *mode) __asm__("fopen64");

FILE *OpenStreamFor32(const char *path, const char *mode) {
  static auto *const real = FindReal(&fopen, "fopen");
  return Fails("fopen", path) ? nullptr : WithFailingWrites(real(path, mode), path, mode);
}

FILE *OpenStreamFor64(const char *path, const char *mode) {
  static auto *const real = FindReal(&fopen64, "fopen64");
  return Fails("fopen", path) ? nullptr : WithFailingWrites(real(path, mode), path, mode);
}

// open takes its mode only sometimes, and as a further argument; passing one always does no harm.
int OpenFor32(const char *path, int flags, mode_t mode) __asm__("open");
int OpenFor64(const char *path, int flags, mode_t mode) __asm__("open64");

int OpenFor32(const char *path, int flags, mode_t mode) {
  static auto *const real = FindReal(&open, "open");
  return Fails("open", path) ? -1 : WithFailingWrites(real(path, flags, mode), path, flags);
}

int OpenFor64(const char *path, int flags, mode_t mode) {
  static auto *const real = FindReal(&open64, "open64");
  return Fails("open", path) ? -1 : WithFailingWrites(real(path, flags, mode), path, flags);
}

// What programs with checks of buffers call when they pass no mode.
int OpenCheckedFor32(const char *path, int flags) __asm__("__open_2");
int OpenCheckedFor64(const char *path, int flags) __asm__("__open64_2");

int OpenCheckedFor32(const char *path, int flags) {
  return OpenFor32(path, flags, 0);
}

int OpenCheckedFor64(const char *path, int flags) {
  return OpenFor64(path, flags, 0);
}

int semget(key_t key, int count, int flags) {
  static auto *const real = FindReal(&semget, "semget");
  char octal[16];
  snprintf(octal, sizeof(octal), "%o", static_cast<unsigned>(flags));
  return Fails("semget", octal) ? -1 : real(key, count, flags);
}

int socket(int domain, int type, int protocol) {
  static auto *const real = FindReal(&socket, "socket");
  char family[16];
  char line[32];
  snprintf(family, sizeof(family), "%d", domain);
  snprintf(line, sizeof(line), "socket %d\n", domain);
  if (Fails("socket", family)) return -1;
  if (domain != AF_IPX && domain != AF_AX25 && domain != AF_APPLETALK)
    return real(domain, type, protocol);
  LogCall(line);
  return Refusal(EAFNOSUPPORT);
}

int mount(const char *device, const char *directory, const char *type, unsigned long flags,
          const void *data) {
  static auto *const real = FindReal(&mount, "mount");
  if (Fails("mount", device)) return -1;
  if (type == nullptr || strncmp(type, "ext", 3) != 0)
    return real(device, directory, type, flags, data);
  char line[256];
  snprintf(line, sizeof(line), "mount %s %s %s\n", device, directory, type);
  LogCall(line);
  const char *name = std::strrchr(device, '/');
  char partition[128];
  snprintf(partition, sizeof(partition), "/run/disks/%.64s", name == nullptr ? device : name + 1);
  return real(partition, directory, "none", MS_BIND, nullptr);
}

clock_t times(struct tms *used) {
  static auto *const real = FindReal(&times, "times");
  const int error = errno;
  long ticks = real(used);
  ReadNumbers("/run/board-ticks", &ticks);
  errno = error;
  return ticks;
}

pid_t fork() {
  static auto *const real = FindReal(&fork, "fork");
  if (Fails("fork")) return -1;
  const pid_t child = real();
  if (child == 0) AnnounceProcess();
  return child;
}

void *calloc(size_t count, size_t size) {
  static decltype(&calloc) real = nullptr;
  static bool looking = false;
  if (looking) return EarlyMemory(count * size);
  if (real == nullptr) {
    looking = true;
    real = FindReal(&calloc, "calloc");
    looking = false;
  }
  if (HasPlans()) {
    char bytes[24];
    snprintf(bytes, sizeof(bytes), "%zu", count * size);
    if (FailsByVariable("calloc", bytes)) return nullptr;
  }
  return real(count, size);
}

int reboot(int how) {
  char line[64];
  snprintf(line, sizeof(line), "reboot 0x%08x\n", static_cast<unsigned>(how));
  LogCall(line);
  return 0;
}

}  // extern "C"
