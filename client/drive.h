// Decodes the ATA identification words of a drive.

#ifndef BH_CLIENT_DRIVE_H_
#define BH_CLIENT_DRIVE_H_

#include <cstdint>
#include <string>

#include "acp/packet.h"

namespace acp {

struct DriveIdentity {
  std::string model;
  std::string serial;
  std::string firmware;
  uint64_t sectors = 0;  // of 512 bytes
};

// Trims the texts. Bytes that are not printable ASCII become '?'.
DriveIdentity IdentifyDrive(const DiskInfo &info);

// False for a drive that does not exist: the appliance then answers with zeros.
bool HasDriveInformation(const DiskInfo &info);

// The capacity; UINT64_MAX if it does not fit into 64 bits.
uint64_t DriveBytes(const DriveIdentity &drive);

}  // namespace acp

#endif  // BH_CLIENT_DRIVE_H_
