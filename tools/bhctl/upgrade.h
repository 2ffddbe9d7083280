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

// The image's properties and the passwords of an update request.
struct Update {
  uint32_t type = 0;     // decides where the image is installed
  uint32_t product = 0;  // product ID of the image
  uint32_t size = 0;     // bytes
  uint32_t checksum = 0;
  Secret password;  // the administrator's
  std::optional<Secret> zip_password;
};

// Maximum bytes of the administrator's password if an archive's follows, and of the archive's.
constexpr size_t PASSWORD_BEFORE_ZIP = 8;
constexpr size_t MAX_ZIP_PASSWORD = 511;

// EncodePassword must accept both passwords under the key.
Request MakeUpdateRequest(const Update &update, uint32_t key);

// The first reply tells whether the image is accepted, the second one whether it was installed.
Request MakeUpdateEndRequest(bool uploaded);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_UPGRADE_H_
