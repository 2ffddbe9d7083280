// Text files of the library and the daemon: read whole, taken apart in pieces of a fixed line
// buffer's length, written in place. Not installed; other programs use libbh.h.

#ifndef BH_LIB_TEXT_H_
#define BH_LIB_TEXT_H_

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

struct FileCloser {
  void operator()(FILE *file) const {
    fclose(file);
  }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

struct HeapRelease {
  void operator()(void *block) const {
    free(block);
  }
};
// A NUL-terminated text from malloc, as the library's C interface hands it out.
using HeapText = std::unique_ptr<char, HeapRelease>;

// Settings files are looked at in pieces of at most this many characters.
constexpr size_t LONGEST_PIECE = 255;

// Reads the file whole into `content`. Returns 0, or the errno of the failed open or read (EISDIR
// for a directory) with `content` empty.
int ReadTextFile(const char *path, std::string &content);

// Writes `text` to the open file and closes it. Returns 0, or the errno of the first step that
// failed (a full disk often shows up only when the file is closed).
int WriteAndClose(FilePtr file, std::string_view text);

// Takes the next piece off the front of `rest`: up to and with the next "\n", but no more than
// `longest` characters. Empty only when `rest` is.
std::string_view NextPiece(std::string_view &rest, size_t longest = LONGEST_PIECE);

// `text` without the spaces and tabs at its front.
std::string_view SkipBlanks(std::string_view text);

#endif  // BH_LIB_TEXT_H_
