// /etc/network/interfaces, taken apart for one interface and put together again.

#ifndef BH_LIB_DEV_CTL_INTERFACES_FILE_H_
#define BH_LIB_DEV_CTL_INTERFACES_FILE_H_

#include <cstdint>
#include <string>
#include <string_view>

// The lines of one interface's stanzas, and all others. Each text is empty or ends with a newline.
struct InterfacesText {
  std::string own;
  std::string rest;
};

// Reads the file and splits it for the interface. 0, or -10000 - errno.
int32_t SplitInterfacesFile(const char *name, InterfacesText &text);

// Writes the file: `rest`, then `own`. 0, or -10000 - errno when it cannot be opened; what a full
// disk cuts off is not reported.
int32_t WriteInterfacesFile(const InterfacesText &text);

// `line` without the spaces at its front; tabs stay.
std::string_view SkipSpaces(std::string_view line);

#endif  // BH_LIB_DEV_CTL_INTERFACES_FILE_H_
