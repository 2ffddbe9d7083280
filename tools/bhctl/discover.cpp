// Each round sends one broadcast and shows all its answers together.

#include "tools/bhctl/discover.h"

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <thread>
#include <tuple>

#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *PRODUCT_STATE_NAMES[] = {"unknown", "normal", "emergency"};
constexpr const char *CHANGE_MARKS[] = {" ", "+", "-", "~"};  // by Change
constexpr const char *CHANGE_NAMES[] = {"none", "new", "gone", "moved"};

template <size_t SIZE>
std::string FieldCell(const char (&field)[SIZE]) {
  const std::string text = SafeText(FieldText(field));
  return text.empty() ? "-" : text;
}

std::string VersionText(unsigned int major, unsigned int minor) {
  return std::to_string(major) + "." + std::to_string(minor);
}

std::string TimeText(const DiscoverInfo &info, char separator) {
  char text[40];
  snprintf(text, sizeof(text), "%04u-%02u-%02u%c%02u:%02u:%02u", info.year, info.month, info.day,
           separator, info.hour, info.minute, info.second);
  return text;
}

std::string ProductStateName(uint8_t state) {
  return state < std::size(PRODUCT_STATE_NAMES) ? PRODUCT_STATE_NAMES[state]
                                                : std::to_string(state);
}

std::string StateCell(const DiscoverInfo &info) {
  std::string text = ProductStateName(info.product_state);
  if ((info.status & DISCOVER_INITIALIZED) == 0) text += ", not initialized";
  if ((info.status & DISCOVER_TIMER_SLEEP) != 0) text += ", sleep";
  if ((info.status & DISCOVER_TIMER_BACKUP) != 0) text += ", backup";
  return text;
}

std::string FirmwareCell(const DiscoverInfo &info) {
  const std::string version = VersionText(info.firmware_major, info.firmware_minor);
  const std::string sub_version = SafeText(FieldText(info.firmware_sub_version));
  return sub_version.empty() ? version : version + " (" + sub_version + ")";
}

std::vector<std::string> Row(const Appliance &appliance) {
  const DiscoverInfo &info = appliance.info;
  return {AddressText(info.address),
          AddressText(info.netmask),
          FieldCell(info.host_name),
          FieldCell(info.product_name),
          FirmwareCell(info),
          MacText(appliance.mac),
          (info.status & DISCOVER_DHCP_LEASE) != 0 ? "yes" : "no",
          StateCell(info),
          TimeText(info, ' ')};
}

void AddStatusJson(uint32_t status, Json &object) {
  object["status"] = status;
  object["dhcp"] = (status & DISCOVER_DHCP_LEASE) != 0;
  object["dhcp_server"] = (status & DISCOVER_DHCP_SERVER) != 0;
  object["initialized"] = (status & DISCOVER_INITIALIZED) != 0;
  object["timer_sleep"] = (status & DISCOVER_TIMER_SLEEP) != 0;
  object["timer_backup"] = (status & DISCOVER_TIMER_BACKUP) != 0;
}

void AddVersionsJson(const DiscoverInfo &info, Json &object) {
  object["firmware_major"] = info.firmware_major;
  object["firmware_minor"] = info.firmware_minor;
  object["product_id"] = info.product_id;
  object["firmware_build_date"] = FieldText(info.firmware_build_date);
  object["firmware_sub_version"] = FieldText(info.firmware_sub_version);
  object["system_major"] = info.system_major;
  object["system_minor"] = info.system_minor;
  object["product_state"] = ProductStateName(info.product_state);
  object["system_sub_version"] = FieldText(info.system_sub_version);
  object["system_build_date"] = FieldText(info.system_build_date);
}

void AddInfoJson(const DiscoverInfo &info, Json &object) {
  object["address"] = AddressText(info.address);
  object["netmask"] = AddressText(info.netmask);
  AddStatusJson(info.status, object);
  object["key"] = WordText(DiscoverKey(info));
  object["host_name"] = FieldText(info.host_name);
  object["workgroup"] = FieldText(info.workgroup);
  object["product_name"] = FieldText(info.product_name);
  object["daemon_version"] = VersionText(info.daemon_version >> 8, info.daemon_version & 0xFFU);
  object["time"] = TimeText(info, 'T');
  object["gateway"] = AddressText(info.gateway);
  AddVersionsJson(info, object);
  object["eth0_mac"] = MacText(std::to_array(info.eth0_mac));
}

void ShowJson(const Appliance &appliance, bool with_changes) {
  Json object;
  if (with_changes) object["change"] = CHANGE_NAMES[static_cast<size_t>(appliance.change)];
  object["mac"] = MacText(appliance.mac);
  object["state"] = StateName(appliance.state);
  if (appliance.state == ACP_STATE_OK) AddInfoJson(appliance.info, object);
  PrintJson(object);
}

