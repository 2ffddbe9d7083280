// The shim's calls that take or return a time, or a record with one in it.
//
// On a processor of 32 bits the C library has each of them twice: under its usual name with times
// of 32 bits, and under a second name with times of 64 bits, which its headers put in the usual
// one's place in a program built for these. They do so in this file too: it is compiled once for
// either kind of program, and what it defines as `select` is `__select64` for one of them.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/ipc.h>
#include <sys/select.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "board/failing.h"
#include "board/shim.h"

namespace {

constexpr int64_t SECOND = 1000000000;  // in nanoseconds

// The name that the C library has for a call as this file is compiled.
constexpr const char *NameOf(const char *usual, const char *second) {
  return sizeof(time_t) > sizeof(void *) ? second : usual;
}

int64_t RealTime(clockid_t id) {
  static auto *const real = FindReal(&clock_gettime, NameOf("clock_gettime", "__clock_gettime64"));
  struct timespec now {};
  real(id, &now);
  return now.tv_sec * SECOND + now.tv_nsec;
}

int64_t BoardTime(clockid_t id) {
  return RealTime(id) + ClockOffset();
}

int SetBoardTime(int64_t wanted) {
  if (geteuid() != 0) return Refusal(EPERM);
  return SetClockOffset(wanted - RealTime(CLOCK_REALTIME)) ? 0 : Refusal(ENODEV);
}

// The fourth argument of semctl, which programs declare themselves.
union SemaphoreArgument {
  int value;
  struct semid_ds *status;
};

// When a semaphore set was last operated on, from the kernel's own table of {key, id, mode, count,
// owner's and maker's user and group, last operation, last change}.
time_t LastOperation(int set) {
  static char table[4096];
  const int file = openat(AT_FDCWD, "/proc/sysvipc/sem", O_RDONLY | O_CLOEXEC);
  const ssize_t length = file < 0 ? -1 : read(file, table, sizeof(table) - 1);
  if (file >= 0) close(file);
  table[length < 0 ? 0 : length] = '\0';
  char *line = table;
  while ((line = strchr(line, '\n')) != nullptr) {
    long long columns[9] = {};
    for (long long &column : columns)
      column = std::strtoll(line, &line, 10);
    if (columns[1] == set) return static_cast<time_t>(columns[8]);
  }
  return 0;
}

}  // namespace

extern "C" {

WRAP_AS(NameOf("shmctl", "__shmctl64"), int, shmctl, -1,
        (int id, int command, struct shmid_ds *status), (id, command, status))

int setsockopt(int fd, int level, int name, const void *value, socklen_t length) {
  static auto *const real = FindReal(&setsockopt, NameOf("setsockopt", "__setsockopt64"));
  char option[16];
  snprintf(option, sizeof(option), "%d", name);
  return Fails("setsockopt", option) ? -1 : real(fd, level, name, value, length);
}

// It takes its argument only sometimes; reading one that was not passed does no harm.
int ioctl(int fd, unsigned long request, ...) {
  static auto *const real = FindReal(&ioctl, NameOf("ioctl", "__ioctl_time64"));
  va_list arguments;
  va_start(arguments, request);
  void *const argument = va_arg(arguments, void *);
  va_end(arguments);
  char number[24];
  snprintf(number, sizeof(number), "%#lx", request);
  int result = 0;
  const int error = errno;
  if (Fails("ioctl", number)) return -1;
  if (DriverAnswers(fd, request, argument, &result)) return result;
  errno = error;
  return real(fd, request, argument);
}

// The emulator leaves the time of the last operation out of a set's status.
int semctl(int set, int number, int command, ...) {
  static auto *const real = FindReal(&semctl, NameOf("semctl", "__semctl64"));
  if (command == GETVAL || command == GETPID || command == GETNCNT || command == GETZCNT ||
      command == IPC_RMID)
    return real(set, number, command);
  va_list arguments;
  va_start(arguments, command);
  const auto argument = va_arg(arguments, SemaphoreArgument);
  va_end(arguments);
  const int result = real(set, number, command, argument);
  if (result == 0 && command == IPC_STAT && argument.status->sem_otime == 0)
    argument.status->sem_otime = LastOperation(set);
  return result;
}

int select(int count, fd_set *in, fd_set *out, fd_set *err, struct timeval *time) {
  static auto *const real = FindReal(&select, NameOf("select", "__select64"));
  const int error = errno;
  if (count != 0 || time == nullptr || faccessat(AT_FDCWD, "/run/fast-sleep", F_OK, 0) != 0) {
    errno = error;
    return real(count, in, out, err, time);
  }
  char line[64];
  snprintf(line, sizeof(line), "select %lld.%06ld\n", static_cast<long long>(time->tv_sec),
           static_cast<long>(time->tv_usec));
  LogCall(line);
  SetClockOffset(ClockOffset() + time->tv_sec * SECOND + time->tv_usec * 1000);
  return 0;
}

int clock_gettime(clockid_t id, struct timespec *now) {
  static auto *const real = FindReal(&clock_gettime, NameOf("clock_gettime", "__clock_gettime64"));
  if (id != CLOCK_REALTIME && id != CLOCK_REALTIME_COARSE) return real(id, now);
  const int64_t moved = BoardTime(id);
  now->tv_sec = static_cast<time_t>(moved / SECOND);
  now->tv_nsec = static_cast<long>(moved % SECOND);
  return 0;
}

int gettimeofday(struct timeval *now, void *zone) {
  const int64_t moved = BoardTime(CLOCK_REALTIME);
  if (zone != nullptr) memset(zone, 0, sizeof(struct timezone));
  now->tv_sec = static_cast<time_t>(moved / SECOND);
  now->tv_usec = static_cast<suseconds_t>(moved % SECOND / 1000);
  return 0;
}

time_t time(time_t *now) {
  const auto seconds = static_cast<time_t>(BoardTime(CLOCK_REALTIME) / SECOND);
  if (now != nullptr) *now = seconds;
  return seconds;
}

int settimeofday(const struct timeval *wanted, const struct timezone *) {
  if (Fails("settimeofday")) return -1;
  if (wanted == nullptr) return 0;
  if (wanted->tv_usec < 0 || wanted->tv_usec >= 1000000) return Refusal(EINVAL);
  char line[64];
  snprintf(line, sizeof(line), "settimeofday %lld.%06ld\n", static_cast<long long>(wanted->tv_sec),
           static_cast<long>(wanted->tv_usec));
  LogCall(line);
  return SetBoardTime(wanted->tv_sec * SECOND + wanted->tv_usec * 1000);
}

int clock_settime(clockid_t id, const struct timespec *wanted) {
  if (id != CLOCK_REALTIME || wanted->tv_nsec < 0 || wanted->tv_nsec >= SECOND)
    return Refusal(EINVAL);
  char line[64];
  snprintf(line, sizeof(line), "clock_settime %lld.%09ld\n", static_cast<long long>(wanted->tv_sec),
           wanted->tv_nsec);
  LogCall(line);
  return SetBoardTime(wanted->tv_sec * SECOND + wanted->tv_nsec);
}

}  // extern "C"
