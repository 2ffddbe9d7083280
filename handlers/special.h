// Special commands: maintenance of the appliance and the production line's programming and tests,
// one a request.

#ifndef BH_HANDLERS_SPECIAL_H_
#define BH_HANDLERS_SPECIAL_H_

#include <cstdint>

#include "acp/request.h"

// ACP_SPECIAL: runs the command that the body's first byte tells and answers with its outcome. Most
// are over by then; commands that run a script have waited for it. Returns 0.
int32_t ACP_Special_Reply(const AcpRequest &request);

#endif  // BH_HANDLERS_SPECIAL_H_
