// The commands that have code of their own stand here; the others are made from the table of
// special commands.

#include "tools/bhctl/commands.h"

#include <algorithm>
#include <iterator>

#include "tools/bhctl/change_password.h"
#include "tools/bhctl/discover.h"
#include "tools/bhctl/exec.h"
#include "tools/bhctl/set.h"
#include "tools/bhctl/special.h"
#include "tools/bhctl/status.h"
#include "tools/bhctl/upgrade.h"

namespace bhctl {
namespace {

const SubCommand COMMANDS[] = {
    {"discover",
     "Find appliances and show what they tell of themselves",
     {{"--watch", "ask again and again, mark what is new (+), gone (-) or moved (~)", false, true}},
     Discover},
    {"ping", "Check which appliances answer", {}, Ping},
    {"disk",
     "Show a drive's model, serial number and capacity",
     {{"DIRECTORY", "the drive's directory on the appliance, /proc/ide/hda if not given", false}},
     Disk},
    {"raid",
     "List arrays, disks and USB disks, or create an array, which loses all on the disks",
     {{"ACTION", "create, for an array; the list if not given", false},
      {"KIND", "of array: normal, jbod, raid1 or raid5", false}},
     RaidOrCreate},
    {"partition",
     "Show the file system that a path is on",
     {{"PATH", "path on the appliance", true}},
     Partition},
    {"exec",
     "Run a command on one appliance, whose command mode must be enabled",
     {{"COMMAND", "the command line, one argument", true},
      {"--type",
       "0: its words in the background, 1: its words, 2: by a shell, its output for 'result', "
       "3 (if not given): by a shell, its output is printed",
       false}},
     Exec,
     std::chrono::seconds{60}},
    {"result", "Fetch the output of a command that was run with --type 2", {}, Result},
    {"upgrade",
     "Install a firmware image on one appliance",
     {{"IMAGE", "the image file", true},
      {"--type", "kind of image, which says where the appliance installs it", true},
      {"--product", "product ID that the image is for, the appliance's own if not given", false},
      {"--zip-password", "password of an image that is an archive", false},
      {"--dry-run", "check all that can be checked and tell, but change nothing", false, true}},
     Upgrade,
     std::chrono::seconds{600}},
    {"set",
     "Change one appliance's address, names and clock, by one request",
     {{"--ip", "its IPv4 address, which asks first", false},
      {"--netmask", "with --ip", false},
      {"--dhcp", "address by DHCP; --ip and --netmask are for want of a lease", false, true},
      {"--gateway", "default gateway", false},
      {"--hostname", "host name, 1 to 16 bytes", false},
      {"--workgroup", "workgroup, 1 to 16 bytes", false},
      {"--time", "local time, \"YYYY-MM-DD HH:MM:SS\", or now: this machine's", false},
      {"--timezone", "minutes from local time to UTC: -540 where it is nine hours ahead", false},
      {"--initialised", "mark it as initialised", false, true}},
     Set,
     std::chrono::seconds{30}},
    {"passwd",
     "Change the administrator's password, which the global options give",
     {{"--new-password", "1 to 8 characters of ASCII, asked for if not given", false}},
     Passwd,
     std::chrono::seconds{30}},
};

// Whether no command leads to the row yet.
bool IsNew(const std::vector<SubCommand> &commands, const Special &row) {
  const std::string name = std::string(row.name) + " ";
  return std::none_of(commands.begin(), commands.end(), [&](const SubCommand &command) {
    return name.starts_with(command.name + " ");
  });
}

// "emergency or disk"
std::string Words(const std::string &name) {
  std::string words;
  for (const Special &row : Specials()) {
    if (row.name != name) continue;
    if (!words.empty()) words += " or ";
    words += row.word;
  }
  return words;
}

const char *OperandDescription(Operand operand) {
  if (operand == Operand::DEVICE) return "device file of the drive on the appliance";
  return operand == Operand::MAC ? "the new address" : "path on the appliance";
}

// The command of the row, or of all rows of its name.
SubCommand MakeCommand(const Special &row) {
  SubCommand command = {row.name, row.description, {}, RunSpecial, OWN_TIMEOUT};
  const SpecialGroup *group = FindGroup(row.name);
  if (group != nullptr) {
    command.description = group->description;
    command.arguments.push_back({group->word, Words(row.name), true});
  }
  const char *operand = OperandName(row.operand);
  if (operand != nullptr)
    command.arguments.push_back({operand, OperandDescription(row.operand), group == nullptr});
  return command;
}

std::vector<SubCommand> MakeCommands() {
  std::vector<SubCommand> commands(std::begin(COMMANDS), std::end(COMMANDS));
  for (const Special &row : Specials())
    if (IsNew(commands, row)) commands.push_back(MakeCommand(row));
  return commands;
}

}  // namespace

const std::vector<SubCommand> &Commands() {
  static const std::vector<SubCommand> commands = MakeCommands();
  return commands;
}

}  // namespace bhctl
