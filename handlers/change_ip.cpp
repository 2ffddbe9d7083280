// Each of the two phases around the reply takes the configuration lock by itself. So the reply goes
// out before anything slow begins, from the interface's old address.

#include "handlers/change_ip.h"

#include <netinet/in.h>
#include <syslog.h>

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <span>
#include <string>

#include "access/command_mode.h"
#include "acp/body.h"
#include "acp/reply.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/address.h"
#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/text.h"

namespace {

constexpr int32_t DHCPS_OFF = 0;
constexpr int32_t DHCPS_ON = 1;

struct IdentityChange {
  uint16_t flag;
  uint32_t change_mask;  // AcpChange
  in_addr address;
  in_addr netmask;
  std::string host_name;
  std::string workgroup;
  DateTime date_time;
  in_addr gateway;
  int32_t time_zone;  // minutes
};

// What has to be done after the reply.
struct Aftermath {
  IfInfo record;    // of the served interface
  int32_t checked;  // result of the record's check
  bool restart_network, restart_samba, restart_atalk;
};

std::string FieldText(std::span<const char> field) {
  return {field.begin(), std::find(field.begin(), field.end(), '\0')};
}

// Flag and mask go into the trace also of a request that is too short for the rest.
IdentityChange ReadChange(std::span<const uint8_t> body) {
  const auto record = BodyRecord<ChangeIpRequest>(body);
  const auto number = [](uint16_t field) { return static_cast<int16_t>(field); };
  IdentityChange change = {};
  change.flag = BodyU16(body, offsetof(ChangeIpRequest, flag));
  change.change_mask = BodyU32(body, offsetof(ChangeIpRequest, change_mask));
  change.address = AddressOf(record.address);
  change.netmask = AddressOf(record.netmask);
  change.host_name = FieldText(record.host_name);
  change.workgroup = FieldText(record.workgroup);
  change.date_time = {number(record.year), number(record.month),  number(record.day),
                      number(record.hour), number(record.minute), number(record.second)};
  change.gateway = AddressOf(record.gateway);
  change.time_zone = record.time_zone;
  return change;
}

bool Asks(const IdentityChange &change, uint32_t bit) {
  return (change.change_mask & bit) != 0;
}

int32_t SendTracedResult(const AcpRequest &request, uint32_t result) {
  const int32_t sent = SendState(request, ACP_CHANGE_IP_REPLY, result);
  DebugPrint("SendPacket ACP_CHANGE_IP_REPLY result=%d\n", sent);
  return sent;
}

int32_t ChangeLiveAddress(const AcpRequest &request, const IdentityChange &change) {
  int32_t result = -1;
  if (Asks(change, CHANGE_MASK_IP)) {
    const int32_t status =
        libbh_SetIfconfig(daemon_state.ifname.c_str(), Dotted(change.address).c_str(),
                          Dotted(change.netmask).c_str());
    result = status == 0 ? 0 : -1;
  }
  DebugPrint("libbh_SetIfconfig() result=%d\n", result);
  SendTracedResult(request, static_cast<uint32_t>(result));
  return result;
}

void SetNames(const IdentityChange &change, Aftermath &after) {
  if (Asks(change, CHANGE_MASK_HOSTNAME)) {
    libbh_SetApHostName(0, change.host_name.c_str(), 0, daemon_state.ifname.c_str());
    after.restart_network = after.restart_samba = after.restart_atalk = true;
    DebugPrint("libbh_SetApHostName().\n");
  }
  if (Asks(change, CHANGE_MASK_WORKGROUP)) {
    libbh_SetGroupName(0, change.workgroup.c_str(), 0);
    after.restart_samba = true;
    DebugPrint("libbh_SetGroupName().\n");
  }
}

void SetClock(const IdentityChange &change) {
  if (Asks(change, CHANGE_MASK_DATETIME)) {
    libbh_SetDateAndTime(0, &change.date_time);
    DebugPrint("libbh_SetDateAndTime(). year=%d month=%d\n", change.date_time.year,
               change.date_time.month);
  }
  if (Asks(change, CHANGE_MASK_TIMEZONE)) {
    libbh_SetTimeZone(change.time_zone);
    DebugPrint("Set tmiezone. time_zone=%ld\n", static_cast<long>(change.time_zone));
  }
}

void SwitchToDhcp(const IdentityChange &change, IfInfo &record) {
  DebugPrint("acpip->flag & FLAG_DHCP == TRUE\n");
  record.mode = MODE_DHCP;
  libbh_StopDhcpClient(daemon_state.ifname.c_str());
  // The trace claims that the present addresses were read; the request's zeros are used all the
  // same.
  if (change.address.s_addr == 0 && change.netmask.s_addr == 0) DebugPrint("libbh_GetIfInfo().E\n");
}

// Fills the interface's record and checks it.
void CheckAddress(const IdentityChange &change, Aftermath &after) {
  after.restart_network = after.restart_samba = after.restart_atalk = true;
  if ((change.flag & FLAG_DHCP) != 0) SwitchToDhcp(change, after.record);
  const char *const ifname = daemon_state.ifname.c_str();
  DebugPrint("libbh_SetIfInfo() ifname=%s\n", ifname);
  CopyToField(after.record.name, sizeof(after.record.name), ifname);
  after.record.addr = SocketAddress(change.address);
  after.record.netmask = SocketAddress(change.netmask);
  DebugPrint("IP address = %s\n", Dotted(change.address).c_str());
  DebugPrint("Netmask    = %s\n", Dotted(change.netmask).c_str());
  after.checked = libbh_SetIfInfo(1, &after.record);
  DebugPrint("libbh_SetIfInfo() result=%d\n", after.checked);
}

// Returns what the client is told.
int32_t StoreSettings(const IdentityChange &change, Aftermath &after) {
  int32_t result = libbh_lock() == NOW_LOCKING ? -1 : 0;
  SetNames(change, after);
  SetClock(change);
  if (Asks(change, CHANGE_MASK_IP)) {
    CheckAddress(change, after);
    result = after.checked == 0 ? 0 : -1;
  }
  if (Asks(change, FLAG_CHANGE_INIT)) {
    libbh_SetConfigValue(STATE_FILE, INITIALIZED_KEY, "1");
    DebugPrint("acpip->flag & FLAG_CHANGE_INIT.E\n");
  }
  libbh_unlock();
  return result;
}

void ChangeAddressAndGateway(const IdentityChange &change, const Aftermath &after) {
  const bool has_dhcp_server = libbh_GetDHCPServerMode() == DHCPS_ON;
  if (has_dhcp_server) {
    DebugPrint("libbh_GetDHCPServerMode() == DHCPS_ON\n");
    libbh_SetDHCPServerMode(DHCPS_OFF, 0, &after.record);
  }
  // A bad record is refused here as well; one that was never looked at, because another process had
  // the lock, must not be taken after the client was told so.
  if (Asks(change, CHANGE_MASK_IP) && after.checked != NOT_LOCKED)
    libbh_SetIfInfo(0, &after.record);
  if (Asks(change, CHANGE_MASK_GATEWAY)) {
    libbh_SetDefaultGateway(daemon_state.ifname.c_str(), 0, &change.gateway.s_addr);
  }
  if (has_dhcp_server && libbh_SetDHCPServerMode(DHCPS_ON, 1, &after.record) == 0)
    libbh_SetDHCPServerMode(DHCPS_OFF, 1, &after.record);
}

void RestartServices(const Aftermath &after) {
  if (after.restart_network) libbh_RestartNetwork(daemon_state.ifname.c_str());
  if (after.restart_samba) libbh_RestartSamba();
  if (after.restart_atalk) libbh_RestartAtalk();
}

int32_t ChangeIdentity(const AcpRequest &request, const IdentityChange &change) {
  Aftermath after = {};
  const int32_t stored = StoreSettings(change, after);
  int32_t result = SendTracedResult(request, static_cast<uint32_t>(stored));
  if (libbh_lock() == NOW_LOCKING) result = -1;
  ChangeAddressAndGateway(change, after);
  RestartServices(after);
  libbh_unlock();
  DebugPrint("ACP_Change_IP_Reply() end. result=%d\n", result);
  return result;
}

int32_t Refuse(const AcpRequest &request, uint32_t state) {
  SendState(request, ACP_CHANGE_IP_REPLY, state);
  return -1;
}

}  // namespace

