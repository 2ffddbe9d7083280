// Each command has a request, JSON output and text output.

#include "tools/bhctl/status.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>
#include <set>

#include "client/drive.h"
#include "tools/bhctl/discover.h"
#include "tools/bhctl/file_system.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/targets.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr const char *RAID_TYPE_NAMES[] = {"none", "disk", "usb", "jbod", "raid1", "raid5"};

// Shows an answer in state ACP_STATE_OK. `print` returns EXIT_REFUSED when the answer says that
// there is nothing, else EXIT_DONE.
struct View {
  void (*add_json)(const Answer &answer, Json &object);
  int (*print)(const Answer &answer);
  bool (*is_empty)(const Answer &answer) = nullptr;
  const char *refusal_hint = "";
};

int ShowAnswer(const Options &options, const View &view, const Answer &answer, bool with_heading) {
  if (answer.state != ACP_STATE_OK)
    return Report(options, answer.mac, Refusal(answer.state, view.refusal_hint));
  const bool empty = view.is_empty != nullptr && view.is_empty(answer);
  if (options.json) {
    Json object = {{"mac", MacText(answer.mac)}, {"state", StateName(answer.state)}};
    view.add_json(answer, object);
    PrintJson(object);
    return empty ? EXIT_REFUSED : EXIT_DONE;
  }
  if (with_heading) PrintLine(MacText(answer.mac));
  return view.print(answer);
}

// Without names, whoever answers the broadcast.
int AskAndShow(const Options &options, const Request &request, const View &view,
               bool with_headings) {
  if (HasTargets(options))
    return RunOnChosen(options, [&](const Options &chosen, const Target &target) {
      Answer answer;
      Outcome outcome = AskOne(chosen.scope, request, answer);
      return outcome.IsDone() ? ShowAnswer(chosen, view, answer, false)
                              : Report(chosen, target.GetMac(), outcome);
    });
  std::vector<Answer> answers;
  Outcome outcome = Ask(options.scope, request, answers);
  if (!outcome.IsDone()) {
    PrintError(outcome.message);
    if (!outcome.hint.empty()) PrintError(outcome.hint);
    return ExitStatusOf(outcome.result);
  }
  std::sort(answers.begin(), answers.end(),
            [](const Answer &a, const Answer &b) { return a.mac < b.mac; });
  int status = EXIT_DONE;
  for (const Answer &answer : answers)
    if (ShowAnswer(options, view, answer, with_headings && answers.size() > 1) != EXIT_DONE)
      status = EXIT_REFUSED;
  return status;
}

// Leaves `path` empty if the argument is not given. Returns false with a message if it does not fit
// into a request.
bool PathArgument(const Options &options, const char *name, std::string &path) {
  const std::string *given = Given(options, name);
  if (given == nullptr) return true;
  path = *given;
  if (!path.empty() && path.size() <= MAX_REQUEST_TEXT) return true;
  PrintError(std::string(name) + " must have 1 to " + std::to_string(MAX_REQUEST_TEXT) + " bytes");
  return false;
}

std::string BlocksText(uint32_t blocks, uint32_t block_size) {
  return SizeText(uint64_t{blocks} * block_size);
}

void AddPingJson(const Answer &answer, Json &object) {
  object["round_trip_ms"] = static_cast<double>(answer.round_trip.count()) / 1000;
}

int PrintPing(const Answer &answer) {
  PrintLine(MacText(answer.mac) + "  " + MillisecondsText(answer.round_trip));
  return EXIT_DONE;
}

void AddDiskJson(const Answer &answer, Json &object) {
  const DiskInfo info = ReadDiskInfo(answer.body);
  const DriveIdentity drive = IdentifyDrive(info);
  object["model"] = drive.model;
  object["serial"] = drive.serial;
  object["firmware"] = drive.firmware;
  object["sectors"] = drive.sectors;
  object["words"] = info.words;
}

bool HasNoDrive(const Answer &answer) {
  return !HasDriveInformation(ReadDiskInfo(answer.body));
}

