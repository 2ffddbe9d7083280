// The appliance answers before it takes the new address, and checks little. So the client checks
// before and after.

#include "client/identity.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "client/credentials.h"
#include "client/format.h"
#include "client/hints.h"

namespace acp {
namespace {

constexpr size_t MAX_NAME = 16;  // bytes of a host name or workgroup, on the wire
constexpr uint32_t LOOPBACK = 127;
constexpr uint32_t FIRST_MULTICAST = 224;

constexpr std::chrono::seconds MAX_CLOCK_DIFFERENCE{120};

constexpr const char *CHANGE_FAILED_HINT =
    "a disk is being formatted, another program is changing the settings, or the address is not "
    "usable; the other settings may have changed";
constexpr const char *EMERGENCY_HINT = "the emergency system is running; it supports only --ip";

Outcome Invalid(const std::string &message) {
  return Failure(Result::INVALID, message);
}

bool IsContiguous(uint32_t netmask) {
  const uint32_t hosts = ~netmask;
  return (hosts & (hosts + 1)) == 0;
}

Outcome CheckNetmask(uint32_t netmask) {
  if (!IsContiguous(netmask))
    return Invalid("netmask " + AddressText(netmask) + " has ones behind a zero");
  if (netmask == 0 || ~netmask <= 1)
    return Invalid("netmask " + AddressText(netmask) + " leaves no network with hosts");
  return {};
}

Outcome CheckHost(const char *what, uint32_t address, uint32_t netmask) {
  const std::string text = std::string(what) + " " + AddressText(address);
  const uint32_t first = address >> 24;
  if (first == 0 || first == LOOPBACK || first >= FIRST_MULTICAST)
    return Invalid(text + " is no address of a host");
  if ((address & 0xFF) == 0xFF)
    return Invalid(text + " ends with 255, which the appliance refuses");
  if ((address & ~netmask) == 0) return Invalid(text + " is the address of the network itself");
  if ((address | netmask) == UINT32_MAX)
    return Invalid(text + " is the broadcast address of its network");
  return {};
}

// Address 0 removes the gateway.
Outcome CheckGateway(const IdentityChange &change, uint32_t address, uint32_t netmask) {
  if (change.gateway.value_or(0) == 0) return {};
  if (((address ^ *change.gateway) & netmask) != 0)
    return Invalid("gateway " + AddressText(*change.gateway) + " is not in the network of " +
                   AddressText(address) + " with netmask " + AddressText(netmask));
  if (*change.gateway == address)
    return Invalid("the gateway cannot be the appliance's own address");
  return CheckHost("gateway", *change.gateway, netmask);
}

Outcome CheckAddresses(const IdentityChange &change) {
  if (!change.address) return {};
  Outcome outcome = CheckNetmask(change.netmask);
  if (outcome.IsDone()) outcome = CheckHost("address", *change.address, change.netmask);
  return outcome.IsDone() ? CheckGateway(change, *change.address, change.netmask) : outcome;
}

bool IsNameCharacter(char character) {
  return isalnum(static_cast<unsigned char>(character)) != 0 || character == '-';
}

Outcome CheckHostName(const std::string &name) {
  if (name.empty()) return {};
  const bool valid = name.size() <= MAX_NAME && name.front() != '-' && name.back() != '-' &&
                     std::all_of(name.begin(), name.end(), IsNameCharacter);
  if (valid) return {};
  return Invalid("the host name must have 1 to " + std::to_string(MAX_NAME) +
                 " letters, digits and '-', and no '-' at its start or end");
}

bool IsControl(char character) {
  return static_cast<unsigned char>(character) < ' ' || character == '\x7F';
}

Outcome CheckWorkgroup(const std::string &name) {
  if (name.empty()) return {};
  if (name.size() <= MAX_NAME && name.front() != '-' &&
      std::none_of(name.begin(), name.end(), IsControl))
    return {};
  return Invalid("the workgroup must have 1 to " + std::to_string(MAX_NAME) +
                 " bytes, no control characters, and no '-' at the start");
}

uint32_t ChangeMask(const IdentityChange &change) {
  uint32_t mask = 0;
  if (ChangesAddress(change)) mask |= CHANGE_MASK_IP;
  if (!change.host_name.empty()) mask |= CHANGE_MASK_HOSTNAME;
  if (!change.workgroup.empty()) mask |= CHANGE_MASK_WORKGROUP;
  if (change.time || change.now) mask |= CHANGE_MASK_DATETIME;
  if (change.initialized) mask |= FLAG_CHANGE_INIT;
  if (change.gateway) mask |= CHANGE_MASK_GATEWAY;
  if (change.timezone) mask |= CHANGE_MASK_TIMEZONE;
  return mask;
}

DateTime LocalTime() {
  const time_t now = time(nullptr);
  tm local = {};
  localtime_r(&now, &local);
  const auto number = [](int value) { return static_cast<uint16_t>(value); };
  return {number(local.tm_year + 1900), number(local.tm_mon + 1),
          number(local.tm_mday),        number(local.tm_hour),
          number(local.tm_min),         number(std::min(local.tm_sec, 59))};
}

// Fields outside the mask stay zero.
ChangeIpRequest ChangeRecord(const IdentityChange &change) {
  const DateTime time = change.now ? LocalTime() : change.time.value_or(DateTime());
  ChangeIpRequest record = {};
  record.flag = change.dhcp ? FLAG_DHCP : 0;
  record.change_mask = ChangeMask(change);
  record.address = change.address.value_or(0);
  record.netmask = change.netmask;
  change.host_name.copy(record.host_name, sizeof(record.host_name) - 1);
  change.workgroup.copy(record.workgroup, sizeof(record.workgroup) - 1);
  record.year = time.year;
  record.month = time.month;
  record.day = time.day;
  record.hour = time.hour;
  record.minute = time.minute;
  record.second = time.second;
  record.gateway = change.gateway.value_or(0);
  record.time_zone = change.timezone.value_or(0);
  return record;
}

bool IsEmergency(const Session &session) {
  return session.info.product_state == PRODUCT_STATE_EMERGENCY;
}

std::string ChangeHint(const Session &session, uint32_t state) {
  if (state == ACP_STATE_PASSWORD_ERROR) return NotVerifiedHint(session);
  if (state != ACP_STATE_FAILURE) return "";
  return IsEmergency(session) ? EMERGENCY_HINT : CHANGE_FAILED_HINT;
}

// Seconds of a calendar without time zones, for differences only.
int64_t Seconds(const DateTime &time) {
  tm parts = {};
  parts.tm_year = time.year - 1900;
  parts.tm_mon = time.month - 1;
  parts.tm_mday = time.day;
  parts.tm_hour = time.hour;
  parts.tm_min = time.minute;
  parts.tm_sec = time.second;
  return timegm(&parts);
}

std::string TimeText(const DateTime &time) {
  char text[40];
  snprintf(text, sizeof(text), "%04u-%02u-%02u %02u:%02u:%02u", time.year, time.month, time.day,
           time.hour, time.minute, time.second);
  return text;
}

using Missing = std::vector<NotTaken>;

void CompareAddress(const char *setting, uint32_t wanted, uint32_t found, Missing &missing) {
  if (wanted != found) missing.push_back({setting, AddressText(wanted), AddressText(found)});
}

// Fields of the reply are shorter than the request's.
void CompareName(const char *setting, const std::string &wanted, const std::string &found,
                 size_t capacity, Missing &missing) {
  if (!wanted.empty() && wanted.substr(0, capacity) != found)
    missing.push_back({setting, wanted, found});
}

void CompareTime(const DateTime &wanted, const DiscoverInfo &info, Missing &missing) {
  const DateTime found = {info.year, info.month, info.day, info.hour, info.minute, info.second};
  if (std::abs(Seconds(found) - Seconds(wanted)) > MAX_CLOCK_DIFFERENCE.count())
    missing.push_back({"time", TimeText(wanted), TimeText(found)});
}

Missing Compare(const IdentityChange &change, const DiscoverInfo &info) {
  Missing missing;
  if (change.address && !change.dhcp) {
    CompareAddress("address", *change.address, info.address, missing);
    CompareAddress("netmask", change.netmask, info.netmask, missing);
  }
  if (change.gateway) CompareAddress("gateway", *change.gateway, info.gateway, missing);
  CompareName("host name", change.host_name, FieldText(info.host_name), sizeof(info.host_name),
              missing);
  CompareName("workgroup", change.workgroup, FieldText(info.workgroup), sizeof(info.workgroup),
              missing);
  // With a new zone, local time is another.
  if (!change.timezone && (change.time || change.now))
    CompareTime(change.now ? LocalTime() : *change.time, info, missing);
  if (change.initialized && (info.status & DISCOVER_INITIALIZED) == 0)
    missing.push_back({"initialized", "yes", "no"});
  return missing;
}

}  // namespace

Outcome CheckIdentity(const IdentityChange &change) {
  Outcome outcome = CheckAddresses(change);
  if (outcome.IsDone()) outcome = CheckHostName(change.host_name);
  return outcome.IsDone() ? CheckWorkgroup(change.workgroup) : outcome;
}

bool ChangesAddress(const IdentityChange &change) {
  return change.dhcp || change.address;
}

Request MakeChangeRequest(const IdentityChange &change) {
  return {ACP_CHANGE_IP, ACP_CHANGE_IP_REPLY, 0, BodyOf(ChangeRecord(change))};
}

// A request for DHCP has address 0, which the emergency system would use.
Outcome ChangeIdentity(const Scope &scope, const Session &session, const IdentityChange &change) {
  if (IsEmergency(session) && change.dhcp)
    return {Result::REFUSED, "the emergency system is running, which does not support DHCP", "",
            ACP_STATE_OK, ""};
  if (!change.address && !change.dhcp && session.info.address != 0) {
    Outcome checked = CheckGateway(change, session.info.address, session.info.netmask);
    if (!checked.IsDone()) return checked;
  }
  Answer answer;
  Outcome outcome = AskOne(SessionScope(scope, session), MakeChangeRequest(change), answer);
  if (outcome.result == Result::NO_ANSWER) outcome.hint = MAYBE_DONE;
  if (!outcome.IsDone()) return outcome;
  if (answer.state != ACP_STATE_OK) return Refusal(answer.state, ChangeHint(session, answer.state));
  if (IsEmergency(session) && ChangeMask(change) != CHANGE_MASK_IP && scope.warn)
    scope.warn(EMERGENCY_HINT);
  return {};
}

Outcome VerifyIdentity(const Scope &scope, const Session &session, const IdentityChange &change,
                       std::vector<NotTaken> &missing, DiscoverInfo &found) {
  Answer answer;
  Outcome outcome = AskOne(SessionScope(scope, session), MakeDiscoverRequest(), answer);
  if (!outcome.IsDone()) return outcome;
  found = ReadDiscoverInfo(answer.body);
  missing = Compare(change, found);
  return outcome;
}

}  // namespace acp
