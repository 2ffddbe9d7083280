// Each round sends broadcasts and shows all its answers together.

#include "tools/bhctl/discover.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <nlohmann/json.hpp>

#include "tools/bhctl/inventory.h"
#include "tools/bhctl/suggest.h"
#include "tools/bhctl/targets.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

using Clock = std::chrono::steady_clock;
using Rows = std::vector<std::vector<std::string>>;

constexpr const char *PRODUCT_STATE_NAMES[] = {"unknown", "normal", "emergency"};
constexpr const char *CHANGE_MARKS[] = {" ", "+", "-", "~"};  // by Change
constexpr const char *CHANGE_NAMES[] = {"none", "new", "gone", "moved"};
constexpr Tone CHANGE_TONES[] = {Tone::PLAIN, Tone::GOOD, Tone::BAD, Tone::WARNING};

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

std::string AddressCell(const Appliance &appliance) {
  return AddressText(appliance.info.address);
}

std::string NetmaskCell(const Appliance &appliance) {
  return AddressText(appliance.info.netmask);
}

std::string GatewayCell(const Appliance &appliance) {
  return appliance.info.gateway == 0 ? "-" : AddressText(appliance.info.gateway);
}

std::string NameCell(const Appliance &appliance) {
  return FieldCell(appliance.info.host_name);
}

std::string WorkgroupCell(const Appliance &appliance) {
  return FieldCell(appliance.info.workgroup);
}

std::string ProductCell(const Appliance &appliance) {
  return FieldCell(appliance.info.product_name);
}

std::string ProductIdCell(const Appliance &appliance) {
  return HexText(appliance.info.product_id);
}

std::string VersionCell(const Appliance &appliance) {
  return FirmwareCell(appliance.info);
}

std::string MacCell(const Appliance &appliance) {
  return MacText(appliance.answer.mac);
}

std::string DhcpCell(const Appliance &appliance) {
  return (appliance.info.status & DISCOVER_DHCP_LEASE) != 0 ? "yes" : "no";
}

Tone StateTone(const Appliance &appliance) {
  return appliance.info.product_state == PRODUCT_STATE_NORMAL ? Tone::GOOD : Tone::WARNING;
}

std::string ColoredStateCell(const Appliance &appliance) {
  return Toned(StateCell(appliance.info), StateTone(appliance));
}

// One word, for narrow tables.
std::string StatusCell(const Appliance &appliance) {
  const bool normal = appliance.info.product_state == PRODUCT_STATE_NORMAL;
  const bool initialized = (appliance.info.status & DISCOVER_INITIALIZED) != 0;
  const std::string text =
      normal && !initialized ? "uninitialized" : ProductStateName(appliance.info.product_state);
  return Toned(text, initialized ? StateTone(appliance) : Tone::WARNING);
}

std::string NumberCell(const Appliance &appliance) {
  return VersionText(appliance.info.firmware_major, appliance.info.firmware_minor);
}

std::string TimeCell(const Appliance &appliance) {
  return TimeText(appliance.info, ' ');
}

std::string DaemonCell(const Appliance &appliance) {
  return VersionText(appliance.info.daemon_version >> 8, appliance.info.daemon_version & 0xFFU);
}

std::string InterfaceCell(const Appliance &appliance) {
  return appliance.answer.interface;
}

struct Column {
  const char *name;   // on the command line
  const char *title;  // of the table
  std::string (*cell)(const Appliance &appliance);
};

constexpr Column COLUMNS[] = {
    {"address", "ADDRESS", AddressCell},
    {"netmask", "NETMASK", NetmaskCell},
    {"name", "HOST NAME", NameCell},
    {"product", "PRODUCT", ProductCell},
    {"firmware", "FIRMWARE", VersionCell},
    {"mac", "MAC", MacCell},
    {"dhcp", "DHCP", DhcpCell},
    {"state", "STATE", ColoredStateCell},
    {"version", "VERSION", NumberCell},
    {"status", "STATUS", StatusCell},
    {"time", "TIME", TimeCell},
    {"workgroup", "WORKGROUP", WorkgroupCell},
    {"gateway", "GATEWAY", GatewayCell},
    {"product-id", "PRODUCT ID", ProductIdCell},
    {"daemon", "DAEMON", DaemonCell},
    {"interface", "INTERFACE", InterfaceCell},
};
constexpr const char *SHORT = "address,name,version,mac,status";  // in 80 columns
constexpr const char *LONG = "address,netmask,name,product,firmware,mac,dhcp,state,time";

