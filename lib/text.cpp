// Whole-file reading and writing, and the cutting of texts into pieces.

#include "lib/text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <limits>
#include <utility>

#include "lib/descriptor.h"

namespace {

// Room made at once for a file of known size; growing step by step costs more than the reading.
// Files under /proc tell no size, or one far beyond what they hold.
constexpr off_t MAX_RESERVED = off_t{1024} * 1024;

void ReserveFor(FILE *file, std::string &content) {
  struct stat status = {};
  if (fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode))
    content.reserve(static_cast<size_t>(std::min(status.st_size, MAX_RESERVED)));
}

// A stream over the file if it is open and a regular one; null otherwise.
FilePtr IfRegular(Descriptor file, const char *mode) {
  struct stat status = {};
  if (!file.IsOpen() || fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  FilePtr stream(fdopen(file.Get(), mode));
  if (stream) file.Release();
  return stream;
}

}  // namespace

// To open a device or a FIFO may have an effect by itself. So the file's type is checked before it
// is opened, and once more when it is open.
FilePtr OpenRegularFile(const char *path) {
  struct stat status = {};
  if (stat(path, &status) != 0 || !S_ISREG(status.st_mode)) return nullptr;
  return IfRegular(Descriptor(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)), "r");
}

FilePtr CreateRegularFile(const char *path, mode_t mode) {
  constexpr int FLAGS = O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW;
  struct stat status = {};
  if (lstat(path, &status) == 0 && !S_ISREG(status.st_mode)) return nullptr;
  return IfRegular(Descriptor(open(path, FLAGS | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, mode)), "w");
}

bool RemoveLeftover(const char *path) {
  return remove(path) == 0 || errno == ENOENT;
}

int ReadTextFile(const char *path, std::string &content) {
  content.clear();
  const FilePtr file(fopen(path, "re"));
  if (!file) return errno;
  ReserveFor(file.get(), content);
  char chunk[8192];
  size_t length = 0;
  while ((length = fread(chunk, 1, sizeof(chunk), file.get())) > 0)
    content.append(chunk, length);
  if (ferror(file.get()) != 0) {
    const int error = errno;
    content.clear();
    return error;
  }
  return 0;
}

int WriteAndClose(FilePtr file, std::string_view text) {
  int error = 0;
  if (fwrite(text.data(), 1, text.size(), file.get()) != text.size()) error = errno;
  if (fclose(file.release()) != 0 && error == 0) error = errno;
  return error;
}

int WriteTextFile(const char *path, std::string_view text) {
  FilePtr file(fopen(path, "we"));
  return file ? WriteAndClose(std::move(file), text) : errno;
}

std::string_view NextChunk(std::string_view &rest, size_t longest) {
  const std::string_view window = rest.substr(0, longest);
  const size_t newline = window.find('\n');
  const std::string_view piece = window.substr(0, newline == window.npos ? newline : newline + 1);
  rest.remove_prefix(piece.size());
  return piece;
}

std::string_view FrontOf(std::string_view line) {
  return line.substr(0, MAX_CHUNK);
}

std::string_view SkipBlanks(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t"), text.size()));
  return text;
}

std::string_view UpToNul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

bool Contains(std::string_view text, std::string_view part) {
  return text.find(part) != text.npos;
}

std::string WithoutNewline(std::string line) {
  if (!line.empty() && line.back() == '\n') line.pop_back();
  return line;
}

bool FileExists(const char *path) {
  struct stat status = {};
  return stat(path, &status) == 0;
}

int32_t ToNumber(const char *text) {
  constexpr long long LOWEST = std::numeric_limits<int32_t>::min();
  constexpr long long HIGHEST = std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(std::clamp(strtoll(text, nullptr, 10), LOWEST, HIGHEST));
}

bool CopyToField(char *field, size_t size, const char *text) {
  field[0] = '\0';
  if (text == nullptr || strlen(text) >= size) return false;
  memcpy(field, text, strlen(text) + 1);
  return true;
}

char *HeapCopy(std::string_view text) {
  char *copy = static_cast<char *>(malloc(text.size() + 1));
  if (copy == nullptr) return nullptr;
  text.copy(copy, text.size());
  copy[text.size()] = '\0';
  return copy;
}
