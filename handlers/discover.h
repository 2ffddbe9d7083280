// Discovery: everything about the appliance in one reply, and the requester's key.

#ifndef BH_HANDLERS_DISCOVER_H_
#define BH_HANDLERS_DISCOVER_H_

#include <cstdint>

#include "acp/request.h"

// ACP_DISCOVER: sends the appliance's identity, read afresh. What cannot be read is empty or 0.
// Returns 0, or -1 with no reply when there is no memory.
int32_t ACP_Discover_Reply(const AcpRequest &request);

#endif  // BH_HANDLERS_DISCOVER_H_
