// The command line of bhctl: global options, commands, usage errors. Every command returns the exit
// status.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <numeric>
#include <optional>
#include <string>
#include <vector>

#include "tools/bhctl/commands.h"
#include "tools/bhctl/options.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr const char *FOOTER =
    "Exit status:\n"
    "  0  done\n"
    "  1  the appliance refused; bhctl prints its state code\n"
    "  2  usage error, unusable image, unknown interface, or no confirmation\n"
    "  3  no answer, or this machine could not send the request or the image, or write the "
    "result\n"
    "  exec --type 1: the command's own status; with a message, one of the above";

constexpr double MAX_TIMEOUT = 86400;  // seconds

// The parser's results, not yet checked.
struct CommandLine {
  std::string interface;
  std::string mac;
  double timeout = 2;
  std::string pass_phrase;
  std::string password;
  std::map<std::string, std::map<std::string, std::string>> arguments;  // by command, then by name
};

int UsageError(const std::string &message) {
  PrintError(message);
  fputs("Try 'bhctl --help'.\n", stderr);
  return EXIT_USAGE;
}

void DeclareGlobalOptions(CLI::App &app, CommandLine &line, Options &options) {
  app.add_option("-i,--interface", line.interface, "use only this network interface")
      ->type_name("NAME");
  app.add_option("--mac", line.mac, "address only this appliance")->type_name("MAC");
  app.add_option("--timeout", line.timeout,
                 "wait this long for answers; default: 2, or more for slow commands")
      ->type_name("SECONDS");
  app.add_flag("--json", options.json, "print one JSON object per line for each appliance");
  app.add_option("--pass-phrase", line.pass_phrase,
                 "pass phrase of the command mode; default: $BHCTL_PASS_PHRASE")
      ->type_name("TEXT");
  app.add_option("--password", line.password, "administrator's password; default: $BHCTL_PASSWORD")
      ->type_name("TEXT");
  app.add_flag("--password-stdin", options.password_stdin,
               "read the administrator's password from standard input");
  app.add_flag("--yes", options.assume_yes, "do not ask for confirmation");
  app.set_version_flag("--version", "bhctl " BHCTL_VERSION, "print the version");
  app.set_help_flag("-h,--help", "print this help");
}

// Extra words are allowed here, because CheckLeftovers has better messages than the parser.
void DeclareCommands(CLI::App &app, CommandLine &line) {
  app.fallthrough();
  app.allow_extras();
  app.require_subcommand(0, 1);
  for (const SubCommand &command : Commands()) {
    CLI::App *declared = app.add_subcommand(command.name, command.description);
    declared->group("Commands");
    declared->footer("Global options and exit status: see 'bhctl --help'.");
    for (const Argument &argument : command.arguments) {
      std::string &value = line.arguments[command.name][argument.name];
      if (argument.flag)
        declared->add_flag(argument.name, value, argument.description)->disable_flag_override();
      else
        declared->add_option(argument.name, value, argument.description)
            ->type_name("")
            ->required(argument.required);
    }
  }
}

// The number of inserted, removed and replaced characters between two words.
size_t EditDistance(const std::string &from, const std::string &to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < from.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < to.size(); ++j) {
      const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

std::string UnknownCommand(const std::string &word) {
  constexpr size_t MAX_TYPO = 2;  // swapped characters count as two
  const auto best = std::min_element(
      Commands().begin(), Commands().end(), [&](const SubCommand &a, const SubCommand &b) {
        return EditDistance(word, a.name) < EditDistance(word, b.name);
      });
  std::string message = "unknown command '" + word + "'";
  if (EditDistance(word, best->name) <= MAX_TYPO) message += ", did you mean '" + best->name + "'?";
  return message;
}

int CheckLeftovers(const CLI::App &app) {
  std::vector<std::string> leftovers = app.remaining(true);
  std::erase(leftovers, "--");  // precedes a path that starts with '-'
  const bool command_found = !app.get_subcommands().empty();
  if (leftovers.empty()) return command_found ? EXIT_DONE : UsageError("a command is required");
  const std::string &word = leftovers.front();
  if (word[0] == '-') return UsageError("unknown option '" + word + "'");
  if (command_found) return UsageError("unexpected argument '" + word + "'");
  return UsageError(UnknownCommand(word));
}

std::optional<std::string> Environment(const char *name) {
  const char *value = getenv(name);
  if (value == nullptr) return std::nullopt;
  return value;
}

int CheckGlobalOptions(const CLI::App &app, const CommandLine &line, Options &options) {
  if (app.count("--interface") != 0 && line.interface.empty())
    return UsageError("--interface needs a name");
  options.interface = line.interface;
  if (app.count("--mac") != 0) {
    options.mac = ParseMac(line.mac);
    if (!options.mac) return UsageError("--mac: not a MAC address: '" + line.mac + "'");
    if (options.mac == BROADCAST_MAC) options.mac.reset();
  }
  if (!(line.timeout > 0 && line.timeout <= MAX_TIMEOUT))
    return UsageError("--timeout must be greater than 0 and at most a day");
  options.timeout = std::chrono::microseconds(static_cast<int64_t>(ceil(line.timeout * 1e6)));
  options.pass_phrase = app.count("--pass-phrase") != 0
                            ? line.pass_phrase
                            : Environment("BHCTL_PASS_PHRASE").value_or("");
  if (app.count("--password") != 0 && options.password_stdin)
    return UsageError("--password and --password-stdin cannot be combined");
  if (app.count("--password") != 0)
    options.password = line.password;
  else if (!options.password_stdin)
    options.password = Environment("BHCTL_PASSWORD");
  return EXIT_DONE;
}

int RunCommand(const CLI::App &app, const CommandLine &line, Options &options) {
  const CLI::App &chosen = *app.get_subcommands().front();
  const auto command =
      std::find_if(Commands().begin(), Commands().end(),
                   [&](const SubCommand &each) { return chosen.get_name() == each.name; });
  options.command = command->name;
  for (const Argument &argument : command->arguments) {
    if (chosen.count(argument.name) == 0) continue;
    options.arguments[argument.name] = line.arguments.at(command->name).at(argument.name);
  }
  if (app.count("--timeout") == 0) options.timeout = command->timeout;
  const int status = command->run(options);
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
  PrintError("cannot write to standard output");
  return EXIT_NO_ANSWER;
}

int Run(int argc, char **argv) {
  CLI::App app("Manages network-storage appliances on the local network.", "bhctl");
  CommandLine line;
  Options options;
  app.footer(FOOTER);
  app.get_formatter()->label("SUBCOMMAND", "COMMAND");
  DeclareGlobalOptions(app, line, options);
  DeclareCommands(app, line);
  try {
    app.parse(argc, argv);
  } catch (const CLI::CallForHelp &) {
    fputs(app.help().c_str(), stdout);
    return EXIT_DONE;
  } catch (const CLI::CallForVersion &version) {
    PrintLine(version.what());
    return EXIT_DONE;
  } catch (const CLI::ParseError &error) {
    return UsageError(error.what());
  }
  int status = CheckGlobalOptions(app, line, options);
  if (status == EXIT_DONE) status = CheckLeftovers(app);
  return status == EXIT_DONE ? RunCommand(app, line, options) : status;
}

}  // namespace
}  // namespace bhctl

int main(int argc, char **argv) {
  try {
    return bhctl::Run(argc, argv);
  } catch (const std::exception &error) {
    fprintf(stderr, "bhctl: %s\n", error.what());
    return bhctl::EXIT_NO_ANSWER;
  }
}
