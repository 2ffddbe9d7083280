// The built-in passwords of installation archives.

#ifndef BH_FIRMWARE_ZIP_PASSWORD_H_
#define BH_FIRMWARE_ZIP_PASSWORD_H_

#include <cstdint>

constexpr int32_t ZIP_PASSWORDS = 4;

// Password number `index`, 41 characters, in a buffer that every call shares: it holds until the
// next one. Another index leaves the buffer as the last call did.
const char *GetZipPassword(int32_t index);

#endif  // BH_FIRMWARE_ZIP_PASSWORD_H_
