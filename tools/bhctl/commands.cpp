// COMMANDS lists the commands with code of their own. All others come from the table of special
// commands.

#include "tools/bhctl/commands.h"

#include <algorithm>
#include <iterator>

#include "tools/bhctl/change_password.h"
#include "tools/bhctl/complete.h"
#include "tools/bhctl/discover.h"
#include "tools/bhctl/exec.h"
#include "tools/bhctl/metrics.h"
#include "tools/bhctl/set.h"
#include "tools/bhctl/special.h"
#include "tools/bhctl/status.h"
#include "tools/bhctl/upgrade.h"

namespace bhctl {
namespace {

using std::chrono::seconds;

const Argument GLOBAL_OPTIONS[] = {
    {"--to", "NAME",
     "the appliance: host name, address, MAC address, or name or group of the "
     "inventory; several times, or a list with commas; default: $BHCTL_TO"},
    {"--mac", "MAC", "like --to, for a MAC address"},
    {"--all", "", "all appliances that answer"},
    {"--parallel", "N", "work on at most so many appliances at once; default: 8"},
    {"--stop-after", "N", "start no further appliance after so many failures"},
    {"--interface", "NAME", "use only this network interface, also -i; default: $BHCTL_INTERFACE"},
    {"--timeout", "SECONDS", "wait this long for an answer"},
    {"--json", "", "print one JSON object per line for each appliance"},
    {"--color",
     "WHEN",
     "when to use colours: auto, always or never; default: auto",
     false,
     {"auto", "always", "never"}},
    {"--pass-phrase", "TEXT", "pass phrase of the command mode; default: $BHCTL_PASS_PHRASE"},
    {"--password", "TEXT", "administrator's password; default: $BHCTL_PASSWORD"},
    {"--password-stdin", "", "read the administrator's password from standard input"},
    {"--yes", "", "do not ask for confirmation"},
    {"--version", "", "print the version"},
    {"--help", "", "print help, also -h"},
};

const Command COMMANDS[] = {
    {"discover",
     "Find appliances and show their settings",
     {{"--watch", "",
       "repeat; on a terminal draw the table anew, elsewhere print changes only: "
       "new (+), gone (-), moved (~)"},
      {"--long", "", "show more columns"},
      {"--columns", "LIST",
       "show these columns: address, netmask, name, product, firmware, "
       "version, mac, dhcp, state, status, time, workgroup, gateway, product-id, daemon, "
       "interface"},
      {"--sort", "COLUMN", "sort by this column; default: address"}},
     Discover,
     seconds{2},
     Rights::NONE,
     false,
     false,
     {"bhctl discover", "bhctl discover --long --sort name",
      "bhctl discover --columns name,address,mac", "bhctl discover --watch"}},
    {"show",
     "Show all about one appliance: identity, drives, arrays, file systems",
     {},
     Show,
     seconds{2},
     Rights::NONE,
     false,
     false,
     {"bhctl show --to nas1"}},
    {"ping",
     "Check which appliances answer",
     {{"--count", "N", "send so many pings, one a second, and sum them up; also -c"}},
     Ping,
     seconds{2},
     Rights::NONE,
     false,
     false,
     {"bhctl ping", "bhctl ping --to nas1 -c 10"}},
    {"disk",
     "Show a drive's model, serial number and capacity",
     {{"DIRECTORY", "", "the drive's directory on the appliance; default: /proc/ide/hda"}},
     Disk,
     seconds{2},
     Rights::NONE,
     false,
     false,
     {"bhctl disk --to nas1 /proc/ide/hdb"}},
    {"raid",
     "List arrays, disks and USB disks, or create an array, which erases the disks",
     {{"ACTION", "", "create, for an array; default: list", false, {"create"}},
      {"KIND", "", "of array", false, {"normal", "jbod", "raid1", "raid5"}}},
     RaidOrCreate,
     seconds{2},
     Rights::COMMAND_MODE,
     true,
     false,
     {"bhctl raid --all", "bhctl raid create raid1 --to nas1"}},
    {"partition",
     "Show the file system that contains a path",
     {{"PATH", "", "path on the appliance", true}},
     Partition,
     seconds{2},
     Rights::NONE,
     false,
     false,
     {"bhctl partition /mnt/array1 --to nas1"}},
    {"exec",
     "Run a command; its words are taken as they come",
     {{"--type",
       "TYPE",
       "0: in the background, without a shell; 1: without a shell; 2: in a "
       "shell, 'result' fetches the output; 3: in a shell, print the output; default: 3",
       false,
       {"0", "1", "2", "3"}},
      {"--full", "", "print the whole output: like --type 2 and 'result'"},
      {"COMMAND", "", "the command and its words; options of bhctl come before it", true}},
     Exec,
     seconds{60},
     Rights::COMMAND_MODE,
     false,
     true,
     {"bhctl exec --to nas1 uname -a", "bhctl exec -- ls -l /mnt", "bhctl exec --full dmesg"}},
    {"result",
     "Fetch the output of an earlier exec --type 2",
     {},
     ShowResult,
     seconds{2},
     Rights::COMMAND_MODE,
     false,
     false,
     {"bhctl result --to nas1"}},
    {"upgrade",
     "Install a firmware image",
     {{"IMAGE", "", "the image file", true},
      {"--type", "TYPE", "type of the image: where the appliance installs it", true},
      {"--product", "ID", "product ID of the image; default: the appliance's own"},
      {"--zip-password", "TEXT", "password of a ZIP archive"},
      {"--dry-run", "",
       "try the image, the appliance's reachability and the passwords, but change "
       "nothing"},
      {"--wait", "", "wait until the appliance answers with the new version"}},
     Upgrade,
     seconds{600},
     Rights::PRODUCT,
     false,
     false,
     {"bhctl upgrade image.bin --type 2 --to nas1",
      "bhctl upgrade image.bin --type 6 --product 0x2001 --all --stop-after 1"}},
    {"set",
     "Change address, names and clock in one request, and check what was taken",
     {{"--ip", "ADDRESS", "IPv4 address; asks for confirmation"},
      {"--netmask", "MASK", "netmask; needs --ip"},
      {"--dhcp", "", "get the address by DHCP; --ip and --netmask are the fallback"},
      {"--gateway", "ADDRESS", "default gateway; 0.0.0.0: none"},
      {"--hostname", "NAME", "host name, 1 to 16 letters, digits and '-'"},
      {"--workgroup", "NAME", "workgroup, 1 to 16 bytes"},
      {"--time", "TIME", "local time: \"YYYY-MM-DD HH:MM:SS\", or now for this machine's time"},
      {"--timezone", "MINUTES", "UTC minus local time, in minutes: -540 for UTC+9"},
      {"--initialized", "", "mark the appliance as initialized"},
      {"--wait", "", "wait longer, up to 10 minutes, for the appliance at its new address"}},
     Set,
     seconds{30},
     Rights::PASSWORD,
     true,
     false,
     {"bhctl set --to nas1 --ip 192.168.11.20 --netmask 255.255.255.0",
      "bhctl set --all --time now"}},
    {"passwd",
     "Change the administrator's password; the global options give the old one",
     {{"--new-password", "TEXT", "1 to 8 ASCII characters; default: $BHCTL_NEW_PASSWORD, or ask"}},
     Passwd,
     seconds{30},
     Rights::COMMAND_MODE,
     false,
     false,
     {"bhctl passwd --to nas1"}},
    {"metrics",
     "Print OpenMetrics text about the appliances, for a node exporter",
     {{"--partition", "PATH", "also the file system of this path"}},
     Metrics,
     seconds{2},
     Rights::NONE,
     false,
     false,
     {"bhctl metrics --all >/var/lib/prometheus/node-exporter/bh.prom"}},
    {"complete",
     "Print words that may come next, for a shell's completion",
     {{"KIND", "", "of word", true, {"commands", "options", "words", "targets"}},
      {"COMMAND", "", "whose options or words"}},
     Complete,
     seconds{2},
     Rights::NONE,
     false,
     false,
     {"bhctl complete targets", "bhctl complete words raid"}},
};

// Whether no command covers the row yet.
bool IsNew(const std::vector<Command> &commands, const Special &row) {
  const std::string name = std::string(row.name) + " ";
  return std::none_of(commands.begin(), commands.end(),
                      [&](const Command &command) { return name.starts_with(command.name + " "); });
}

std::vector<const Special *> RowsOf(const std::string &name) {
  std::vector<const Special *> rows;
  for (const Special &row : Specials())
    if (row.name == name) rows.push_back(&row);
  return rows;
}

const char *OperandDescription(Operand operand) {
  if (operand == Operand::DEVICE) return "the drive's device file on the appliance";
  return operand == Operand::MAC ? "the new MAC address" : "path on the appliance";
}

// One command for all rows of the same name.
Command MakeCommand(const Special &row) {
  Command command = {row.name, row.description, {}, RunSpecial};
  const SpecialGroup *group = FindGroup(row.name);
  command.timeout = row.timeout;
  std::string example = "bhctl " + command.name;
  if (group != nullptr) {
    std::vector<std::string> words;
    for (const Special *each : RowsOf(row.name))
      words.emplace_back(each->word);
    command.summary = group->description;
    command.arguments.push_back({group->word, "", group->description, true, words});
    example += " " + words.front();
  }
  for (const Special *each : RowsOf(row.name)) {
    if ((each->properties & NEEDS_COMMAND_MODE) != 0) command.rights = Rights::COMMAND_MODE;
    if ((each->properties & NEEDS_CONFIRMATION) != 0) command.asks = true;
  }
  const char *operand = OperandName(row.operand);
  if (operand != nullptr)
    command.arguments.push_back({operand, "", OperandDescription(row.operand), group == nullptr});
  if (operand != nullptr) example += std::string(" ") + operand;
  if (row.code == SPECIAL_REBOOT)
    command.arguments.push_back({"--wait", "", "wait until the appliance answers again"});
  command.examples = {example + " --to nas1"};
  return command;
}

std::vector<Command> MakeCommands() {
  std::vector<Command> commands(std::begin(COMMANDS), std::end(COMMANDS));
  for (const Special &row : Specials())
    if (IsNew(commands, row)) commands.push_back(MakeCommand(row));
  return commands;
}

}  // namespace

const std::vector<Command> &Commands() {
  static const std::vector<Command> commands = MakeCommands();
  return commands;
}

const Command *FindCommand(const std::string &name) {
  const auto found = std::find_if(Commands().begin(), Commands().end(),
                                  [&](const Command &command) { return command.name == name; });
  return found == Commands().end() ? nullptr : &*found;
}

const std::vector<Argument> &GlobalOptions() {
  static const std::vector<Argument> options(std::begin(GLOBAL_OPTIONS), std::end(GLOBAL_OPTIONS));
  return options;
}

}  // namespace bhctl