void ShowTable(const std::vector<Appliance> &appliances, bool with_changes) {
  std::vector<std::vector<std::string>> rows = {
      {"ADDRESS", "NETMASK", "HOST NAME", "PRODUCT", "FIRMWARE", "MAC", "DHCP", "STATE", "TIME"}};
  if (with_changes) rows[0].insert(rows[0].begin(), " ");
  for (const Appliance &appliance : appliances) {
    if (appliance.state != ACP_STATE_OK) continue;
    rows.push_back(Row(appliance));
    if (!with_changes) continue;
    std::vector<std::string> &row = rows.back();
    row.insert(row.begin(), CHANGE_MARKS[static_cast<size_t>(appliance.change)]);
  }
  if (rows.size() > 1) PrintTable(rows);
}

bool ComesBefore(const Appliance &a, const Appliance &b) {
  return std::tie(a.info.address, a.mac) < std::tie(b.info.address, b.mac);
}

using ByMac = std::map<Mac, const Appliance *>;

ByMac Index(const std::vector<Appliance> &appliances) {
  ByMac index;
  for (const Appliance &appliance : appliances)
    index.emplace(appliance.mac, &appliance);
  return index;
}

const Appliance *Find(const ByMac &index, const Mac &mac) {
  const auto found = index.find(mac);
  return found == index.end() ? nullptr : found->second;
}

Change ChangeSince(const Appliance *before, const Appliance &now) {
  if (before == nullptr) return Change::NEW;
  const bool same = before->info.address == now.info.address &&
                    FieldText(before->info.host_name) == FieldText(now.info.host_name);
  return same ? Change::NONE : Change::MOVED;
}

// SIGINT is blocked during output, so no line is cut off.
void HoldInterrupt(int how) {
  sigset_t interrupt;
  sigemptyset(&interrupt);
  sigaddset(&interrupt, SIGINT);
  sigprocmask(how, &interrupt, nullptr);
}

void EndAtInterrupt() {
  struct sigaction action = {};
  action.sa_handler = [](int) { _exit(EXIT_DONE); };
  sigaction(SIGINT, &action, nullptr);
  HoldInterrupt(SIG_UNBLOCK);
}

// False if standard output cannot be written.
bool ShowRound(const std::vector<Appliance> &appliances, bool json) {
  HoldInterrupt(SIG_BLOCK);
  ShowAppliances(appliances, json, true);
  if (!json && !appliances.empty()) PrintLine("");
  const bool written = fflush(stdout) == 0 && ferror(stdout) == 0;
  HoldInterrupt(SIG_UNBLOCK);
  return written;
}

int Watch(const Options &options) {
  EndAtInterrupt();
  std::vector<Appliance> before;
  for (bool first = true;; first = false) {
    const Clock::time_point end = Clock::now() + options.timeout;
    std::vector<Answer> answers;
    const int status = Ask(options, MakeDiscoverRequest(), answers);
    if (first && status == EXIT_USAGE) return status;  // later, the interface may come back
    const std::vector<Appliance> now = AppliancesOf(answers);
    if (!ShowRound(Compare(before, now), options.json)) return EXIT_NO_ANSWER;
    before = now;
    std::this_thread::sleep_until(end);
  }
}

}  // namespace

std::vector<Appliance> AppliancesOf(const std::vector<Answer> &answers) {
  std::vector<Appliance> appliances;
  appliances.reserve(answers.size());
  for (const Answer &answer : answers)
    appliances.push_back({answer.mac, answer.state, ReadDiscoverInfo(answer.body)});
  std::sort(appliances.begin(), appliances.end(), ComesBefore);
  return appliances;
}

std::vector<Appliance> Compare(const std::vector<Appliance> &before, std::vector<Appliance> now) {
  const ByMac known = Index(before);
  const ByMac seen = Index(now);
  std::vector<Appliance> gone;
  for (const Appliance &earlier : before)
    if (Find(seen, earlier.mac) == nullptr) gone.push_back(earlier);
  for (Appliance &appliance : now)
    appliance.change = ChangeSince(Find(known, appliance.mac), appliance);
  for (Appliance &appliance : gone) {
    appliance.change = Change::GONE;
    now.push_back(appliance);
  }
  std::sort(now.begin(), now.end(), ComesBefore);
  return now;
}

int ShowAppliances(const std::vector<Appliance> &appliances, bool json, bool with_changes) {
  int status = EXIT_DONE;
  for (const Appliance &appliance : appliances) {
    if (appliance.state != ACP_STATE_OK) status = EXIT_REFUSED;
    if (json)
      ShowJson(appliance, with_changes);
    else if (appliance.state != ACP_STATE_OK)
      PrintError(MacText(appliance.mac) + " refused: " + StateName(appliance.state));
  }
  if (!json) ShowTable(appliances, with_changes);
  return status;
}

int Discover(const Options &options) {
  if (options.arguments.contains("--watch")) return Watch(options);
  std::vector<Answer> answers;
  const int status = Ask(options, MakeDiscoverRequest(), answers);
  if (status != EXIT_DONE) return status;
  return ShowAppliances(AppliancesOf(answers), options.json, false);
}

}  // namespace bhctl
