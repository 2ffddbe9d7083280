// Each command has a request, JSON output and text output.

#include "tools/bhctl/status.h"

#include <cstring>
#include <nlohmann/json.hpp>

#include "tools/bhctl/client.h"
#include "tools/bhctl/drive.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/refusal.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr const char *RAID_TYPE_NAMES[] = {"none", "disk", "usb", "jbod", "raid1", "raid5"};

// Shows an answer in state ACP_STATE_OK.
struct View {
  void (*add_json)(const Answer &answer, Json &object);
  void (*print)(const Answer &answer);
};

void Show(const Options &options, const View &view, const Answer &answer, bool with_heading) {
  if (answer.state != ACP_STATE_OK) {
    ShowRefusal(options, answer.mac, answer.state, "");
  } else if (options.json) {
    Json object = {{"mac", MacText(answer.mac)}, {"state", StateName(answer.state)}};
    view.add_json(answer, object);
    PrintJson(object);
  } else {
    if (with_heading) PrintLine(MacText(answer.mac));
    view.print(answer);
  }
}

int AskAndShow(const Options &options, const Request &request, const View &view,
               bool with_headings) {
  std::vector<Answer> answers;
  int status = Ask(options, request, answers);
  for (const Answer &answer : answers) {
    Show(options, view, answer, with_headings && answers.size() > 1);
    if (answer.state != ACP_STATE_OK) status = EXIT_REFUSED;
  }
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

void PrintPing(const Answer &answer) {
  PrintLine(MacText(answer.mac) + "  " + MillisecondsText(answer.round_trip));
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

void PrintDisk(const Answer &answer) {
  const DiskInfo info = ReadDiskInfo(answer.body);
  if (!HasDriveInformation(info)) {
    PrintLine("no drive information");
    return;
  }
  const DriveIdentity drive = IdentifyDrive(info);
  const uint64_t bytes = DriveBytes(drive);
  PrintTable({{"Model:", drive.model},
              {"Serial number:", drive.serial},
              {"Firmware:", drive.firmware},
              {"Capacity:", GigabytesText(bytes) + " (" + std::to_string(bytes) + " bytes)"}});
}

bool IsMounted(const RaidInfoEntry &entry) {
  return entry.fs_type != 0 || entry.block_size != UNMOUNTED_BLOCK_SIZE ||
         entry.blocks != UNMOUNTED_BLOCKS;
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
  row.push_back(HexText(entry.fs_type));
  row.push_back(BlocksText(entry.blocks, entry.block_size));
  row.push_back(BlocksText(entry.blocks_free, entry.block_size));
  row.push_back(BlocksText(entry.blocks_avail, entry.block_size));
  row.push_back(UsedText(entry.blocks, entry.blocks_free, entry.blocks_avail));
  return row;
}

void PrintRaid(const Answer &answer) {
  std::vector<std::vector<std::string>> rows = {
      {"TYPE", "INDEX", "MOUNT POINT", "FILE SYSTEM", "SIZE", "FREE", "AVAILABLE", "USED"}};
  for (const RaidInfoEntry &entry : ReadRaidInfo(answer.body).entries)
    if (entry.type != 0) rows.push_back(RaidRow(entry));
  if (rows.size() == 1)
    PrintLine("no arrays and no disks");
  else
    PrintTable(rows);
}

void AddPartitionJson(const Answer &answer, Json &object) {
  const PartitionInfo info = ReadPartitionInfo(answer.body);
  object["fs_type"] = info.fs_type;
  object["block_size"] = info.block_size;
  object["blocks"] = info.blocks;
  object["blocks_free"] = info.blocks_free;
  object["blocks_avail"] = info.blocks_avail;
  object["inodes"] = info.inodes;
  object["inodes_free"] = info.inodes_free;
  object["path"] = info.path;
}

void PrintPartition(const Answer &answer) {
  const PartitionInfo info = ReadPartitionInfo(answer.body);
  PrintTable({{"Path:", SafeText(info.path)},
              {"File system:", HexText(info.fs_type)},
              {"Size:", BlocksText(info.blocks, info.block_size)},
              {"Free:", BlocksText(info.blocks_free, info.block_size)},
              {"Available:", BlocksText(info.blocks_avail, info.block_size)},
              {"Used:", UsedText(info.blocks, info.blocks_free, info.blocks_avail)},
              {"Inodes:", std::to_string(info.inodes)},
              {"Inodes free:", std::to_string(info.inodes_free)}});
}

}  // namespace

int Ping(const Options &options) {
  return AskAndShow(options, MakePingRequest(), {AddPingJson, PrintPing}, false);
}

int Disk(const Options &options) {
  std::string directory;
  if (!PathArgument(options, "DIRECTORY", directory)) return EXIT_USAGE;
  return AskAndShow(options, MakeDiskRequest(directory), {AddDiskJson, PrintDisk}, true);
}

int Raid(const Options &options) {
  return AskAndShow(options, MakeRaidRequest(), {AddRaidJson, PrintRaid}, true);
}

int Partition(const Options &options) {
  std::string path;
  if (!PathArgument(options, "PATH", path)) return EXIT_USAGE;
  return AskAndShow(options, MakePartitionRequest(path), {AddPartitionJson, PrintPartition}, true);
}

}  // namespace bhctl
