// A new network identity for the appliance in one request, answered before its address changes.

#ifndef BH_HANDLERS_CHANGE_IP_H_
#define BH_HANDLERS_CHANGE_IP_H_

#include <cstdint>

#include "acp/request.h"

// ACP_CHANGE_IP: stores or checks each setting that the request asks for, answers, and then changes
// the interface and the gateway and restarts the services concerned. On the emergency system only
// the interface's address changes, before the answer. Returns what the trace shows last: 0, or -1
// when the request was refused or something about its answer or the lock failed.
int32_t ACP_Change_IP_Reply(const AcpRequest &request);

// 1, with a word in the trace, while a disk is being worked on that the network's restart would
// disturb; else 0.
int32_t IsBusy();

#endif  // BH_HANDLERS_CHANGE_IP_H_
