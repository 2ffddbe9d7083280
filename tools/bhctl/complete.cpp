#include "tools/bhctl/complete.h"

#include <set>

#include "client/appliances.h"
#include "tools/bhctl/commands.h"
#include "tools/bhctl/inventory.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr std::chrono::milliseconds QUICK{300};  // the user waits for it

void PrintAll(const std::set<std::string> &words) {
  for (const std::string &word : words)
    PrintLine(word);
}

void CompleteOptions(const Command *command, std::set<std::string> &words) {
  for (const Argument &option : GlobalOptions())
    words.insert(option.name);
  if (command == nullptr) return;
  for (const Argument &argument : command->arguments)
    if (argument.name.starts_with("-")) words.insert(argument.name);
}

// Host names from a quick discovery; a shell would take a blank for the end of the word.
void CompleteTargets(const Options &options, std::set<std::string> &words) {
  Inventory inventory;
  std::string why;
  ReadInventory(inventory, why);
  for (const InventoryEntry &entry : inventory) {
    words.insert(entry.name);
    words.insert(entry.groups.begin(), entry.groups.end());
  }
  Scope scope = options.scope;
  scope.timeout = QUICK;
  scope.warn = {};
  std::vector<Appliance> appliances;
  acp::Discover(scope, appliances);
  for (const Appliance &appliance : appliances) {
    const std::string name = SafeText(FieldText(appliance.info.host_name));
    const std::string mac = MacText(appliance.answer.mac);
    if (!InventoryName(inventory, appliance.answer.mac).empty()) continue;
    words.insert(name.empty() || name.find(' ') != std::string::npos ? mac : name);
  }
}

}  // namespace

int Complete(const Options &options) {
  const std::string &kind = options.arguments.at("KIND");
  const std::string *name = Given(options, "COMMAND");
  const Command *command = name == nullptr ? nullptr : FindCommand(*name);
  std::set<std::string> words;
  if (kind == "commands")
    for (const Command &each : Commands())
      words.insert(each.name);
  else if (kind == "options")
    CompleteOptions(command, words);
  else if (kind == "targets")
    CompleteTargets(options, words);
  else if (command != nullptr)
    for (const Argument &argument : command->arguments)
      if (!argument.name.starts_with("-"))
        words.insert(argument.words.begin(), argument.words.end());
  PrintAll(words);
  return EXIT_DONE;
}

}  // namespace bhctl
