// The request that ends a firmware update: collects the upload, and installs it.

#ifndef BH_FIRMWARE_UPDATE_END_H_
#define BH_FIRMWARE_UPDATE_END_H_

#include <cstdint>

#include "acp/request.h"

// The request's `result` tells whether the client has sent the whole image; `child` is the
// receiver, 0 or less for none. Answers at once whether the image is accepted, and once more, when
// it is, what came of the installation. Returns 0 after one, -1 when the image was refused.
int32_t ACP_firmup_end_reply(const AcpRequest &request, int32_t child);

#endif  // BH_FIRMWARE_UPDATE_END_H_
