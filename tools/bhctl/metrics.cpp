// All samples of one family stand together, so they are collected before they are printed.

#include "tools/bhctl/metrics.h"

#include <cstdio>
#include <map>
#include <mutex>

#include "client/drive.h"
#include "tools/bhctl/discover.h"
#include "tools/bhctl/file_system.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/status.h"
#include "tools/bhctl/targets.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

struct Family {
  const char *name;
  const char *type;
  const char *help;
};

// A node exporter reads the older text format, which has no type "info".
constexpr Family FAMILIES[] = {
    {"bh_up", "gauge", "Whether the appliance answers."},
    {"bh_round_trip_seconds", "gauge", "Time from a ping to its answer."},
    {"bh_appliance_info", "gauge", "Names and versions of the appliance."},
    {"bh_normal_system", "gauge", "Whether the appliance runs its normal system."},
    {"bh_initialized", "gauge", "Whether the appliance is marked as initialized."},
    {"bh_drive_info", "gauge", "Model and serial number of a drive."},
    {"bh_drive_size_bytes", "gauge", "Capacity of a drive."},
    {"bh_filesystem_mounted", "gauge", "Whether the array or disk is mounted."},
    {"bh_filesystem_size_bytes", "gauge", "Size of a file system."},
    {"bh_filesystem_free_bytes", "gauge", "Free space of a file system."},
    {"bh_filesystem_avail_bytes", "gauge", "Space that ordinary users can fill."},
};

constexpr const char *RAID_TYPES[] = {"none", "disk", "usb", "jbod", "raid1", "raid5"};

// The samples of each family: values by name and labels, each once.
struct Samples {
  std::mutex mutex;
  std::map<std::string, std::map<std::string, std::string>> families;
};

using Labels = std::vector<std::pair<const char *, std::string>>;

std::string Escaped(const std::string &text) {
  std::string escaped;
  for (const char character : SafeText(text)) {
    if (character == '\\' || character == '"') escaped += '\\';
    escaped += character;
  }
  return escaped;
}

std::string LabelText(const Labels &labels) {
  std::string text = "{";
  for (const auto &[name, value] : labels) {
    if (text.size() > 1) text += ',';
    text.append(name).append("=\"").append(Escaped(value)).append("\"");
  }
  return text + "}";
}

void Add(Samples &samples, const char *family, const Labels &labels, double value) {
  char number[40];
  snprintf(number, sizeof(number), " %.15g\n", value);
  const std::lock_guard lock(samples.mutex);
  samples.families[family][family + LabelText(labels)] = number;
}

void AddInfo(Samples &samples, const Labels &labels, const DiscoverInfo &info) {
  Labels all = labels;
  all.insert(all.end(), {{"address", AddressText(info.address)},
                         {"product", FieldText(info.product_name)},
                         {"product_id", HexText(info.product_id)},
                         {"firmware", std::to_string(info.firmware_major) + "." +
                                          std::to_string(info.firmware_minor)},
                         {"firmware_build", FieldText(info.firmware_build_date)}});
  Add(samples, "bh_appliance_info", all, 1);
  Add(samples, "bh_normal_system", labels, info.product_state == PRODUCT_STATE_NORMAL ? 1 : 0);
  Add(samples, "bh_initialized", labels, (info.status & DISCOVER_INITIALIZED) != 0 ? 1 : 0);
}

void AddDrives(const Options &options, Samples &samples, const Labels &labels) {
  for (const char *directory :
       {"/proc/ide/hda", "/proc/ide/hdb", "/proc/ide/hdc", "/proc/ide/hdd"}) {
    Answer answer;
    if (!AskOne(options.scope, MakeDiskRequest(directory), answer).IsDone()) return;
    const DiskInfo info = ReadDiskInfo(answer.body);
    if (!HasDriveInformation(info)) continue;
    const DriveIdentity drive = IdentifyDrive(info);
    Labels all = labels;
    all.emplace_back("drive", directory);
    Add(samples, "bh_drive_size_bytes", all, static_cast<double>(DriveBytes(drive)));
    all.insert(all.end(), {{"model", drive.model}, {"serial", drive.serial}});
    Add(samples, "bh_drive_info", all, 1);
  }
}

