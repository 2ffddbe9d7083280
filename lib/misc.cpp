// Settings files of key="value" lines, the library's result convention and its table of defaults.
//
// The reader is tolerant (comments, blanks, quoted or bare values, CRLF). The writer changes only
// the values of lines that already define the key, in place, and keeps every other byte.

#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/text.h"

namespace {

// The equals sign has to be among this many characters behind a line's leading blanks, so a key has
// at most one character less.
constexpr size_t KEY_WINDOW = 63;

// Readers of the debug log look for the message by this place, whatever line it is on by now.
constexpr const char *LOG_MODULE = "misc.c";
constexpr int LOG_LINE_OPEN_FOR_WRITING = 501;

constexpr const char *DEFAULT_VALUES[16] = {
    "1.1.1.1",  // IPv4 address
    "255.255.255.0",
    "11",
    "3",
    "0",
    "1",
    "0",
    "0",
    "60",
    "5",
    "0x000000000000000F",
    "12",  // hours between two NTP queries
    "4",
    "1",
    "0",
    nullptr,
};

bool DefinesKey(std::string_view piece, std::string_view key) {
  std::string_view head = SkipBlanks(piece).substr(0, KEY_WINDOW);
  const size_t equals = head.find('=');
  if (equals == head.npos) return false;
  head = head.substr(0, equals);
  return head.substr(0, head.find_last_not_of(" \t") + 1) == key;
}

// The whole line that begins with `piece`, which has just been taken off `rest`; the line's further
// pieces are taken off `rest` too.
std::string_view JoinLine(std::string_view piece, std::string_view &rest) {
  if (piece.back() == '\n') return piece;
  const std::string_view tail = NextChunk(rest, rest.npos);
  return {piece.data(), piece.size() + tail.size()};  // both are parts of one text
}

// The value of a defining line, still escaped. What lies behind a NUL byte is not seen.
std::string_view ValueOf(std::string_view line) {
  using namespace std::string_view_literals;
  line = line.substr(0, line.find_first_of("\n\0"sv));
  const std::string_view text = line.substr(line.find('=') + 1);
  const size_t open = text.find('"');
  const size_t close = text.rfind('"');
  if (open != close) return text.substr(open + 1, close - open - 1);
  return SkipBlanks(text);
}

// Removes one level of backslashes in place; one at the very end escapes nothing and is dropped.
void Unescape(char *text) {
  char *out = text;
  for (const char *in = text; *in != '\0'; ++in) {
    if (*in == '\\' && *++in == '\0') break;
    *out++ = *in;
  }
  *out = '\0';
}

// A copy of `value` with each double quote behind three backslashes: two levels of escaping, as the
// reader removes them. Null when there is no memory.
HeapText EscapeQuotes(const char *value) {
  size_t size = 1;
  for (const char *in = value; *in != '\0'; ++in)
    size += *in == '"' ? 4 : 1;
  HeapText escaped(static_cast<char *>(malloc(size)));
  if (!escaped) return escaped;
  char *out = escaped.get();
  for (const char *in = value; *in != '\0'; ++in) {
    if (*in == '"') {
      memset(out, '\\', 3);
      out += 3;
    }
    *out++ = *in;
  }
  *out = '\0';
  return escaped;
}

// A carriage return before the last character makes it CRLF, whatever that character is.
std::string_view LineEnding(std::string_view line) {
  if (line.size() >= 2 && line[line.size() - 2] == '\r') return "\r\n";
  return line.back() == '\n' ? "\n" : "";
}

// `line` with everything behind its equals sign and the blanks there replaced by `value`.
std::string WithValue(std::string_view line, std::string_view value) {
  const std::string_view old_value = SkipBlanks(line.substr(line.find('=') + 1));
  std::string changed(line.substr(0, line.size() - old_value.size()));
  return changed.append(value).append(LineEnding(line));
}

// Fills `changed` with `content` under the new value. False when a line would become longer than
// the line buffers of the programs that read the file.
bool ReplaceValues(std::string_view content, std::string_view key, std::string_view value,
                   std::string &changed) {
  while (!content.empty()) {
    const std::string_view piece = NextChunk(content);
    if (!DefinesKey(piece, key)) {
      changed.append(piece);
      continue;
    }
    const std::string line = WithValue(JoinLine(piece, content), value);
    if (line.size() > MAX_CHUNK) return false;
    changed.append(line);
  }
  return true;
}

int32_t CreateWithKey(const char *path, std::string_view key, std::string_view value) {
  std::string line(key);
  line.append("=\"").append(value).append("\"\n");
  FilePtr file(fopen(path, "we"));
  if (!file) return libbh_SysError(errno);
  const int error = WriteAndClose(std::move(file), line);
  if (error == 0) return 0;
  // An empty file would define no key, and so take none at the next try. A link to it stays.
  const HeapText created(realpath(path, nullptr));
  if (created) unlink(created.get());
  return libbh_SysError(error);
}

int32_t OverwriteFile(const char *path, std::string_view content) {
  FilePtr file(fopen(path, "we"));
  if (!file) {
    const int error = errno;
    syslog(LOG_DEBUG, "%s %d %s\n", LOG_MODULE, LOG_LINE_OPEN_FOR_WRITING, strerror(error));
    return libbh_SysError(error);
  }
  const int error = WriteAndClose(std::move(file), content);
  return error == 0 ? 0 : libbh_SysError(error);
}

}  // namespace

int32_t libbh_SysError(int error) {
  return -10000 - error;
}

const char *libbh_GetDefaultValue(uint32_t index) {
  return index < std::size(DEFAULT_VALUES) ? DEFAULT_VALUES[index] : nullptr;
}

char *libbh_GetConfigValue(const char *path, const char *key) {
  std::string content;
  if (path == nullptr || key == nullptr || ReadTextFile(path, content) != 0) return nullptr;
  std::string_view rest = content;
  while (!rest.empty()) {
    const std::string_view piece = NextChunk(rest);
    if (piece.front() == '#' || !DefinesKey(piece, key)) continue;
    const std::string_view escaped = ValueOf(JoinLine(piece, rest));
    char *value = strndup(escaped.data(), escaped.size());
    if (value != nullptr) {
      Unescape(value);
      Unescape(value);
    }
    return value;
  }
  return nullptr;
}

int32_t libbh_SetConfigValue(const char *path, const char *key, const char *value) {
  if (path == nullptr || key == nullptr || value == nullptr) return libbh_SysError(EINVAL);
  const HeapText escaped = EscapeQuotes(value);
  if (!escaped) return NO_MEMORY;
  struct stat status = {};
  if (stat(path, &status) != 0 && errno == ENOENT) return CreateWithKey(path, key, escaped.get());
  std::string content;
  const int error = ReadTextFile(path, content);
  // A directory goes on to the open for writing, which refuses and logs it.
  if (error != 0 && error != EISDIR) return libbh_SysError(error);
  std::string changed;
  changed.reserve(content.size() + MAX_CHUNK);
  if (!ReplaceValues(content, key, escaped.get(), changed)) return libbh_SysError(EMSGSIZE);
  return OverwriteFile(path, changed);
}
