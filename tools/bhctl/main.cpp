// The command line of bhctl: global options, commands, usage errors. Every command returns the exit
// status.

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "tools/bhctl/commands.h"
#include "tools/bhctl/help.h"
#include "tools/bhctl/interrupt.h"
#include "tools/bhctl/options.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/suggest.h"
#include "tools/bhctl/targets.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

constexpr double MAX_TIMEOUT = 86400;  // seconds

using Values = std::map<std::string, std::string>;

// The parser's results, not yet checked.
struct CommandLine {
  Values globals;
  std::vector<std::string> targets;
  std::map<std::string, Values> arguments;  // by command, then by name
  std::vector<std::string> words;
  std::string help_for;
};

// Other spellings of an option.
struct Alias {
  const char *name;
  const char *alias;
};
constexpr Alias ALIASES[] = {
    {"--interface", "-i"}, {"--help", "-h"}, {"--count", "-c"}, {"--initialized", "--initialised"}};

int UsageError(const std::string &message) {
  PrintError(message);
  fputs("Try 'bhctl --help'.\n", stderr);
  return EXIT_USAGE;
}

// As the parser takes it: "-i,--interface".
std::string WithAlias(const std::string &name) {
  for (const Alias &alias : ALIASES)
    if (name == alias.name) return std::string(alias.alias) + "," + name;
  return name;
}

bool IsFlag(const Argument &argument) {
  return argument.name.starts_with("-") && argument.value.empty();
}

void Declare(CLI::App &app, const Argument &argument, std::string &value) {
  const std::string name = WithAlias(argument.name);
  if (IsFlag(argument))
    app.add_flag(name, value)->disable_flag_override()->take_last();
  else
    app.add_option(name, value)->take_last();
}

void DeclareGlobals(CLI::App &app, CommandLine &line) {
  app.set_help_flag();  // help is a global option like others
  for (const Argument &option : GlobalOptions()) {
    if (option.name == "--to")
      app.add_option("--to", line.targets)->allow_extra_args(false)->take_all();
    else
      Declare(app, option, line.globals[option.name]);
  }
}

// Extra words are allowed here, because CheckLeftovers has better messages than the parser.
void DeclareCommands(CLI::App &app, CommandLine &line) {
  app.fallthrough();
  app.allow_extras();
  app.require_subcommand(0, 1);
  CLI::App *help = app.add_subcommand("help");
  help->set_help_flag();
  help->add_option("COMMAND", line.help_for);
  for (const Command &command : Commands()) {
    CLI::App *declared = app.add_subcommand(command.name);
    declared->set_help_flag();
    for (const Argument &argument : command.arguments)
      if (!command.takes_words || argument.name.starts_with("-"))
        Declare(*declared, argument, line.arguments[command.name][argument.name]);
  }
}

const Argument *FindOption(const std::vector<Argument> &arguments, std::string name) {
  for (const Alias &alias : ALIASES)
    if (name == alias.alias) name = alias.name;
  const auto found =
      std::find_if(arguments.begin(), arguments.end(), [&](const Argument &argument) {
        return argument.name.starts_with("-") && argument.name == name;
      });
  return found == arguments.end() ? nullptr : &*found;
}

// Whether the next word is the option's value.
bool TakesNext(const std::string &word, const Command *command) {
  const Argument *option = FindOption(GlobalOptions(), word);
  if (option == nullptr && command != nullptr) option = FindOption(command->arguments, word);
  return option != nullptr && !option->value.empty();
}

// Where the words of a command begin that takes all that follows; the number of words if none does.
// "--" ends the options.
size_t WordsBegin(const std::vector<std::string> &args) {
  const Command *command = nullptr;
  for (size_t i = 0; i < args.size(); ++i) {
    const bool option = args[i].size() > 1 && args[i][0] == '-';
    if (command != nullptr && (!option || args[i] == "--")) return i;
    if (option) {
      if (TakesNext(args[i], command)) ++i;
      continue;
    }
    command = FindCommand(args[i]);
    if (command == nullptr || !command->takes_words) break;
  }
  return args.size();
}

// Cuts the words off the arguments.
void TakeWords(std::vector<std::string> &args, CommandLine &line) {
  const size_t begin = WordsBegin(args);
  line.words.assign(args.begin() + static_cast<ptrdiff_t>(begin), args.end());
  if (!line.words.empty() && line.words.front() == "--") line.words.erase(line.words.begin());
  args.resize(begin);
}

bool IsKnownFlag(const std::string &name) {
  const Argument *option = FindOption(GlobalOptions(), name);
  for (const Command &command : Commands())
    if (option == nullptr) option = FindOption(command.arguments, name);
  return option != nullptr && IsFlag(*option);
}

