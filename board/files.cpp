// Files: copying onto a board that is being put together, and looking into one that runs.

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <string>

#include "board/internal.h"

namespace board {

namespace {

bool CopyBytes(int from, int to) {
  ssize_t size = 0;
  do
    size = sendfile(to, from, nullptr, 1 << 20);
  while (size > 0);
  return size == 0;
}

bool CopyLink(const std::string &from, const std::string &to) {
  char target[PATH_MAX];
  const ssize_t length = readlink(from.c_str(), target, sizeof(target) - 1);
  if (length < 0) return false;
  target[length] = '\0';
  if (symlink(target, to.c_str()) == 0) return true;
  return errno == EEXIST && unlink(to.c_str()) == 0 && symlink(target, to.c_str()) == 0;
}

int OpenNew(const std::string &path, mode_t mode) {
  const int flags = O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC;
  const int file = open(path.c_str(), flags, mode);
  if (file >= 0 || errno != EEXIST || unlink(path.c_str()) != 0) return file;
  return open(path.c_str(), flags, mode);
}

}  // namespace

bool CopyEntry(const std::string &from, const std::string &to) {
  struct stat info {};
  if (lstat(from.c_str(), &info) != 0) return false;
  if (S_ISLNK(info.st_mode)) return CopyLink(from, to);
  const Descriptor source(open(from.c_str(), O_RDONLY | O_CLOEXEC));
  if (!source.IsOpen()) return false;
  const Descriptor copy(OpenNew(to, 0600));
  return copy.IsOpen() && CopyBytes(source.Get(), copy.Get()) &&
         fchmod(copy.Get(), info.st_mode & 07777) == 0;
}

bool MakeDirectories(const std::string &base, const std::string &path, const std::string &model) {
  for (size_t end = path.find('/', 1);; end = path.find('/', end + 1)) {
    const std::string part = path.substr(0, end);
    struct stat info {};
    const bool known = stat((model + part).c_str(), &info) == 0 && S_ISDIR(info.st_mode);
    if (mkdir((base + part).c_str(), 0755) == 0) {
      if (known && chmod((base + part).c_str(), info.st_mode & 07777) != 0) return false;
    } else if (errno != EEXIST) {
      return false;
    }
    if (end == std::string::npos) return true;
  }
}

namespace {

// Relative to `directory`, with it as the root that links and ".." stay within.
int OpenInRoot(int directory, const std::string &path, int flags, mode_t mode) {
  struct open_how how {};
  how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
  how.mode = (flags & O_CREAT) != 0 ? mode : 0;
  how.resolve = RESOLVE_IN_ROOT;
  return static_cast<int>(syscall(SYS_openat2, directory, path.c_str(), &how, sizeof(how)));
}

}  // namespace

int OpenFile(const Board &board, const std::string &path, int flags, mode_t mode) {
  const Descriptor root(open(board.root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  return !root.IsOpen() ? -1 : OpenInRoot(root.Get(), path, flags, mode);
}

std::string ReadFile(const Board &board, const std::string &path) {
  const Descriptor file(OpenFile(board, path, O_RDONLY));
  std::string text;
  std::array<char, 4096> buffer{};
  ssize_t size = 0;
  while (file.IsOpen() && (size = read(file.Get(), buffer.data(), buffer.size())) > 0)
    text.append(buffer.data(), static_cast<size_t>(size));
  return text;
}

bool WriteFile(const Board &board, const std::string &path, std::string_view text) {
  const Descriptor file(OpenFile(board, path, O_WRONLY | O_CREAT | O_TRUNC));
  return file.IsOpen() &&
         write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool Exists(const Board &board, const std::string &path) {
  const Descriptor file(OpenFile(board, path, O_PATH));
  return file.IsOpen();
}

bool Remove(const Board &board, const std::string &path) {
  const size_t slash = path.rfind('/');
  const Descriptor directory(OpenFile(board, path.substr(0, slash + 1), O_PATH | O_DIRECTORY));
  return directory.IsOpen() && unlinkat(directory.Get(), path.c_str() + slash + 1, 0) == 0;
}

}  // namespace board