std::vector<std::vector<std::string>> DriveRows(const DiskInfo &info) {
  const DriveIdentity drive = IdentifyDrive(info);
  const uint64_t bytes = DriveBytes(drive);
  return {{"Model:", drive.model},
          {"Serial number:", drive.serial},
          {"Firmware:", drive.firmware},
          {"Capacity:", GigabytesText(bytes) + " (" + std::to_string(bytes) + " bytes)"}};
}

int PrintDisk(const Answer &answer) {
  const DiskInfo info = ReadDiskInfo(answer.body);
  if (!HasDriveInformation(info)) {
    PrintError(MacText(answer.mac) + " has no such drive, or one that tells nothing");
    return EXIT_REFUSED;
  }
  PrintTable(DriveRows(info));
  return EXIT_DONE;
}

std::string RaidTypeName(uint32_t type) {
  return type < std::size(RAID_TYPE_NAMES) ? RAID_TYPE_NAMES[type] : std::to_string(type);
}

Json RaidEntryJson(const RaidInfoEntry &entry) {
  return {{"type", RaidTypeName(entry.type)},
          {"index", entry.index},
          {"path", entry.path},
          {"mounted", IsMounted(entry)},
          {"fs_type", entry.fs_type},
          {"fs_name", FileSystemName(entry.fs_type)},
          {"block_size", entry.block_size},
          {"blocks", entry.blocks},
          {"blocks_free", entry.blocks_free},
          {"blocks_avail", entry.blocks_avail}};
}

void AddRaidJson(const Answer &answer, Json &object) {
  Json entries = Json::array();
  for (const RaidInfoEntry &entry : ReadRaidInfo(answer.body).entries)
    if (entry.type != 0) entries.push_back(RaidEntryJson(entry));
  object["entries"] = entries;
}

std::vector<std::string> RaidRow(const RaidInfoEntry &entry) {
  std::vector<std::string> row = {RaidTypeName(entry.type), std::to_string(entry.index),
                                  SafeText(entry.path)};
  if (!IsMounted(entry)) {
    row.emplace_back("not mounted");
    return row;
  }
  row.push_back(FileSystemName(entry.fs_type));
  row.push_back(BlocksText(entry.blocks, entry.block_size));
  row.push_back(BlocksText(entry.blocks_free, entry.block_size));
  row.push_back(BlocksText(entry.blocks_avail, entry.block_size));
  row.push_back(UsedText(entry.blocks, entry.blocks_free, entry.blocks_avail));
  return row;
}

int PrintRaid(const Answer &answer) {
  std::vector<std::vector<std::string>> rows = {
      {"TYPE", "INDEX", "MOUNT POINT", "FILE SYSTEM", "SIZE", "FREE", "AVAILABLE", "USED"}};
  for (const RaidInfoEntry &entry : ReadRaidInfo(answer.body).entries)
    if (entry.type != 0) rows.push_back(RaidRow(entry));
  if (rows.size() == 1)
    PrintLine("no arrays and no disks");
  else
    PrintTable(rows);
  return EXIT_DONE;
}

// The reply to a query that failed is all zero, but for the path.
bool IsMissing(const Answer &answer) {
  const PartitionInfo info = ReadPartitionInfo(answer.body);
  return info.fs_type == 0 && info.block_size == 0 && info.blocks == 0 && info.inodes == 0;
}

void AddPartitionJson(const Answer &answer, Json &object) {
  const PartitionInfo info = ReadPartitionInfo(answer.body);
  object["fs_type"] = info.fs_type;
  object["fs_name"] = FileSystemName(info.fs_type);
  object["block_size"] = info.block_size;
  object["blocks"] = info.blocks;
  object["blocks_free"] = info.blocks_free;
  object["blocks_avail"] = info.blocks_avail;
  object["inodes"] = info.inodes;
  object["inodes_free"] = info.inodes_free;
  object["path"] = info.path;
}

int PrintPartition(const Answer &answer) {
  const PartitionInfo info = ReadPartitionInfo(answer.body);
  if (IsMissing(answer)) {
    PrintError(MacText(answer.mac) + " has no such path, or cannot tell its file system");
    return EXIT_REFUSED;
  }
  PrintTable({{"Path:", SafeText(info.path)},
              {"File system:", FileSystemName(info.fs_type)},
              {"Size:", BlocksText(info.blocks, info.block_size)},
              {"Free:", BlocksText(info.blocks_free, info.block_size)},
              {"Available:", BlocksText(info.blocks_avail, info.block_size)},
              {"Used:", UsedText(info.blocks, info.blocks_free, info.blocks_avail)},
              {"Inodes:", std::to_string(info.inodes)},
              {"Inodes free:", std::to_string(info.inodes_free)}});
  return EXIT_DONE;
}

