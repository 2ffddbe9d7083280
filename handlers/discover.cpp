// Nothing is cached: kernel tables, settings files, markers and clock are read for every request,
// so that the reply shows the appliance as it is now.

#include "handlers/discover.h"

#include <arpa/inet.h>

#include <cstring>
#include <ctime>
#include <string_view>
#include <utility>

#include "access/keys.h"
#include "acp/reply.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "daemon/version.h"
#include "lib/codes.h"
#include "lib/libbh.h"
#include "lib/text.h"

namespace {

constexpr const char *MAC_INTERFACE = "eth0";  // whichever interface is served

constexpr int32_t TIMER_SLEEP = 2;
constexpr int32_t TIMER_BACKUP = 3;

constexpr char EMERGENCY_BUILD_DATE[] = "0000/0/0 0:00:00";
constexpr char EMERGENCY_SUB_VERSION[] = "HDD 0.0";

constexpr size_t TEXT_CAPACITY = 256;
using TextGetter = int32_t (*)(char *buffer, int32_t size);

// A value as long as the field or longer is cut to it, without a NUL.
template <size_t SIZE>
void FillText(char (&field)[SIZE], std::string_view text) {
  text.copy(field, SIZE);
}

template <size_t SIZE>
void FillText(char (&field)[SIZE], TextGetter getter) {
  char text[TEXT_CAPACITY] = "";
  getter(text, sizeof(text));
  FillText(field, std::string_view(text));
}

bool IsInitialized() {
  const HeapText value(libbh_GetConfigValue(STATE_FILE, INITIALIZED_KEY));
  return value && strcmp(value.get(), "1") == 0;
}

uint32_t StatusBits(const IfInfo &record) {
  uint32_t status = 0;
  const int32_t timer = libbh_GetTimerStatus();
  if (timer == TIMER_SLEEP) status |= DISCOVER_TIMER_SLEEP;
  if (timer == TIMER_BACKUP) status |= DISCOVER_TIMER_BACKUP;
  if (libbh_GetDHCPServerMode() != 0) status |= DISCOVER_DHCP_SERVER;
  if (record.mode == MODE_DHCP && record.lease.valid != 0) status |= DISCOVER_DHCP_LEASE;
  if (IsInitialized()) status |= DISCOVER_INITIALIZED;
  return status;
}

void FillNetwork(DiscoverInfo &info) {
  IfInfo record = {};
  if (CopyToField(record.name, sizeof(record.name), daemon_state.ifname.c_str()))
    libbh_GetIfInfo(&record, 1);
  info.address = ntohl(record.addr.sin_addr.s_addr);
  info.netmask = ntohl(record.netmask.sin_addr.s_addr);
  info.status = StatusBits(record);
}

void FillKey(DiscoverInfo &info, const AcpRequest &request) {
  const uint32_t key = IssueKey(RequesterMac(request));
  for (size_t i = 0; i < sizeof(info.key); ++i)
    info.key[i] = static_cast<uint8_t>(key >> (24 - 8 * i));
}

void FillSystem(DiscoverInfo &info) {
  uint16_t version = 0;
  libbh_GetVersion(&version);
  info.product_id = daemon_state.product_id;
  info.system_major = static_cast<uint8_t>(version >> 8);
  info.system_minor = static_cast<uint8_t>(version);
  FillText(info.system_sub_version, libbh_GetSubVersion);
  FillText(info.system_build_date, libbh_GetBuildDate);
  info.product_state = static_cast<uint8_t>(libbh_GetProductState());
}

void FillInstalledFirmware(DiscoverInfo &info) {
  uint16_t version = 0;
  libbh_GetReleaseVersion(&version);
  info.firmware_major = static_cast<uint8_t>(version >> 8);
  info.firmware_minor = static_cast<uint8_t>(version);
  FillText(info.firmware_sub_version, libbh_GetReleaseSubVersion);
  FillText(info.firmware_build_date, libbh_GetReleaseBuildDate);
}

// The emergency system has no firmware of its own: the product stands for it.
void FillEmergencyFirmware(DiscoverInfo &info) {
  info.firmware_major = static_cast<uint8_t>(daemon_state.product_id);
  FillText(info.firmware_build_date, std::string_view(EMERGENCY_BUILD_DATE));
  FillText(info.firmware_sub_version, std::string_view(EMERGENCY_SUB_VERSION));
}

void CopySystemToFirmware(DiscoverInfo &info) {
  info.firmware_major = info.system_major;
  info.firmware_minor = info.system_minor;
  memcpy(info.firmware_build_date, info.system_build_date, sizeof(info.firmware_build_date));
  memcpy(info.firmware_sub_version, info.system_sub_version, sizeof(info.firmware_sub_version));
}

void FillFirmware(DiscoverInfo &info) {
  if (info.product_state == PRODUCT_STATE_NORMAL)
    FillInstalledFirmware(info);
  else if (info.product_state == PRODUCT_STATE_EMERGENCY)
    FillEmergencyFirmware(info);
  else
    CopySystemToFirmware(info);
}

// Of several default routes the last one counts.
void FillGateway(DiscoverInfo &info) {
  RouteEntry *routes = nullptr;
  libbh_GetRouteTable(&routes);
  for (const RouteEntry *route = routes; route != nullptr; route = route->next) {
    if (route->destination.sin_addr.s_addr != 0) continue;
    info.gateway = ntohl(route->gateway.sin_addr.s_addr);
    DebugPrint("  gateway = 0x%x\r\n", route->gateway.sin_addr.s_addr);
  }
  libbh_FreeRouteList(routes);
}

void FillClock(DiscoverInfo &info) {
  DateTime now = {};
  libbh_GetDateAndTime(&now);
  info.year = static_cast<uint16_t>(now.year);
  info.month = static_cast<uint16_t>(now.month);
  info.day = static_cast<uint16_t>(now.day);
  info.hour = static_cast<uint16_t>(now.hour);
  info.minute = static_cast<uint16_t>(now.minute);
  info.second = static_cast<uint16_t>(now.second);
}

}  // namespace

int32_t ACP_Discover_Reply(const AcpRequest &request) {
  DebugPrint("\r\n%06x: %s %s", static_cast<uint32_t>(time(nullptr)), TRACE_DASH_RULE,
             "-> ACP_Discover_Reply\r\n");
  Reply reply = AllocateReply(sizeof(DiscoverInfo));
  if (!reply.bytes) {
    DebugPrint("ACP_Discover_Reply fail to allocate Memory\r\n");
    return -1;
  }
  DiscoverInfo info = {};
  FillNetwork(info);
  FillKey(info, request);
  FillText(info.host_name, libbh_GetHostName);
  FillText(info.workgroup, libbh_GetGroupName);
  FillText(info.product_name, libbh_GetProductName);
  FillSystem(info);
  FillFirmware(info);
  libbh_GetMacAddress(MAC_INTERFACE, info.eth0_mac);
  FillGateway(info);
  info.daemon_version = DAEMON_VERSION;
  FillClock(info);
  PutBody(reply, info);
  SendReply(request, std::move(reply), ACP_DISCOVER_REPLY, ACP_STATE_OK);
  return 0;
}