// The parser's own texts are for programmers. It fails only for a value that is too much or
// missing.
int ParseFailure(const CLI::ParseError &error, const std::vector<std::string> &args) {
  for (const std::string &word : args) {
    const size_t sign = word.find('=');
    if (sign != std::string::npos && IsKnownFlag(word.substr(0, sign)))
      return UsageError(word.substr(0, sign) + " takes no value");
  }
  const std::string text = error.what();
  return UsageError(SafeText(text.substr(0, text.find_first_of(": "))) + " needs a value");
}

std::vector<std::string> CommandNames() {
  std::vector<std::string> names = {"help"};
  for (const Command &command : Commands())
    names.push_back(command.name);
  return names;
}

std::vector<std::string> OptionNames(const Command *command) {
  std::vector<std::string> names;
  for (const Argument &option : GlobalOptions())
    names.push_back(option.name);
  if (command == nullptr) return names;
  for (const Argument &argument : command->arguments)
    if (argument.name.starts_with("-")) names.push_back(argument.name);
  return names;
}

int CheckLeftovers(const CLI::App &app, const Command *command) {
  std::vector<std::string> leftovers = app.remaining(true);
  std::erase(leftovers, "--");  // precedes a path that starts with '-'
  if (leftovers.empty())
    return command != nullptr ? EXIT_DONE : UsageError("a command is required");
  const std::string &word = leftovers.front();
  const std::string name = SafeText(word.substr(0, word.find('=')));
  if (word[0] == '-')
    return UsageError("unknown option '" + name + "'" + Suggestion(name, OptionNames(command)));
  if (command != nullptr) return UsageError("unexpected argument '" + SafeText(word) + "'");
  return UsageError("unknown command '" + SafeText(word) + "'" + Suggestion(word, CommandNames()));
}

std::string ListOf(const std::vector<std::string> &words) {
  std::string list;
  for (const std::string &word : words)
    list += (list.empty() ? "" : ", ") + word;
  return list;
}

int CheckWord(const Argument &argument, const std::string &value) {
  const auto &words = argument.words;
  if (words.empty() || std::find(words.begin(), words.end(), value) != words.end())
    return EXIT_DONE;
  return UsageError(argument.name + " must be one of " + ListOf(words) + ", not '" +
                    SafeText(value) + "'" + Suggestion(value, words));
}

int ReadArguments(const CLI::App &chosen, const Command &command, CommandLine &line,
                  Options &options) {
  options.command = command.name;
  options.words = line.words;
  if (command.takes_words && line.words.empty()) return UsageError("COMMAND is required");
  for (const Argument &argument : command.arguments) {
    if (command.takes_words && !argument.name.starts_with("-")) continue;
    if (chosen.count(argument.name) == 0) {
      if (argument.required) return UsageError(argument.name + " is required");
      continue;
    }
    const std::string &value = line.arguments[command.name][argument.name];
    if (const int status = CheckWord(argument, value); status != EXIT_DONE) return status;
    options.arguments[argument.name] = value;
  }
  return EXIT_DONE;
}

std::optional<std::string> Environment(const char *name) {
  const char *value = getenv(name);
  if (value == nullptr) return std::nullopt;
  return value;
}

int ReadTimeout(const CLI::App &app, const std::string &text, const Command &command,
                Options &options) {
  options.scope.timeout = command.timeout;
  options.timeout_given = app.count("--timeout") != 0;
  if (!options.timeout_given) return EXIT_DONE;
  double seconds = 0;
  const char *end = text.data() + text.size();
  const auto [after, error] = std::from_chars(text.data(), end, seconds);
  if (error != std::errc() || after != end || !(seconds > 0 && seconds <= MAX_TIMEOUT))
    return UsageError("--timeout must be a number of seconds, greater than 0 and at most a day");
  options.scope.timeout = std::chrono::microseconds(static_cast<int64_t>(ceil(seconds * 1e6)));
  return EXIT_DONE;
}

int ReadTargets(const CLI::App &app, const CommandLine &line, Options &options) {
  options.targets = line.targets;
  options.all = app.count("--all") != 0;
  if (app.count("--mac") != 0) {
    const std::string &text = line.globals.at("--mac");
    const std::optional<Mac> mac = ParseMac(text);
    if (!mac) return UsageError("--mac: not a MAC address: '" + SafeText(text) + "'");
    if (mac != BROADCAST_MAC) options.targets.push_back(text);
  }
  for (const std::string &target : options.targets)
    if (target.empty()) return UsageError("--to needs a name");
  // Discovery looks for everything, unless the command line itself says otherwise.
  const bool discovers = options.command == "discover" || options.command == "complete";
  const std::optional<std::string> standing = Environment("BHCTL_TO");
  if (!HasTargets(options) && !discovers && standing && !standing->empty())
    options.targets.push_back(*standing);
  return EXIT_DONE;
}

int ReadCount(const CLI::App &app, const CommandLine &line, const char *name,
              std::optional<size_t> &count) {
  if (app.count(name) == 0) return EXIT_DONE;
  const std::string &text = line.globals.at(name);
  const std::optional<uint32_t> number = ParseU32(text);
  if (!number || *number == 0)
    return UsageError(std::string(name) + " must be a number from 1, not '" + SafeText(text) + "'");
  count = *number;
  return EXIT_DONE;
}