// Round trips of several pings, in milliseconds.
struct PingStatistics {
  int sent = 0;
  std::vector<double> times;
};

double Mean(const std::vector<double> &numbers) {
  double sum = 0;
  for (const double number : numbers)
    sum += number;
  return numbers.empty() ? 0 : sum / static_cast<double>(numbers.size());
}

// The mean difference between one round trip and the next.
double Jitter(const std::vector<double> &times) {
  std::vector<double> steps;
  for (size_t i = 1; i < times.size(); ++i)
    steps.push_back(std::abs(times[i] - times[i - 1]));
  return Mean(steps);
}

std::string Fixed(double number) {
  char text[32];
  snprintf(text, sizeof(text), "%.3f", number);
  return text;
}

int ShowPings(const Options &options, const Target &target, const PingStatistics &pings) {
  const auto received = static_cast<int>(pings.times.size());
  const double least =
      received == 0 ? 0 : *std::min_element(pings.times.begin(), pings.times.end());
  const double most = received == 0 ? 0 : *std::max_element(pings.times.begin(), pings.times.end());
  const int loss = pings.sent == 0 ? 0 : (pings.sent - received) * 100 / pings.sent;
  if (options.json)
    PrintJson({{"mac", MacText(target.GetMac())},
               {"sent", pings.sent},
               {"received", received},
               {"loss_percent", loss},
               {"min_ms", least},
               {"avg_ms", Mean(pings.times)},
               {"max_ms", most},
               {"jitter_ms", Jitter(pings.times)}});
  else
    PrintLine(std::to_string(pings.sent) + " sent, " + std::to_string(received) + " received, " +
              std::to_string(loss) + "% lost, min/avg/max/jitter " + Fixed(least) + "/" +
              Fixed(Mean(pings.times)) + "/" + Fixed(most) + "/" + Fixed(Jitter(pings.times)) +
              " ms");
  return received == 0 ? EXIT_NO_ANSWER : EXIT_DONE;
}

int PingRepeatedly(const Options &options, const Target &target, uint32_t count) {
  constexpr std::chrono::seconds INTERVAL{1};
  Request request = MakePingRequest();
  request.repeatable = false;  // a lost one counts
  PingStatistics pings;
  for (uint32_t i = 0; i < count && !IsCancelled(options.scope.cancel); ++i) {
    if (i > 0) Pause(options.scope.cancel, INTERVAL);
    if (IsCancelled(options.scope.cancel)) break;
    Answer answer;
    Outcome outcome = AskOne(options.scope, request, answer);
    ++pings.sent;
    if (outcome.result == acp::Result::CANCELLED) --pings.sent;
    if (outcome.IsDone())
      pings.times.push_back(static_cast<double>(answer.round_trip.count()) / 1000);
    if (outcome.IsDone() && !options.json) PrintLine(MillisecondsText(answer.round_trip));
    if (!outcome.IsDone() && !options.json) PrintLine(outcome.message);
  }
  const int status = ShowPings(options, target, pings);
  return IsCancelled(options.scope.cancel) ? EXIT_INTERRUPTED : status;
}

void PrintIndented(const std::vector<std::vector<std::string>> &rows) {
  for (const std::string &line : TableLines(rows))
    PrintLine("  " + line);
}

// The drives that the processors' IDE controllers may have.
constexpr const char *DRIVES[] = {"/proc/ide/hda", "/proc/ide/hdb", "/proc/ide/hdc",
                                  "/proc/ide/hdd", "/proc/ide/hde", "/proc/ide/hdf",
                                  "/proc/ide/hdg", "/proc/ide/hdh"};

