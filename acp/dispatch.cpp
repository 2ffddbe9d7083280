// The way of a datagram: destination filter, conversion, validation, one table of commands.

#include "acp/dispatch.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <iterator>
#include <span>

#include "acp/convert.h"
#include "acp/packet.h"
#include "daemon/process.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "firmware/update_end.h"
#include "firmware/update_request.h"
#include "handlers/change_ip.h"
#include "handlers/command.h"
#include "handlers/discover.h"
#include "handlers/special.h"
#include "handlers/status.h"
#include "lib/libbh.h"

namespace {

// A child makes the reply, so that it cannot harm the server. The server waits for this child only:
// others may live long, and their statuses are needed elsewhere.
int32_t AnswerPing(const AcpRequest &request) {
  const ChildSignalBlock block;
  const pid_t child = ForkChild();
  if (child == 0) {
    ACP_Ping_Reply(request);
    close(request.sock);
    _exit(0);
  }
  if (child > 0) WaitForChild(child, nullptr);
  return 0;
}

int32_t StartUpdate(const AcpRequest &request) {
  const int32_t variant = RequestHeader(request).command == ACP_FIRMUP3 ? 3 : 2;
  daemon_state.firm_down_chpid = is_zeph_product() ? ACP_Firmup_Zeph_Reply(request, variant)
                                                   : ACP_Firmup_Reply(request, variant);
  return 0;
}

int32_t EndUpdate(const AcpRequest &request) {
  return ACP_firmup_end_reply(request, daemon_state.firm_down_chpid);
}

struct Command {
  uint16_t code;
  const char *notice;  // to syslog before the trace line; may be null
  const char *trace;
  int32_t (*handler)(const AcpRequest &request);  // null: traced, never answered
};

constexpr char UPDATE_START[] = "Firmware Update start.\n";
constexpr char UPDATE_END[] = "Firmware Update end.\n";

const Command COMMANDS[] = {
    {ACP_DISCOVER, nullptr, "-- ACP_DISCOVER_\r\n", ACP_Discover_Reply},
    {ACP_PING, nullptr, "-- ACP_PING\r\n", AnswerPing},
    {ACP_INFO, nullptr, "-- ACP_INFO\n", nullptr},
    {ACP_INFO_HDD, nullptr, "-- ACP_INFO_HDD\n", ACP_Info_HDD_Reply},
    {ACP_PART, nullptr, "-- ACP_PART\r\n", ACP_Partition_Reply},
    {ACP_CMD, nullptr, "-- ACP_CMD\r\n", ACP_command_reply},
    {ACP_RESULT, nullptr, "-- ACP_RESULT\r\n", ACP_result_reply},
    {ACP_INFO_RAID, nullptr, "-- ACP_INFO_RAID\n", ACP_Info_RAID_Reply},
    {ACP_CHANGE_IP, nullptr, "-- ACP_CHANGE_IP\r\n", ACP_Change_IP_Reply},
    {ACP_SPECIAL, nullptr, "-- ACP_SPECIAL\r\n", ACP_Special_Reply},
    {ACP_FIRMUP_END, UPDATE_END, "-- ACP_FIRMUP_END\r\n", EndUpdate},
    {ACP_FIRMUP2, UPDATE_START, "-- ACP_FIRMUP2\r\n", StartUpdate},
    {ACP_FIRMUP3, UPDATE_START, "-- ACP_FIRMUP3\r\n", StartUpdate},
    {ACP_DISCOVER_REPLY, nullptr, "-- ACP_DISCOVER_REPLY\r\n", nullptr},
};

bool IsZeroMac(const uint8_t *mac) {
  static constexpr uint8_t ZERO[MAC_SIZE] = {};
  return memcmp(mac, ZERO, MAC_SIZE) == 0;
}

// Read once; an interface without an address yet is asked again at the next datagram.
void FillOwnMac() {
  if (!IsZeroMac(daemon_state.own_mac)) return;
  libbh_GetMacAddress(daemon_state.ifname.c_str(), daemon_state.own_mac);
}

bool IsForThisAppliance(const AcpRequest &request) {
  static constexpr uint8_t BROADCAST[MAC_SIZE] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  const uint8_t *destination = request.packet + offsetof(ACPHeader, dst_mac);
  return memcmp(destination, daemon_state.own_mac, MAC_SIZE) == 0 ||
         memcmp(destination, BROADCAST, MAC_SIZE) == 0;
}

void ConvertToHost(AcpRequest &request) {
  const size_t received = static_cast<size_t>(request.recvlen);
  const size_t length = std::max(received, ACP_HEADER_SIZE);
  SwapAcpHeader(std::span(request.packet).first(length), Conversion::TO_HOST);
  const ACPHeader header = RequestHeader(request);
  if (header.command == ACP_CHANGE_IP_REPLY && header.option_size != 0)
    DebugPrint("ACP_CHANGE_IP_REPLY option swap\n");
}

// Makes every check, so that the trace shows all that is wrong.
bool IsValid(const AcpRequest &request, const ACPHeader &header) {
  const uint32_t length = static_cast<uint32_t>(request.recvlen);
  bool valid = true;
  if (length < MINIMUM_PACKET) {
    DebugPrint("** recvlen < MINIMUM_PACKET\r\n");
    valid = false;
  }
  if (header.packet_version < LOWEST_VERSION) {
    DebugPrint("** packet_version(%d) < LOWEST_VERSION \r\n",
               static_cast<int32_t>(header.packet_version));
    valid = false;
  }
  if (static_cast<uint32_t>(header.header_size) + header.option_size != length) {
    DebugPrint("** acph->header_size + acph->option_size != recvlen\r\n");
    valid = false;
  }
  return valid;
}

void RunCommand(const AcpRequest &request, uint16_t code) {
  const Command *command =
      std::find_if(std::begin(COMMANDS), std::end(COMMANDS),
                   [code](const Command &candidate) { return candidate.code == code; });
  if (command == std::end(COMMANDS)) {
    DebugPrint("Capture : Unknown (%x)\r\n", code);
    return;
  }
  if (command->notice != nullptr) syslog(LOG_NOTICE, "%s", command->notice);
  DebugPrint("%s", command->trace);
  if (command->handler != nullptr) command->handler(request);
}

}  // namespace

int32_t dispatch(AcpRequest &request) {
  FillOwnMac();
  if (!IsForThisAppliance(request)) return 0;
  ConvertToHost(request);
  DebugPrint("\r\n%06x: %s", static_cast<uint32_t>(time(nullptr)), TRACE_STAR_RULE);

  const ACPHeader header = RequestHeader(request);
  if (IsValid(request, header)) RunCommand(request, header.command);
  return 0;
}
