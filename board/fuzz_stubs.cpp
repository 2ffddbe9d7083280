// The daemon's calls that reach beyond its process, and what they do instead.

// The C library's checked calls are inline functions of the same names.
#undef _FORTIFY_SOURCE

#include "board/fuzz_stubs.h"

#include <linux/if_packet.h>
#include <spawn.h>
#include <sys/select.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "acp/packet.h"
#include "daemon/state.h"

board::FuzzStubs board::fuzz_stubs;

namespace {

using board::fuzz_stubs;

constexpr pid_t CHILD = 0x3FFFFFFF;      // higher than any real one's number
constexpr size_t MAX_SEGMENT = 1 << 20;  // bytes
constexpr size_t FRAME_HEADERS = 14 + 20 + 8;

int child_pipe[2] = {-1, -1};  // made for the child that is forked next

uint32_t Choose() {
  const uint32_t bit = fuzz_stubs.choices & 1;
  fuzz_stubs.choices >>= 1;
  return bit;
}

// As the handler of SIGCHLD does it.
void CollectAll() {
  daemon_state.live_led = 0;
  for (volatile pid_t &receiver : daemon_state.live_receivers)
    receiver = 0;
}

// A frame has Ethernet's, IPv4's and UDP's headers, whose lengths are the rest's, and an answer.
bool IsReply(const uint8_t *frame, size_t size) {
  return size >= FRAME_HEADERS + ACP_HEADER_SIZE && frame[12] == 8 && frame[13] == 0 &&
         frame[14] == 0x45 && static_cast<size_t>(frame[16] << 8 | frame[17]) == size - 14 &&
         static_cast<size_t>(frame[38] << 8 | frame[39]) == size - 34;
}

}  // namespace

extern "C" {

// What the program would print is there at once. The pipe of a child is closed with it.
int pipe2(int ends[2], int flags) {
  const size_t size = std::min<size_t>(fuzz_stubs.output.size(), PIPE_BUF);
  if (syscall(SYS_pipe2, ends, flags) != 0) return -1;
  if (write(ends[1], fuzz_stubs.output.data(), size) < 0) abort();
  memcpy(child_pipe, ends, sizeof(child_pipe));
  return 0;
}

pid_t fork() {
  if (Choose() != 0) return 0;
  child_pipe[0] = child_pipe[1] = -1;
  return CHILD;
}

int posix_spawn(pid_t *child, const char *, const posix_spawn_file_actions_t *,
                const posix_spawnattr_t *, char *const *, char *const *) {
  child_pipe[0] = child_pipe[1] = -1;
  *child = CHILD;
  return Choose() != 0 ? ENOMEM : 0;
}

void _exit(int status) {
  for (int &end : child_pipe) {
    if (end != -1) close(end);
    end = -1;
  }
  if (fuzz_stubs.running) siglongjmp(fuzz_stubs.end, 1);
  for (;;)
    syscall(SYS_exit_group, status);
}

// A child's standard descriptors are the program's own.
int dup2(int, int number) {
  return number;
}

int execl(const char *, const char *, ...) {
  _exit(0);
}

int execvp(const char *, char *const *) {
  _exit(0);
}

pid_t waitpid(pid_t pid, int *status, int) {
  if (status != nullptr) *status = static_cast<int>(Choose() << 8);
  return pid;
}

int kill(pid_t, int) {
  CollectAll();
  return 0;
}

int system(const char *command) {
  return strlen(command) > 0 ? static_cast<int>(Choose() << 8) : 1;
}

int pselect(int, fd_set *, fd_set *, fd_set *, const struct timespec *, const sigset_t *) {
  CollectAll();
  return 0;
}

int nanosleep(const struct timespec *, struct timespec *) {
  return 0;
}

int usleep(useconds_t) {
  return 0;
}

int select(int, fd_set *, fd_set *, fd_set *, struct timeval *) {
  return 0;
}

int settimeofday(const struct timeval *, const struct timezone *) {
  return Choose() != 0 ? -1 : 0;
}

int remove(const char *path) {
  errno = strlen(path) > 0 ? EPERM : ENOENT;
  return -1;
}

int mount(const char *, const char *, const char *, unsigned long, const void *) {
  return Choose() != 0 ? -1 : 0;
}

int umount(const char *) {
  return 0;
}

void sync() {}

int fsync(int) {
  return 0;
}

int shmget(key_t key, size_t size, int flags) {
  errno = ENOMEM;
  return size > MAX_SEGMENT ? -1 : static_cast<int>(syscall(SYS_shmget, key, size, flags));
}

// The kernel takes its time to close a packet socket.
int socket(int domain, int type, int protocol) {
  if (domain != AF_PACKET) return static_cast<int>(syscall(SYS_socket, domain, type, protocol));
  return static_cast<int>(syscall(SYS_socket, AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

int bind(int fd, const struct sockaddr *address, socklen_t length) {
  if (address->sa_family == AF_PACKET) return 0;
  return static_cast<int>(syscall(SYS_bind, fd, address, length));
}

ssize_t sendto(int fd, const void *data, size_t size, int flags, const struct sockaddr *to,
               socklen_t length) {
  if (to == nullptr || to->sa_family != AF_PACKET)
    return syscall(SYS_sendto, fd, data, size, flags, to, length);
  if (!IsReply(static_cast<const uint8_t *>(data), size)) abort();
  return static_cast<ssize_t>(size);
}

void syslog(int, const char *format, ...) {
  char line[8192];
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(line, sizeof(line), format, arguments);
  va_end(arguments);
}

}  // extern "C"
