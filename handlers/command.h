// Remote commands: the enabled client runs a command on the appliance, and fetches what it printed.

#ifndef BH_HANDLERS_COMMAND_H_
#define BH_HANDLERS_COMMAND_H_

#include <cstdint>

#include "acp/request.h"

// ACP_CMD: runs the command in one of four ways, which the record in acp/packet.h tells. Returns 0.
int32_t ACP_command_reply(const AcpRequest &request);

// ACP_RESULT: sends the first line of the result file and takes it off the file. Returns 0, or -1
// with no reply when there is no memory.
int32_t ACP_result_reply(const AcpRequest &request);

#endif  // BH_HANDLERS_COMMAND_H_