void AddFileSystem(Samples &samples, const Labels &labels, uint32_t fs_type, double block_size,
                   uint32_t blocks, uint32_t blocks_free, uint32_t blocks_avail) {
  Labels all = labels;
  all.emplace_back("fstype", FileSystemName(fs_type));
  Add(samples, "bh_filesystem_size_bytes", all, block_size * blocks);
  Add(samples, "bh_filesystem_free_bytes", all, block_size * blocks_free);
  Add(samples, "bh_filesystem_avail_bytes", all, block_size * blocks_avail);
}

void AddArrays(const Options &options, Samples &samples, const Labels &labels) {
  Answer answer;
  if (!AskOne(options.scope, MakeRaidRequest(), answer).IsDone()) return;
  for (const RaidInfoEntry &entry : ReadRaidInfo(answer.body).entries) {
    if (entry.type == 0) continue;
    Labels all = labels;
    all.emplace_back("path", entry.path);
    all.emplace_back("type", entry.type < std::size(RAID_TYPES) ? RAID_TYPES[entry.type] : "other");
    const bool mounted = IsMounted(entry);
    Add(samples, "bh_filesystem_mounted", all, mounted ? 1 : 0);
    if (mounted)
      AddFileSystem(samples, all, entry.fs_type, entry.block_size, entry.blocks, entry.blocks_free,
                    entry.blocks_avail);
  }
}

void AddPartition(const Options &options, Samples &samples, const Labels &labels,
                  const std::string &path) {
  Answer answer;
  if (!AskOne(options.scope, MakePartitionRequest(path), answer).IsDone()) return;
  const PartitionInfo info = ReadPartitionInfo(answer.body);
  if (info.blocks == 0) return;
  Labels all = labels;
  all.insert(all.end(), {{"path", info.path}, {"type", "path"}});
  AddFileSystem(samples, all, info.fs_type, info.block_size, info.blocks, info.blocks_free,
                info.blocks_avail);
}

void Collect(const Options &options, const Target &target, Samples &samples) {
  const Labels labels = {{"mac", MacText(target.GetMac())}, {"name", target.name}};
  Answer ping;
  const bool up = target.discovered->state == ACP_STATE_OK &&
                  AskOne(options.scope, MakePingRequest(), ping).IsDone();
  Add(samples, "bh_up", labels, up ? 1 : 0);
  if (!up) return;
  Add(samples, "bh_round_trip_seconds", labels,
      static_cast<double>(ping.round_trip.count()) / 1'000'000);
  AddInfo(samples, labels, ReadDiscoverInfo(target.discovered->body));
  AddDrives(options, samples, labels);
  AddArrays(options, samples, labels);
  if (const std::string *path = Given(options, "--partition"); path != nullptr)
    AddPartition(options, samples, labels, *path);
}

void Print(const Samples &samples) {
  for (const Family &family : FAMILIES) {
    const auto found = samples.families.find(family.name);
    if (found == samples.families.end()) continue;
    PrintText(std::string("# TYPE ").append(family.name).append(" ").append(family.type));
    PrintText(std::string("\n# HELP ").append(family.name).append(" ").append(family.help) + "\n");
    for (const auto &[sample, value] : found->second) {
      PrintText(sample);
      PrintText(value);
    }
  }
  PrintText("# EOF\n");
}

}  // namespace

// An appliance that was asked for by name and does not answer is down; that is no failure.
int Metrics(const Options &options) {
  Options all = options;
  if (!HasTargets(options)) all.all = true;
  std::vector<Target> targets;
  const int status = ChooseTargets(all, targets);
  if (status != EXIT_DONE && (status != EXIT_NO_ANSWER || targets.empty())) return status;
  Samples samples;
  FleetLimits limits = options.limits;
  limits.cancel = options.scope.cancel;
  RunFleet(targets.size(), limits, [&](size_t number) {
    const Target &target = targets[number];
    Options chosen = options;
    if (!target.discovered) {
      const std::string mac = target.wanted ? MacText(*target.wanted) : "";
      Add(samples, "bh_up", {{"mac", mac}, {"name", target.name}}, 0);
      return true;
    }
    chosen.scope.mac = target.GetMac();
    chosen.scope.interface = target.discovered->interface;
    Collect(chosen, target, samples);
    return true;
  });
  if (IsCancelled(options.scope.cancel)) return EXIT_INTERRUPTED;
  Print(samples);
  return EXIT_DONE;
}

}  // namespace bhctl
