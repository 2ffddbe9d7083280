// Settings files: the input is a key, a value and the file's text. What has been written for a
// plain key and value is read again.

#include <sys/mman.h>

#include "fuzz/input.h"
#include "lib/libbh.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static const auto path = "/proc/self/fd/" + std::to_string(memfd_create("file", MFD_CLOEXEC));
  std::string_view text = InputText(data, size);
  const std::string key = TakeLine(text);
  const std::string value = TakeLine(text);
  PutFile(path.c_str(), text);
  const bool defined = HeapText(libbh_GetConfigValue(path.c_str(), key.c_str())) != nullptr;
  const int32_t result = libbh_SetConfigValue(path.c_str(), key.c_str(), value.c_str());
  const HeapText read(libbh_GetConfigValue(path.c_str(), key.c_str()));
  Require((read != nullptr) == defined);
  const bool plain = (key + value).find_first_not_of("0123456789abcdefgh_kwy") == key.npos;
  if (defined && result == 0 && plain && !key.empty() && !value.empty())
    Require(read.get() == value || read.get() == value + '\r');
  return 0;
}
