// The interfaces file: the input is an interface's name, a mode and the file's text. It is split,
// cut into lines, searched for routes, and gets a new stanza.

#include "fuzz/input.h"
#include "lib/libbh.h"

namespace {

// Returns the lines of the interface's own.
HeapText Split(const std::string &name, size_t longest) {
  char *own = nullptr;
  char *rest = nullptr;
  const int32_t result = libbh_SplitInterfaces(name.c_str(), &own, &rest);
  HeapText lines(own);
  const HeapText others(rest);
  Require(result == 0 || (name.empty() && own == nullptr && rest == nullptr));
  for (const char *text : {own, rest})
    Require(text == nullptr || strlen(text) <= longest + 1);  // it may have got a last newline
  return lines;
}

void CutIntoLines(const char *cursor, size_t capacity) {
  std::string line(capacity, '\0');
  while (*cursor != '\0') {
    const char *const before = cursor;
    const int32_t length = libbh_ReadLine(&cursor, line.data(), static_cast<int32_t>(capacity));
    Require(cursor > before && length >= 0 && strlen(line.data()) < capacity);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  std::string_view text = InputText(data, size);
  IfInfo record = {};
  const std::string name = TakeLine(text);
  name.copy(record.name, sizeof(record.name));
  const std::string mode = TakeLine(text);
  record.mode = mode.starts_with('d') ? 1 : 0;
  PutFile("/etc/network/interfaces", text);
  const HeapText own = Split(name, text.size());
  if (own != nullptr) CutIntoLines(own.get(), mode.size() + 2);
  RouteEntry *routes = nullptr;
  libbh_GetConfiguredRoutes(&routes, name.c_str());
  libbh_FreeRouteList(routes);
  const int32_t written = libbh_WriteIfStanza(&record);
  Require((written == 0) == (!name.empty() && name.size() < sizeof(record.name)));
  Split(name, text.size() + 100);
  return 0;
}
