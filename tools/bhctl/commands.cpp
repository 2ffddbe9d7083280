// COMMANDS lists the commands with code of their own. All others come from the table of special
// commands.

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
     "Find appliances and show their settings",
     {{"--watch", "repeat; mark appliances that are new (+), gone (-) or moved (~)", false, true}},
     Discover},
    {"ping", "Check which appliances answer", {}, Ping},
    {"disk",
     "Show a drive's model, serial number and capacity",
     {{"DIRECTORY", "the drive's directory on the appliance; default: /proc/ide/hda", false}},
     Disk},
    {"raid",
     "List arrays, disks and USB disks, or create an array, which erases the disks",
     {{"ACTION", "create, for an array; default: list", false},
      {"KIND", "of array: normal, jbod, raid1 or raid5", false}},
     RaidOrCreate},
    {"partition",
     "Show the file system that contains a path",
     {{"PATH", "path on the appliance", true}},
     Partition},
    {"exec",
     "Run a command on one appliance; needs its command mode",
     {{"COMMAND", "the command line, one argument", true},
      {"--type",
       "0: in the background, without a shell; 1: without a shell; 2: in a shell, 'result' fetches "
       "the output; 3: in a shell, print the output; default: 3",
       false}},
     Exec,
     std::chrono::seconds{60}},
    {"result", "Fetch the output of an earlier exec --type 2", {}, Result},
    {"upgrade",
     "Install a firmware image on one appliance",
     {{"IMAGE", "the image file", true},
      {"--type", "type of the image: where the appliance installs it", true},
      {"--product", "product ID of the image; default: the appliance's own", false},
      {"--zip-password", "password of a ZIP archive", false},
      {"--dry-run", "check the image and the appliance, but change nothing", false, true}},
     Upgrade,
     std::chrono::seconds{600}},
    {"set",
     "Change one appliance's address, names and clock in one request",
     {{"--ip", "IPv4 address; asks for confirmation", false},
      {"--netmask", "netmask; needs --ip", false},
      {"--dhcp", "get the address by DHCP; --ip and --netmask are the fallback", false, true},
      {"--gateway", "default gateway", false},
      {"--hostname", "host name, 1 to 16 bytes", false},
      {"--workgroup", "workgroup, 1 to 16 bytes", false},
      {"--time", "local time: \"YYYY-MM-DD HH:MM:SS\", or now for this machine's time", false},
      {"--timezone", "UTC minus local time, in minutes: -540 for UTC+9", false},
      {"--initialised", "mark the appliance as initialised", false, true}},
     Set,
     std::chrono::seconds{30}},
    {"passwd",
     "Change the administrator's password; the global options give the old one",
     {{"--new-password", "1 to 8 ASCII characters; default: prompt", false}},
     Passwd,
     std::chrono::seconds{30}},
};

// Whether no command covers the row yet.
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
  if (operand == Operand::DEVICE) return "the drive's device file on the appliance";
  return operand == Operand::MAC ? "the new MAC address" : "path on the appliance";
}

// One command for all rows of the same name.
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
