// Names of file systems.

#ifndef BH_TOOLS_BHCTL_FILE_SYSTEM_H_
#define BH_TOOLS_BHCTL_FILE_SYSTEM_H_

#include <cstdint>
#include <string>

namespace bhctl {

// The name for the magic number that statfs gives; an unknown number in hexadecimal.
std::string FileSystemName(uint32_t magic);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_FILE_SYSTEM_H_
