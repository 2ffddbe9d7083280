// The upgrade command: installs a firmware image on one appliance.

#ifndef BH_TOOLS_BHCTL_UPGRADE_H_
#define BH_TOOLS_BHCTL_UPGRADE_H_

#include <cstdint>
#include <optional>

#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"
#include "tools/bhctl/session.h"

namespace bhctl {

// Arguments IMAGE, --type, --product, --zip-password and --dry-run. Returns the program's exit
// status.
int Upgrade(const Options &options);

// What an update request tells of its image, and the passwords with it.
struct Update {
  uint32_t type = 0;     // kind of image, which says where it is installed
  uint32_t product = 0;  // product ID that the image is for
  uint32_t size = 0;     // bytes
  uint32_t checksum = 0;
  Secret password;  // the administrator's
  std::optional<Secret> zip_password;
};

// Bytes for the administrator's password before that of an archive, and for that one.
constexpr size_t PASSWORD_BEFORE_ZIP = 8;
constexpr size_t MAX_ZIP_PASSWORD = 511;

// Requires a session's key: one under which EncodePassword takes both passwords.
Request MakeUpdateRequest(const Update &update, uint32_t key);

// Its two replies tell that the image is accepted, or not, and then how its installation went.
Request MakeUpdateEndRequest(bool uploaded);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_UPGRADE_H_
