// What a drive says of itself in its ATA identification words.

#ifndef BH_TOOLS_BHCTL_DRIVE_H_
#define BH_TOOLS_BHCTL_DRIVE_H_

#include <cstdint>
#include <string>

#include "acp/packet.h"

namespace bhctl {

struct DriveIdentity {
  std::string model;
  std::string serial;
  std::string firmware;
  uint64_t sectors = 0;  // of 512 bytes
};

// Texts come without the blanks around them, and with '?' for every byte that is not printable
// ASCII.
DriveIdentity IdentifyDrive(const DiskInfo &info);

// Whether the appliance had anything to tell: it answers with zeros for a drive that it lacks.
bool HasDriveInformation(const DiskInfo &info);

// The drive's capacity; the largest number when the claimed count of sectors leaves 64 bits.
uint64_t DriveBytes(const DriveIdentity &drive);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_DRIVE_H_