void ShowDrives(const Options &options, Json &object) {
  Json drives = Json::array();
  for (const char *directory : DRIVES) {
    Answer answer;
    if (!AskOne(options.scope, MakeDiskRequest(directory), answer).IsDone()) return;
    const DiskInfo info = ReadDiskInfo(answer.body);
    if (!HasDriveInformation(info)) continue;
    const DriveIdentity drive = IdentifyDrive(info);
    drives.push_back({{"directory", directory},
                      {"model", drive.model},
                      {"serial", drive.serial},
                      {"firmware", drive.firmware},
                      {"bytes", DriveBytes(drive)}});
    if (options.json) continue;
    PrintLine(std::string("Drive ") + directory);
    PrintIndented(DriveRows(info));
  }
  object["drives"] = drives;
}

void ShowArrays(const Options &options, Json &object) {
  Answer answer;
  if (!AskOne(options.scope, MakeRaidRequest(), answer).IsDone()) return;
  AddRaidJson(answer, object);
  if (options.json) return;
  PrintLine("Arrays and disks");
  std::vector<std::vector<std::string>> rows;
  for (const RaidInfoEntry &entry : ReadRaidInfo(answer.body).entries)
    if (entry.type != 0) rows.push_back(RaidRow(entry));
  PrintIndented(rows.empty() ? std::vector<std::vector<std::string>>{{"none"}} : rows);
}

void ShowRoot(const Options &options, Json &object) {
  Answer answer;
  if (!AskOne(options.scope, MakePartitionRequest("/"), answer).IsDone() || IsMissing(answer))
    return;
  Json root;
  AddPartitionJson(answer, root);
  object["root"] = root;
  const PartitionInfo info = ReadPartitionInfo(answer.body);
  if (options.json) return;
  PrintLine("Root file system");
  PrintIndented({{"File system:", FileSystemName(info.fs_type)},
                 {"Size:", BlocksText(info.blocks, info.block_size)},
                 {"Used:", UsedText(info.blocks, info.blocks_free, info.blocks_avail)}});
}

int ShowOne(const Options &options, const Target &target) {
  if (target.discovered->state != ACP_STATE_OK)
    return Report(options, target.GetMac(), Refusal(target.discovered->state, ""));
  const Appliance appliance = AppliancesOf({*target.discovered}).front();
  Json object = ApplianceJson(appliance);
  if (!options.json) {
    PrintLine("Appliance " + target.name);
    PrintIndented(ApplianceRows(appliance));
  }
  ShowDrives(options, object);
  ShowArrays(options, object);
  ShowRoot(options, object);
  if (options.json) PrintJson(object);
  return EXIT_DONE;
}

}  // namespace

bool IsMounted(const RaidInfoEntry &entry) {
  return entry.fs_type != 0 || entry.block_size != UNMOUNTED_BLOCK_SIZE ||
         entry.blocks != UNMOUNTED_BLOCKS;
}

int Ping(const Options &options) {
  const std::string *text = Given(options, "--count");
  if (text == nullptr)
    return AskAndShow(options, MakePingRequest(), {AddPingJson, PrintPing}, false);
  const std::optional<uint32_t> count = ParseU32(*text);
  if (!count || *count == 0)
    return UsageFailure("--count must be a number from 1, not '" + SafeText(*text) + "'");
  return RunOnChosen(options, [&](const Options &chosen, const Target &target) {
    return PingRepeatedly(chosen, target, *count);
  });
}

int Disk(const Options &options) {
  std::string directory;
  if (!PathArgument(options, "DIRECTORY", directory)) return EXIT_USAGE;
  return AskAndShow(options, MakeDiskRequest(directory), {AddDiskJson, PrintDisk, HasNoDrive},
                    true);
}

int Raid(const Options &options) {
  return AskAndShow(options, MakeRaidRequest(), {AddRaidJson, PrintRaid}, true);
}

int Partition(const Options &options) {
  std::string path;
  if (!PathArgument(options, "PATH", path)) return EXIT_USAGE;
  return AskAndShow(options, MakePartitionRequest(path),
                    {AddPartitionJson, PrintPartition, IsMissing,
                     "there is no such path, or nothing can tell its file system"},
                    true);
}

int Show(const Options &options) {
  return RunOnChosen(options, ShowOne);
}

}  // namespace bhctl
