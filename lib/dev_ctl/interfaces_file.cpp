// Lines are judged by what their front, a fixed buffer's length, contains anywhere, and kept whole
// as they are. An edited interface's stanza ends up at the end of the file.

#include "lib/dev_ctl/interfaces_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "lib/address.h"
#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/shell.h"
#include "lib/text.h"

namespace {

constexpr const char *INTERFACES_FILE = "/etc/network/interfaces";

bool IsStanzaStart(std::string_view line) {
  return Contains(line, "iface") || Contains(line, "mapping");
}

bool IsBlankOrComment(std::string_view line) {
  const std::string_view text = SkipSpaces(line);
  return text.starts_with('\n') || text.starts_with('#');
}

// Whether a line outside of the interface's stanzas starts one of them.
bool EntersStanza(std::string_view line, std::string_view name) {
  return !SkipSpaces(line).starts_with('#') && IsStanzaStart(line) && Contains(line, name);
}

// Whether a line inside of the interface's stanzas starts something of another's.
bool LeavesStanza(std::string_view line, std::string_view name) {
  return (Contains(line, "auto") || IsStanzaStart(line)) && !Contains(line, name);
}

void EndWithNewline(std::string &text) {
  if (!text.empty() && text.back() != '\n') text.push_back('\n');
}

// What stands behind a long line's front, in a comment for one, starts and ends nothing.
void AddLine(std::string_view line, std::string_view name, bool &inside, InterfacesText &text) {
  const std::string_view front = FrontOf(line);
  if (inside && IsBlankOrComment(front)) return;
  inside = inside ? !LeavesStanza(front, name) : EntersStanza(front, name);
  (inside ? text.own : text.rest).append(line);
}

std::string FreshStanza(const IfInfo &record) {
  std::string stanza;
  if (record.mode == MODE_DHCP) {
    stanza += FormatText("iface %s inet dhcp\n", record.name);
    stanza += "  hostname `hostname`\n";
  } else {
    stanza += FormatText("iface %s inet static\n", record.name);
    stanza += FormatText("      address %s\n", Dotted(record.addr.sin_addr).c_str());
    stanza += FormatText("      netmask %s\n", Dotted(record.netmask.sin_addr).c_str());
  }
  return stanza;
}

}  // namespace

std::string_view SkipSpaces(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  return line;
}

int32_t SplitInterfacesFile(const char *name, InterfacesText &text) {
  text = {};
  if (name == nullptr || name[0] == '\0') return libbh_SysError(EINVAL);
  std::string content;
  const int error = ReadTextFile(INTERFACES_FILE, content);
  if (error != 0) return libbh_SysError(error);
  std::erase(content, '\0');
  std::string_view left = content;
  bool inside = false;
  while (!left.empty())
    AddLine(NextChunk(left, left.npos), name, inside, text);
  EndWithNewline(text.rest);
  EndWithNewline(text.own);
  return 0;
}

int32_t WriteInterfacesFile(const InterfacesText &text) {
  FilePtr file(fopen(INTERFACES_FILE, "we"));
  if (!file) return libbh_SysError(errno);
  WriteAndClose(std::move(file), text.rest + text.own);
  return 0;
}

int32_t libbh_SplitInterfaces(const char *name, char **own, char **rest) {
  if (own == nullptr || rest == nullptr) return libbh_SysError(EINVAL);
  *own = nullptr;
  *rest = nullptr;
  InterfacesText text;
  const int32_t result = SplitInterfacesFile(name, text);
  if (result != 0) return result;
  HeapText own_copy(text.own.empty() ? nullptr : HeapCopy(text.own));
  HeapText rest_copy(text.rest.empty() ? nullptr : HeapCopy(text.rest));
  if ((!own_copy && !text.own.empty()) || (!rest_copy && !text.rest.empty())) return NO_MEMORY;
  *own = own_copy.release();
  *rest = rest_copy.release();
  return 0;
}

int32_t libbh_ReadLine(const char **cursor, char *buffer, int32_t size) {
  if (buffer == nullptr || size < 1) return 0;
  memset(buffer, 0, static_cast<size_t>(size));
  if (cursor == nullptr || *cursor == nullptr) return 0;
  std::string_view rest(*cursor, strnlen(*cursor, static_cast<size_t>(size)));
  const std::string_view line = NextChunk(rest, static_cast<size_t>(size) - 1);
  line.copy(buffer, line.size());
  *cursor += line.size();
  if (line.ends_with('\n')) return static_cast<int32_t>(line.size()) - 1;
  const bool complete = rest.empty();  // a last line that has no newline
  return complete ? 0 : static_cast<int32_t>(line.size());
}

int32_t libbh_WriteIfStanza(const IfInfo *record) {
  if (record == nullptr || strnlen(record->name, sizeof(record->name)) == sizeof(record->name))
    return libbh_SysError(EINVAL);
  InterfacesText text;
  const int32_t result = SplitInterfacesFile(record->name, text);
  if (result != 0) return result;
  const std::string old_own = std::exchange(text.own, FreshStanza(*record));
  std::string_view left = old_own;
  while (!left.empty()) {
    const std::string_view line = NextChunk(left, left.npos);
    const std::string_view front = FrontOf(line);
    if (Contains(front, "down") || Contains(front, "up")) text.own.append(line);
  }
  return WriteInterfacesFile(text);
}
