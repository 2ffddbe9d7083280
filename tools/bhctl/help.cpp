#include "tools/bhctl/help.h"

#include <algorithm>
#include <sstream>

namespace bhctl {
namespace {

constexpr size_t WIDTH = 80;
constexpr size_t TEXT_COLUMN = 26;  // of the descriptions

// Wraps the text at `indent` and WIDTH. The first line has `used` columns already.
std::string Wrapped(const std::string &text, size_t indent, size_t used) {
  std::string wrapped(indent - std::min(indent, used), ' ');
  size_t column = std::max(indent, used);
  std::istringstream words(text);
  bool first = true;
  for (std::string word; words >> word;) {
    if (!first && column + 1 + word.size() > WIDTH) {
      wrapped.append("\n").append(indent, ' ');
      column = indent;
      first = true;
    }
    wrapped += (first ? "" : " ") + word;
    column += word.size() + (first ? 0 : 1);
    first = false;
  }
  return wrapped + "\n";
}

std::string Row(const std::string &name, const std::string &description) {
  const std::string head = "  " + name;
  if (head.size() + 2 > TEXT_COLUMN) return head + "\n" + Wrapped(description, TEXT_COLUMN, 0);
  return head + Wrapped(description, TEXT_COLUMN, head.size());
}

bool IsOption(const Argument &argument) {
  return argument.name.starts_with("-");
}

std::string Words(const Argument &argument) {
  std::string words;
  for (const std::string &word : argument.words)
    words += (words.empty() ? "" : ", ") + word;
  return words;
}

std::string ArgumentRow(const Argument &argument) {
  const std::string name = argument.name + (argument.value.empty() ? "" : " " + argument.value);
  std::string description = argument.description;
  if (!argument.words.empty() && !IsOption(argument))
    description.append(": ").append(Words(argument));
  if (argument.required && IsOption(argument)) description += " (required)";
  return Row(name, description);
}

std::string UsageLine(const Command &command) {
  std::string usage = "Usage: bhctl [OPTIONS] " + command.name;
  const bool has_options = std::any_of(command.arguments.begin(), command.arguments.end(),
                                       [](const Argument &argument) { return IsOption(argument); });
  if (has_options) usage += " [OPTIONS]";
  for (const Argument &argument : command.arguments) {
    if (IsOption(argument)) continue;
    usage += argument.required ? " " + argument.name : " [" + argument.name + "]";
    if (command.takes_words) usage += "...";
  }
  return Wrapped(usage, 0, 0);
}

const char *RightsText(Rights rights) {
  switch (rights) {
    case Rights::NONE:
      return "none";
    case Rights::COMMAND_MODE:
      return "the command mode: give --pass-phrase, or run 'bhctl enable'";
    case Rights::PASSWORD:
      return "the command mode and the administrator's password: give --pass-phrase and "
             "--password, or run 'bhctl enable' and 'bhctl login'";
    case Rights::PRODUCT:
      return "the administrator's password; products 0x2001 and 0x2002 also need the command mode";
  }
  return "";
}

}  // namespace

std::string MainHelp() {
  std::string help =
      "Manages network-storage appliances on the local network.\n\n"
      "Usage: bhctl [OPTIONS] COMMAND [ARGUMENTS]\n       bhctl help COMMAND\n\nCommands:\n";
  for (const Command &command : Commands())
    help += Row(command.name, command.summary);
  help += Row("help", "Print the help of a command") + "\nOptions, before or after the command:\n";
  for (const Argument &option : GlobalOptions())
    help += ArgumentRow(option);
  help += std::string("\nExit status:\n") + Row("0", "done") +
          Row("1", "an appliance refused, or did not take all; of several, one failed") +
          Row("2", "usage error, unusable image, unknown interface, or no confirmation") +
          Row("3", "no answer, or this machine could not send or print something") +
          Row("130", "interrupted") +
          Row("exec", "the command's own status with --type 1; with a message, one of the above");
  return help;
}

std::string CommandHelp(const Command &command) {
  std::string help = Wrapped(command.summary + ".", 0, 0) + "\n" + UsageLine(command);
  if (!command.arguments.empty()) help += "\nArguments:\n";
  for (const Argument &argument : command.arguments)
    help += ArgumentRow(argument);
  help.append("\n").append(Row("Rights:", RightsText(command.rights)).substr(2));
  if (command.asks)
    help += Row("Asks:", "for confirmation where data or reachability is at risk; --yes answers")
                .substr(2);
  help += Row("Timeout:", std::to_string(command.timeout.count()) + " s by default").substr(2);
  if (!command.examples.empty()) help += "\nExamples:\n";
  for (const std::string &example : command.examples)
    help += "  " + example + "\n";
  return help + "\nGlobal options and exit status: see 'bhctl --help'.\n";
}

}  // namespace bhctl