int ReadLimits(const CLI::App &app, const CommandLine &line, Options &options) {
  std::optional<size_t> parallel;
  int status = ReadCount(app, line, "--parallel", parallel);
  if (status == EXIT_DONE) status = ReadCount(app, line, "--stop-after", options.limits.stop_after);
  options.limits.parallel = parallel.value_or(options.limits.parallel);
  return status;
}

int ReadSecrets(const CLI::App &app, const CommandLine &line, Options &options) {
  options.pass_phrase = app.count("--pass-phrase") != 0
                            ? line.globals.at("--pass-phrase")
                            : Environment("BHCTL_PASS_PHRASE").value_or("");
  options.password_stdin = app.count("--password-stdin") != 0;
  const bool given = app.count("--password") != 0;
  if (given && options.password_stdin)
    return UsageError("--password and --password-stdin cannot be combined");
  if (given)
    options.password = line.globals.at("--password");
  else if (!options.password_stdin)
    options.password = Environment("BHCTL_PASSWORD");
  return EXIT_DONE;
}

int ReadInterface(const CLI::App &app, const CommandLine &line, Options &options) {
  options.scope.interface = line.globals.at("--interface");
  if (app.count("--interface") == 0)
    options.scope.interface = Environment("BHCTL_INTERFACE").value_or("");
  else if (options.scope.interface.empty())
    return UsageError("--interface needs a name");
  return EXIT_DONE;
}

int ReadColor(const CLI::App &app, const CommandLine &line) {
  const std::string color = app.count("--color") == 0 ? "auto" : line.globals.at("--color");
  if (const int status = CheckWord(*FindOption(GlobalOptions(), "--color"), color);
      status != EXIT_DONE)
    return status;
  ChooseColor(color == "always" ? Color::ALWAYS : color == "never" ? Color::NEVER : Color::AUTO);
  return EXIT_DONE;
}

int ReadGlobals(const CLI::App &app, const CommandLine &line, const Command &command,
                Options &options) {
  options.json = app.count("--json") != 0;
  options.assume_yes = app.count("--yes") != 0;
  int status = ReadInterface(app, line, options);
  if (status == EXIT_DONE) status = ReadTargets(app, line, options);
  if (status == EXIT_DONE)
    status = ReadTimeout(app, line.globals.at("--timeout"), command, options);
  if (status == EXIT_DONE) status = ReadLimits(app, line, options);
  if (status == EXIT_DONE) status = ReadSecrets(app, line, options);
  return status == EXIT_DONE ? ReadColor(app, line) : status;
}

int Finish(int status) {
  if (fflush(stdout) == 0 && ferror(stdout) == 0) return status;
  PrintError("cannot write to standard output");
  return EXIT_NO_ANSWER;
}

int PrintHelp(const std::string &name) {
  const Command *command = FindCommand(name);
  if (command == nullptr && !name.empty() && name != "help")
    return UsageError("unknown command '" + SafeText(name) + "'" +
                      Suggestion(name, CommandNames()));
  PrintText(command == nullptr ? MainHelp() : CommandHelp(*command));
  return Finish(EXIT_DONE);
}

int RunCommandLine(const CLI::App &app, CommandLine &line) {
  const std::vector<CLI::App *> chosen = app.get_subcommands();
  const std::string name = chosen.empty() ? "" : chosen.front()->get_name();
  if (name == "help") return PrintHelp(line.help_for);
  if (app.count("--help") != 0) return PrintHelp(name);
  if (app.count("--version") != 0) {
    PrintLine("bhctl " BHCTL_VERSION);
    return Finish(EXIT_DONE);
  }
  const Command *command = FindCommand(name);
  int status = CheckLeftovers(app, command);
  if (status != EXIT_DONE) return status;
  Options options;
  status = ReadArguments(*chosen.front(), *command, line, options);
  if (status == EXIT_DONE) status = ReadGlobals(app, line, *command, options);
  if (status != EXIT_DONE) return status;
  options.scope.warn = PrintError;
  options.scope.cancel = CatchInterrupts();
  return Finish(command->run(options));
}

int Run(std::vector<std::string> args) {
  CLI::App app("", "bhctl");
  CommandLine line;
  DeclareGlobals(app, line);
  DeclareCommands(app, line);
  TakeWords(args, line);
  std::vector<std::string> backwards(args.rbegin(), args.rend());  // as the parser wants them
  try {
    app.parse(backwards);
  } catch (const CLI::ParseError &error) {
    return ParseFailure(error, args);
  }
  return RunCommandLine(app, line);
}

}  // namespace
}  // namespace bhctl

int main(int argc, char **argv) {
  try {
    return bhctl::Run({argv + std::min(argc, 1), argv + argc});
  } catch (const std::exception &error) {
    fprintf(stderr, "bhctl: %s\n", error.what());
    return bhctl::EXIT_NO_ANSWER;
  }
}
