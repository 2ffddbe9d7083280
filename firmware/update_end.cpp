// The end of a firmware update. The receiver has ended before the image is looked at.

#include "firmware/update_end.h"

#include <cstring>

#include "acp/reply.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "firmware/image.h"
#include "firmware/install.h"
#include "firmware/receiver.h"
#include "lib/libbh.h"

namespace {

constexpr const char *VERIFIED_TARGET = "/dev/mtdblock1";

void CollectReceiver(uint32_t transfer_result, int32_t child) {
  if (transfer_result != 0) {
    StopReceiver(child);
    DebugPrint("kill(firm_down_chpid,SIGTERM). firm_down_chpid=%d\n", child);
  }
  if (child > 0) AwaitReceiver(child);
  DebugPrint("waitpid(firm_down_chpid,NULL,0).\n");
  StopReceiversBut(child);
}

int32_t Verify(uint32_t transfer_result) {
  const char *device = daemon_state.firm_dev;
  if (transfer_result != 0 || device == nullptr || strcmp(device, VERIFIED_TARGET) != 0) return 0;
  return verify_firmbinary(daemon_state.firm_chksum);
}

int32_t RefuseImage(const AcpRequest &request, uint32_t transfer_result, int32_t verify) {
  DebugPrint("verify_firmbinary() < 0 ACP_STATE_FAILURE result=%d verify=%d\n",
             static_cast<int32_t>(transfer_result), verify);
  SendState(request, ACP_FIRMUP_END_REPLY, ACP_STATE_FAILURE);
  libbh_unlock();
  RemoveSegment(FindImage());
  return -1;
}

// The server does not end in between: the client waits for the last reply.
void InstallImage(const AcpRequest &request) {
  daemon_state.installing = 1;
  const int32_t result = write_firm(daemon_state.firm_dev);
  libbh_unlock();  // which a successful flash installation has taken
  SendState(request, ACP_FIRMUP_FINISH_REPLY, static_cast<uint32_t>(result));
  DebugPrint("ACP_FIRMUP_FINISH_REPLY >>>>>>>>>>>>>>>>>>>>>>\n");
  daemon_state.installing = 0;
}

}  // namespace

int32_t ACP_firmup_end_reply(const AcpRequest &request, int32_t child) {
  DebugPrint("ACP_firmup_end_reply\n");
  const uint32_t transfer_result = RequestHeader(request).result;
  CollectReceiver(transfer_result, child);
  const int32_t verify = Verify(transfer_result);
  if (transfer_result != 0 || verify != 0) return RefuseImage(request, transfer_result, verify);
  SendState(request, ACP_FIRMUP_END_REPLY, ACP_STATE_OK);
  DebugPrint("ACP_FIRMUP_END_REPLY result=0x%08X >>>>>>>>>>>>>>>>>>>>>>\n",
             static_cast<unsigned>(ACP_STATE_OK));
  InstallImage(request);
  return 0;
}
