// Filter, validation and routing of received datagrams.

#ifndef BH_ACP_DISPATCH_H_
#define BH_ACP_DISPATCH_H_

#include <cstdint>

#include "acp/request.h"

// Drops what is not meant for this appliance or malformed, converts the rest to host order and
// runs the command's handler. `packet` holds the datagram in wire order, at least its first 32
// bytes being defined. Always returns 0.
int32_t dispatch(AcpRequest &request);

#endif  // BH_ACP_DISPATCH_H_