int32_t IsBusy() {
  static constexpr struct {
    const char *lock_file, *trace;
  } WORKS[] = {{"/var/lock/zero_filling", "now zero_filling.\n"},
               {"/var/lock/disk", "now formatting hdd.\n"},
               {"/var/lock/mkraid", "now creating RAID.\n"}};
  for (const auto &work : WORKS) {
    if (!FileExists(work.lock_file)) continue;
    DebugPrint("%s", work.trace);
    return 1;
  }
  return 0;
}

int32_t ACP_Change_IP_Reply(const AcpRequest &request) {
  const std::span<const uint8_t> body = RequestBody(request);
  const IdentityChange change = ReadChange(body);
  DebugPrint("\r\n%06x: %s %s", static_cast<uint32_t>(time(nullptr)), TRACE_DASH_RULE,
             "-> ACP_Chenge_IP_Reply\r\n");
  DebugPrint("flag=0x%04x\n", change.flag);
  DebugPrint("change_mask=0x%08x\n", change.change_mask);

  if (CheckEnabledClient(request) < 0 || daemon_state.password_verified < 0) {
    syslog(LOG_NOTICE, "IP change Password Wrong\n");
    return Refuse(request, ACP_STATE_PASSWORD_ERROR);
  }
  if (IsBusy() != 0) {
    syslog(LOG_NOTICE, "IP change is blocked.");
    return Refuse(request, ACP_STATE_FAILURE);
  }
  if (body.size() < sizeof(ChangeIpRequest)) {
    DebugPrint("acpip is too short. len=%d\n", static_cast<int32_t>(body.size()));
    return Refuse(request, ACP_STATE_FAILURE);
  }
  if (libbh_GetProductState() == PRODUCT_STATE_EMERGENCY) return ChangeLiveAddress(request, change);
  return ChangeIdentity(request, change);
}