struct Layout {
  std::vector<const Column *> columns;
  const Column *sort = nullptr;  // null: by address
};

const Column *FindColumn(const std::string &name) {
  const auto *found = std::find_if(std::begin(COLUMNS), std::end(COLUMNS),
                                   [&](const Column &column) { return name == column.name; });
  return found == std::end(COLUMNS) ? nullptr : found;
}

int UnknownColumn(const std::string &name) {
  return UsageFailure("unknown column '" + SafeText(name) + "'" + Suggestion(name, ColumnNames()) +
                      "; see 'bhctl help discover'");
}

int ReadLayout(const Options &options, Layout &layout) {
  const std::string *given = Given(options, "--columns");
  std::string list = given != nullptr ? *given : Given(options, "--long") != nullptr ? LONG : SHORT;
  for (size_t begin = 0; begin <= list.size();) {
    const size_t end = std::min(list.find(',', begin), list.size());
    const std::string name = list.substr(begin, end - begin);
    layout.columns.push_back(FindColumn(name));
    if (layout.columns.back() == nullptr) return UnknownColumn(name);
    begin = end + 1;
  }
  const std::string *sort = Given(options, "--sort");
  if (sort == nullptr) return EXIT_DONE;
  layout.sort = FindColumn(*sort);
  return layout.sort == nullptr ? UnknownColumn(*sort) : EXIT_DONE;
}

void Sort(const Layout &layout, std::vector<Appliance> &appliances) {
  if (layout.sort == nullptr || layout.sort->cell == AddressCell) return;
  std::stable_sort(appliances.begin(), appliances.end(),
                   [&](const Appliance &a, const Appliance &b) {
                     return layout.sort->cell(a) < layout.sort->cell(b);
                   });
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

std::vector<std::string> TableRow(const Layout &layout, const Appliance &appliance,
                                  bool with_changes) {
  const auto change = static_cast<size_t>(appliance.change);
  std::vector<std::string> row;
  if (with_changes) row.push_back(Toned(CHANGE_MARKS[change], CHANGE_TONES[change]));
  for (const Column *column : layout.columns)
    row.push_back(column->cell(appliance));
  return row;
}

void ShowTable(const Layout &layout, const std::vector<Appliance> &appliances, bool with_changes) {
  Rows rows(1);
  if (with_changes) rows[0].emplace_back(" ");
  for (const Column *column : layout.columns)
    rows[0].emplace_back(column->title);
  for (const Appliance &appliance : appliances)
    if (appliance.answer.state == ACP_STATE_OK)
      rows.push_back(TableRow(layout, appliance, with_changes));
  if (rows.size() > 1) PrintTable(rows);
}

void ShowJson(const Appliance &appliance, bool with_change) {
  Json object;
  if (with_change) object["change"] = CHANGE_NAMES[static_cast<size_t>(appliance.change)];
  object.update(ApplianceJson(appliance));
  PrintJson(object);
}

int ShowAppliances(const Options &options, const Layout &layout,
                   const std::vector<Appliance> &appliances) {
  int status = EXIT_DONE;
  for (const Appliance &appliance : appliances) {
    if (appliance.answer.state != ACP_STATE_OK) status = EXIT_REFUSED;
    if (options.json)
      ShowJson(appliance, false);
    else if (appliance.answer.state != ACP_STATE_OK)
      PrintError(MacText(appliance.answer.mac) + " refused: " + StateName(appliance.answer.state));
  }
  if (!options.json) ShowTable(layout, appliances, false);
  return status;
}

std::string ClockText() {
  const time_t now = time(nullptr);
  tm local = {};
  char text[32] = "";
  localtime_r(&now, &local);
  strftime(text, sizeof(text), "%Y-%m-%d %H:%M:%S", &local);
  return text;
}

// The whole table anew, at the top of the terminal.
void Redraw(const Layout &layout, const std::vector<Appliance> &appliances) {
  PrintText("\x1B[H\x1B[J");
  PrintLine(ClockText() + "  " + std::to_string(appliances.size()) + " appliances");
  ShowTable(layout, appliances, true);
}

// Only what has changed, a line each.
void PrintChanges(const Options &options, const Layout &layout,
                  const std::vector<Appliance> &appliances) {
  Rows rows;
  for (const Appliance &appliance : appliances) {
    if (appliance.change == Change::NONE) continue;
    if (options.json) {
      Json object = {{"seen", ClockText()}};
      object["change"] = CHANGE_NAMES[static_cast<size_t>(appliance.change)];
      object.update(ApplianceJson(appliance));
      PrintJson(object);
      continue;
    }
    rows.push_back(TableRow(layout, appliance, true));
    rows.back().insert(rows.back().begin(), ClockText());
  }
  PrintTable(rows);
}

int Watch(const Options &options, const Layout &layout) {
  const bool redraw = isatty(STDOUT_FILENO) == 1 && !options.json;
  std::vector<Appliance> known;
  for (bool first = true; !IsCancelled(options.scope.cancel); first = false) {
    const Clock::time_point end = Clock::now() + options.scope.timeout;
    std::vector<Appliance> now;
    Outcome outcome = acp::Discover(options.scope, now);
    // Later, the interface may come back.
    if (first && outcome.result == acp::Result::INVALID) return UsageFailure(outcome.message);
    if (IsCancelled(options.scope.cancel)) break;
    known = Compare(known, now, MAX_SILENT);
    Sort(layout, known);
    if (redraw)
      Redraw(layout, known);
    else
      PrintChanges(options, layout, known);
    if (fflush(stdout) != 0 || ferror(stdout) != 0) return EXIT_NO_ANSWER;
    Pause(options.scope.cancel,
          std::max(std::chrono::microseconds(0),
                   std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now())));
  }
  return EXIT_INTERRUPTED;
}

