// The request that begins a firmware update. It is checked for rights, product and kind of image;
// then memory is taken for the image, and a receiver started.

#ifndef BH_FIRMWARE_UPDATE_REQUEST_H_
#define BH_FIRMWARE_UPDATE_REQUEST_H_

#include <cstdint>

#include "acp/request.h"

// `variant` is 2 for ACP_FIRMUP2 and 3 for ACP_FIRMUP3, which may carry an archive password. Each
// sends exactly one reply, and returns the receiver's pid, or 0 when none was started. The second
// one serves the products 0x2001 and 0x2002.
int32_t ACP_Firmup_Reply(const AcpRequest &request, int32_t variant);
int32_t ACP_Firmup_Zeph_Reply(const AcpRequest &request, int32_t variant);

#endif  // BH_FIRMWARE_UPDATE_REQUEST_H_
