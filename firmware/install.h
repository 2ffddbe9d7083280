// Installs the received image: on a flash device, or unpacked onto the system partition. Runs in
// the server's own loop, which meanwhile neither answers nor ends.

#ifndef BH_FIRMWARE_INSTALL_H_
#define BH_FIRMWARE_INSTALL_H_

#include <cstddef>
#include <cstdint>

// The device that stands for the disk's partitions; all others are flash.
constexpr const char *DISK_TARGET = "/dev/hda1";

// Installs on the flash device, or on the disk's partitions for DISK_TARGET, and tells the
// appliance's update script before and after. Returns 0, or -1, also when `device` is null: then
// nothing happens.
int32_t write_firm(const char *device);

// Erases the flash device and writes the image to it, in up to five attempts. Returns 0, with the
// configuration lock taken, or -1.
int32_t write_firmInflash(const char *device);

// Writes the bytes to a device in small pieces and compares what it reads back. Returns 0, also
// when the device cannot be opened for reading, or -1.
int32_t write_data_in_dev(const char *device, const uint8_t *data, size_t length);

// Stores the image as an archive in the directory `zip_part` and unpacks it into `system_part`.
// Returns 0 or -1; the partitions stay mounted and are not cleaned up.
int32_t write_firmInHdd(const char *zip_part, const char *system_part);

// Notes that firmware is being installed, or with 0 no longer, in the process and in a file for the
// appliance's programs. Returns the result of writing or removing the file.
int32_t set_fw_updating(int32_t on);

#endif  // BH_FIRMWARE_INSTALL_H_
