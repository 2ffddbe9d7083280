// Tests of the production line: destructive read/write runs on drives and the UPS signal port; and
// the marks that the line leaves in flash. The tests block the server until they have ended.

#ifndef BH_HANDLERS_FACTORY_H_
#define BH_HANDLERS_FACTORY_H_

#include <cstdint>

// Overwrite parts of the drive, and pass when no block is bad and no part takes too long: from
// block 512 to `count`, `count` blocks in the middle and `count` at the end; of a removable drive
// the first 3000. Blocks have 1024 bytes. Return 0, or ACP_STATE_TEST_FAIL at the first part that
// failed, and for a drive that is not there.
int32_t read_write_test(const char *device, int64_t count);
int32_t read_write_testUsb(const char *device);

// The drive's bytes: its sector size times its count of 512-byte units. -1 when they cannot be had.
int64_t kensa_GetDrivePartitionSize(const char *device);

// Drives the UPS port's two test outputs and passes when each of its signals follows; up to three
// attempts, or a single one. Return 0 or -1; after a failure the outputs stay as they were driven.
int32_t kensa_50_upstest();
int32_t kensa_UpsPortCheck();

// The state of the signal `name` ("ups_test_apc_sd=") in the board controller's report: 1 on, 0
// off, -1 unknown.
int32_t GetUpsPortState(const char *name, const char *report);

// The file's bytes; 0 when it cannot be opened, -1 when it has no end to go to.
int64_t GetFileSize(const char *path);

// Mark the flash as tested, with "NG" if `ng` is not 0, or write the boot parameters, with the root
// on the RAM disk if `ramdisk` is not 0. Return 0, or -1 when the device cannot be opened for
// writing; a flash that cannot be read is left as it is, with 0.
int32_t kensa_WriteFlashMark(int32_t ng);
int32_t kensa_SetBootParam(int32_t ramdisk);

#endif  // BH_HANDLERS_FACTORY_H_