int DiscoverTargets(const Options &options, const Layout &layout) {
  std::vector<Target> targets;
  const int status = ChooseTargets(options, targets);
  if (status != EXIT_DONE) return status;
  std::vector<Answer> answers;
  int result = EXIT_DONE;
  for (const Target &target : targets) {
    if (target.discovered) {
      answers.push_back(*target.discovered);
      continue;
    }
    PrintError("no answer from '" + SafeText(target.name) + "'");
    result = EXIT_REFUSED;
  }
  std::vector<Appliance> appliances = AppliancesOf(answers);
  Sort(layout, appliances);
  return std::max(result, ShowAppliances(options, layout, appliances));
}

}  // namespace

Json ApplianceJson(const Appliance &appliance) {
  Json object = {{"mac", MacText(appliance.answer.mac)},
                 {"state", StateName(appliance.answer.state)}};
  if (appliance.answer.state == ACP_STATE_OK) AddInfoJson(appliance.info, object);
  return object;
}

Rows ApplianceRows(const Appliance &appliance) {
  const DiscoverInfo &info = appliance.info;
  return {{"Address:", AddressText(info.address) + ", netmask " + AddressText(info.netmask)},
          {"Gateway:", GatewayCell(appliance)},
          {"DHCP:", DhcpCell(appliance)},
          {"MAC address:", MacCell(appliance) + ", answers on " + InterfaceCell(appliance)},
          {"Host name:", NameCell(appliance)},
          {"Workgroup:", WorkgroupCell(appliance)},
          {"Product:", ProductCell(appliance) + ", " + ProductIdCell(appliance)},
          {"Firmware:", FirmwareCell(info) + ", " + FieldCell(info.firmware_build_date)},
          {"System:", VersionText(info.system_major, info.system_minor) + ", " +
                          FieldCell(info.system_build_date)},
          {"Daemon:", DaemonCell(appliance)},
          {"State:", ColoredStateCell(appliance)},
          {"Time:", TimeCell(appliance)}};
}

std::vector<std::string> ColumnNames() {
  std::vector<std::string> names;
  for (const Column &column : COLUMNS)
    names.emplace_back(column.name);
  return names;
}

int Discover(const Options &options) {
  Layout layout;
  const int status = ReadLayout(options, layout);
  if (status != EXIT_DONE) return status;
  if (Given(options, "--watch") != nullptr) return Watch(options, layout);
  if (HasTargets(options)) return DiscoverTargets(options, layout);
  std::vector<Appliance> appliances;
  Outcome outcome = acp::Discover(options.scope, appliances);
  if (!outcome.IsDone()) {
    PrintError(outcome.message);
    if (!outcome.hint.empty()) PrintError(outcome.hint);
    return ExitStatusOf(outcome.result);
  }
  Sort(layout, appliances);
  return ShowAppliances(options, layout, appliances);
}

}  // namespace bhctl
