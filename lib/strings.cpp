// Texts in C's shape, and whether a file is empty: helpers of the library's callers.

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "lib/libbh.h"

char *libbh_AppendString(char *buffer, const char *text) {
  const size_t old_length = buffer == nullptr ? 0 : strlen(buffer);
  const size_t text_length = text == nullptr ? 0 : strlen(text);
  char *grown = static_cast<char *>(realloc(buffer, old_length + text_length + 1));
  if (grown == nullptr) return nullptr;
  if (text_length > 0) memcpy(grown + old_length, text, text_length);
  grown[old_length + text_length] = '\0';
  return grown;
}

int32_t libbh_SplitString(int32_t after, const char *text, const char *separator,
                          const char **out_piece) {
  if (text == nullptr || separator == nullptr || *text == '\0' || *separator == '\0') return 0;
  const char *piece = text;
  const char *first = strstr(text, separator);
  if (after != 0) {
    piece = first;
    while (piece != nullptr && strncmp(piece, separator, strlen(separator)) == 0)
      piece += strlen(separator);
  }
  if (out_piece != nullptr) *out_piece = piece;
  if (first == nullptr) return 0;
  const char *end = strstr(piece, separator);
  return static_cast<int32_t>(end == nullptr ? strlen(piece) : static_cast<size_t>(end - piece));
}

int32_t libbh_IsEmptyFile(const char *path) {
  if (path == nullptr) return libbh_SysError(EINVAL);
  struct stat status = {};
  if (stat(path, &status) != 0) return libbh_SysError(errno);
  return status.st_size == 0 ? 1 : 0;
}
