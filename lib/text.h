// Text files of the library and the daemon: read whole, taken apart in pieces of a fixed line
// buffer's length, written in place. Not installed; other programs use libbh.h.

#ifndef BH_LIB_TEXT_H_
#define BH_LIB_TEXT_H_

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
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
constexpr size_t MAX_CHUNK = 255;

// Opens the file for reading if it is a regular one: a FIFO or a device in its place neither keeps
// the caller waiting nor notices. Null otherwise.
FilePtr OpenRegularFile(const char *path);

// Creates or empties the file for writing if it is a regular one, and no symbolic link leads to it:
// for directories in which others may leave things. Null otherwise.
FilePtr CreateRegularFile(const char *path, mode_t mode = 0666);

// Removes what an earlier run, or somebody else, has left under the name: a file, a link, a FIFO or
// an empty directory. False when it is still there.
bool RemoveLeftover(const char *path);

// Reads the file whole into `content`. Returns 0, or the errno of the failed open or read (EISDIR
// for a directory) with `content` empty.
int ReadTextFile(const char *path, std::string &content);

// Writes `text` to the open file and closes it. Returns 0, or the errno of the first step that
// failed (a full disk often shows up only when the file is closed).
int WriteAndClose(FilePtr file, std::string_view text);

// Replaces the file's content. Returns 0, or the errno of the failed open (the file is untouched
// then) or write.
int WriteTextFile(const char *path, std::string_view text);

// Takes the next piece off the front of `rest`: up to and with the next "\n", but no more than
// `longest` characters. Empty only when `rest` is.
std::string_view NextChunk(std::string_view &rest, size_t longest = MAX_CHUNK);

// What a line is judged by: as much of it as fits a line buffer. Half a line would be another one,
// so what is behind shares its fate.
std::string_view FrontOf(std::string_view line);

// `text` without the spaces and tabs at its front.
std::string_view SkipBlanks(std::string_view text);

// The part of `text` in front of the first NUL byte.
std::string_view UpToNul(std::string_view text);

// Whether `text` contains `part` anywhere.
bool Contains(std::string_view text, std::string_view part);

// `line` without its newline, if it has one.
std::string WithoutNewline(std::string line);

// Whether there is a file of that name, of whatever kind. It takes no right to read it.
bool FileExists(const char *path);

// Room for the digits of a number and their NUL, where a text is scanned for one.
constexpr size_t NUMBER_CAPACITY = 32;

// The decimal number at the front of `text`, 0 without one, the nearest that 32 bits hold.
int32_t ToNumber(const char *text);

// Copies `text` with its NUL into a field of `size` bytes. False, with an empty text in the field,
// when it is null or does not fit.
bool CopyToField(char *field, size_t size, const char *text);

// A copy of `text` from malloc, for handing out. Null when there is no memory.
char *HeapCopy(std::string_view text);

#endif  // BH_LIB_TEXT_H_
