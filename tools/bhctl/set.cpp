// The appliance answers before it takes the new address, and checks little else. So bhctl checks
// the arguments.

#include "tools/bhctl/set.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <nlohmann/json.hpp>

#include "tools/bhctl/client.h"
#include "tools/bhctl/credentials.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/refusal.h"
#include "tools/bhctl/session.h"
#include "tools/bhctl/terminal.h"

namespace bhctl {
namespace {

constexpr size_t MAX_NAME = 16;      // bytes of a host name or workgroup
constexpr int32_t MAX_OFFSET = 840;  // minutes; no zone is farther from UTC
constexpr int FIRST_YEAR = 2001;     // that the appliance accepts

constexpr const char *CHANGE_FAILED_HINT =
    "a disk is being formatted, another program is changing the settings, or the address is not "
    "usable; the other settings may have changed";
constexpr const char *EMERGENCY_HINT = "the emergency system is running; it supports only --ip";
constexpr const char *ADDRESS_WARNING =
    "The appliance will no longer be reachable at its present address";

int ReadAddress(const Options &options, const char *name, std::optional<uint32_t> &address) {
  const std::string *text = Given(options, name);
  if (text == nullptr) return EXIT_DONE;
  address = ParseAddress(*text);
  if (address) return EXIT_DONE;
  return UsageFailure(std::string(name) + " must be an IPv4 address, not '" + SafeText(*text) +
                      "'");
}

int ReadAddresses(const Options &options, Settings &settings) {
  std::optional<uint32_t> netmask;
  int status = ReadAddress(options, "--ip", settings.address);
  if (status == EXIT_DONE) status = ReadAddress(options, "--netmask", netmask);
  if (status == EXIT_DONE) status = ReadAddress(options, "--gateway", settings.gateway);
  if (status != EXIT_DONE) return status;
  if (settings.address.has_value() != netmask.has_value())
    return UsageFailure("--ip and --netmask must be given together");
  settings.netmask = netmask.value_or(0);
  return EXIT_DONE;
}

bool IsControl(char character) {
  return static_cast<unsigned char>(character) < ' ' || character == '\x7F';
}

int ReadName(const Options &options, const char *option, std::string &name) {
  const std::string *text = Given(options, option);
  if (text == nullptr) return EXIT_DONE;
  name = *text;
  if (!name.empty() && name.size() <= MAX_NAME && name.front() != '-' &&
      std::none_of(name.begin(), name.end(), IsControl))
    return EXIT_DONE;
  return UsageFailure(std::string(option) + " must have 1 to " + std::to_string(MAX_NAME) +
                      " bytes, no control characters, and no '-' at the start");
}

int ReadTime(const Options &options, Settings &settings) {
  const std::string *text = Given(options, "--time");
  if (text == nullptr) return EXIT_DONE;
  settings.now = *text == "now";
  if (settings.now) return EXIT_DONE;
  settings.time = ParseDateTime(*text);
  if (settings.time && settings.time->year >= FIRST_YEAR) return EXIT_DONE;
  return UsageFailure("--time must be now or \"YYYY-MM-DD HH:MM:SS\" from " +
                      std::to_string(FIRST_YEAR) + " on, not '" + SafeText(*text) + "'");
}

int ReadTimezone(const Options &options, Settings &settings) {
  const std::string *text = Given(options, "--timezone");
  if (text == nullptr) return EXIT_DONE;
  int32_t minutes = 0;
  const char *end = text->data() + text->size();
  const auto [after, error] = std::from_chars(text->data(), end, minutes);
  settings.timezone = minutes;
  if (error == std::errc() && after == end && minutes >= -MAX_OFFSET && minutes <= MAX_OFFSET)
    return EXIT_DONE;
  return UsageFailure("--timezone must be a number of minutes from -" + std::to_string(MAX_OFFSET) +
                      " to " + std::to_string(MAX_OFFSET) + ", not '" + SafeText(*text) + "'");
}

int ReadSettings(const Options &options, Settings &settings) {
  settings.dhcp = Given(options, "--dhcp") != nullptr;
  settings.initialised = Given(options, "--initialised") != nullptr;
  int status = ReadAddresses(options, settings);
  if (status == EXIT_DONE) status = ReadName(options, "--hostname", settings.host_name);
  if (status == EXIT_DONE) status = ReadName(options, "--workgroup", settings.workgroup);
  if (status == EXIT_DONE) status = ReadTime(options, settings);
  if (status == EXIT_DONE) status = ReadTimezone(options, settings);
  if (status == EXIT_DONE && options.arguments.empty())
    return UsageFailure("nothing to change, see 'bhctl set --help'");
  return status;
}

bool ChangesAddress(const Settings &settings) {
  return settings.dhcp || settings.address;
}

uint32_t ChangeMask(const Settings &settings) {
  uint32_t mask = 0;
  if (ChangesAddress(settings)) mask |= CHANGE_MASK_IP;
  if (!settings.host_name.empty()) mask |= CHANGE_MASK_HOSTNAME;
  if (!settings.workgroup.empty()) mask |= CHANGE_MASK_WORKGROUP;
  if (settings.time) mask |= CHANGE_MASK_DATETIME;
  if (settings.initialised) mask |= FLAG_CHANGE_INIT;
  if (settings.gateway) mask |= CHANGE_MASK_GATEWAY;
  if (settings.timezone) mask |= CHANGE_MASK_TIMEZONE;
  return mask;
}

std::string QuestionText(const Settings &settings) {
  return settings.dhcp ? "set --dhcp" : "set --ip " + AddressText(settings.address.value_or(0));
}

bool IsEmergency(const Session &session) {
  return session.info.product_state == PRODUCT_STATE_EMERGENCY;
}

// A request for DHCP has address 0, which the emergency system would use.
int CheckSystem(const Session &session, const Settings &settings) {
  if (!IsEmergency(session) || !settings.dhcp) return EXIT_DONE;
  PrintError(MacText(session.mac) +
             " is running its emergency system, which does not support DHCP");
  return EXIT_REFUSED;
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

int ShowRefused(const Options &chosen, const Session &session, uint32_t state) {
  std::string hint;
  if (state == ACP_STATE_PASSWORD_ERROR)
    hint = NotVerifiedHint(session);
  else if (state == ACP_STATE_FAILURE)
    hint = IsEmergency(session) ? EMERGENCY_HINT : CHANGE_FAILED_HINT;
  return ShowRefusal(chosen, session.mac, state, hint);
}

int ShowDone(const Options &chosen, const Session &session, const Settings &settings) {
  if (chosen.json) {
    Json object = {{"mac", MacText(session.mac)}, {"state", StateName(ACP_STATE_OK)}};
    if (settings.address && !settings.dhcp) object["address"] = AddressText(*settings.address);
    PrintJson(object);
  } else if (settings.dhcp) {
    PrintLine("done; the appliance now requests an address by DHCP, see 'bhctl discover'");
  } else if (settings.address) {
    PrintLine("done; the appliance now takes the address " + AddressText(*settings.address));
  } else {
    PrintLine("done");
  }
  if (IsEmergency(session) && ChangeMask(settings) != CHANGE_MASK_IP) PrintError(EMERGENCY_HINT);
  return EXIT_DONE;
}

int AskChange(const Options &chosen, const Session &session, Settings &settings) {
  if (settings.now) settings.time = LocalTime();
  Answer answer;
  const int status = AskOne(chosen, MakeChangeRequest(settings), answer);
  if (status == EXIT_NO_ANSWER) PrintError(MAYBE_DONE);
  if (status != EXIT_DONE) return status;
  if (answer.state != ACP_STATE_OK) return ShowRefused(chosen, session, answer.state);
  return ShowDone(chosen, session, settings);
}

// Fields outside the mask stay zero.
ChangeIpRequest ChangeRecord(const Settings &settings) {
  const DateTime time = settings.time.value_or(DateTime());
  ChangeIpRequest record = {};
  record.flag = settings.dhcp ? FLAG_DHCP : 0;
  record.change_mask = ChangeMask(settings);
  record.address = settings.address.value_or(0);
  record.netmask = settings.netmask;
  settings.host_name.copy(record.host_name, sizeof(record.host_name) - 1);
  settings.workgroup.copy(record.workgroup, sizeof(record.workgroup) - 1);
  record.year = time.year;
  record.month = time.month;
  record.day = time.day;
  record.hour = time.hour;
  record.minute = time.minute;
  record.second = time.second;
  record.gateway = settings.gateway.value_or(0);
  record.time_zone = settings.timezone.value_or(0);
  return record;
}

}  // namespace

Request MakeChangeRequest(const Settings &settings) {
  return {ACP_CHANGE_IP, ACP_CHANGE_IP_REPLY, 0, BodyOf(ChangeRecord(settings))};
}

int Set(const Options &options) {
  Settings settings;
  Credentials credentials;
  int status = ReadSettings(options, settings);
  if (status == EXIT_DONE && ChangesAddress(settings))
    status = CheckConfirmable(options, QuestionText(settings));
  if (status == EXIT_DONE) status = ReadCredentials(options, credentials);
  if (status != EXIT_DONE) return status;
  Session session;
  status = OpenSession(options, SecretsOf(credentials), session);
  if (status != EXIT_DONE) return status;
  const Options chosen = SessionOptions(options, session);
  status = CheckSystem(session, settings);
  if (status == EXIT_DONE && ChangesAddress(settings))
    status = Confirm(chosen, session, QuestionText(settings), ADDRESS_WARNING);
  if (status == EXIT_DONE) status = AuthorizeOrReport(chosen, session, credentials);
  return status == EXIT_DONE ? AskChange(chosen, session, settings) : status;
}

}  // namespace bhctl
