// Command mode: one client at a time may run commands and change the appliance. It is known by its
// MAC address.

#ifndef BH_ACCESS_COMMAND_MODE_H_
#define BH_ACCESS_COMMAND_MODE_H_

#include <cstdint>

#include "acp/request.h"

// Admits the requester with this MAC (6 bytes) and no other.
void EnableCommandMode(const uint8_t *mac);

void DisableCommandMode();

// Returns 0 when command mode is enabled and the request comes from the client that enabled it,
// else -1.
int32_t CheckEnabledClient(const AcpRequest &request);

#endif  // BH_ACCESS_COMMAND_MODE_H_
