#include "tools/bhctl/exec.h"

#include <unistd.h>

#include <nlohmann/json.hpp>

#include "client/command.h"
#include "tools/bhctl/password.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/targets.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

struct Command {
  std::string text;
  uint32_t type = COMMAND_CAPTURED;
  bool full = false;  // its whole output: through the result file
};

// The appliance's shell sends only the last of several commands to the file, so they become one.
const std::string FULL_BEGIN = "(";
const std::string FULL_END = "\n)";  // also behind a comment
const size_t MAX_FULL = MAX_TO_FILE - FULL_BEGIN.size() - FULL_END.size();

// Control characters are replaced on a terminal only.
void PrintOutput(const std::string &output) {
  PrintText(isatty(STDOUT_FILENO) == 1 ? SafeLines(output) : output);
}

// As the shell would see them, like ssh.
std::string Join(const std::vector<std::string> &words) {
  std::string text;
  for (const std::string &word : words)
    text += (text.empty() ? "" : " ") + word;
  return text;
}

int ReadType(const Options &options, Command &command) {
  const std::string *digit = Given(options, "--type");
  command.full = Given(options, "--full") != nullptr;
  if (command.full) command.type = COMMAND_TO_FILE;
  if (digit == nullptr) return EXIT_DONE;
  if (command.full) return UsageFailure("--type and --full cannot be combined");
  if (digit->size() != 1 || digit->front() < '0' || digit->front() > '3')
    return UsageFailure("--type must be 0, 1, 2 or 3, not '" + SafeText(*digit) + "'");
  command.type = static_cast<uint32_t>(digit->front() - '0');
  return EXIT_DONE;
}

int ReadCommand(const Options &options, Command &command) {
  const int status = ReadType(options, command);
  if (status != EXIT_DONE) return status;
  command.text = Join(options.words);
  const bool empty = command.text.empty();
  if (command.full) command.text = FULL_BEGIN + command.text + FULL_END;
  if (!empty && FitsType(command.text, command.type)) return EXIT_DONE;
  return UsageFailure("COMMAND must have 1 to " + std::to_string(MAX_REQUEST_TEXT) +
                      " bytes; with --type 0 or 1 at most " + std::to_string(MAX_WORDS_LENGTH) +
                      " bytes and " + std::to_string(MAX_WORDS) + " words; with --type 2 at most " +
                      std::to_string(MAX_TO_FILE) + " bytes, with --full " +
                      std::to_string(MAX_FULL));
}

// An appliance that two interfaces reach would run the command twice: a session is with one.
Outcome OpenAuthorized(const Options &options, const Target &target, Session &session) {
  const Credentials credentials = CredentialsOf(options);
  Outcome outcome = OpenSession(options.scope, *target.discovered, SecretsOf(credentials), session);
  if (!outcome.IsDone()) return outcome;
  return Authorize(SessionScope(options.scope, session), session, credentials);
}

void Show(const Options &options, const Target &target, const Command &command,
          const CommandOutcome &outcome) {
  const bool has_output = command.type == COMMAND_CAPTURED || command.full;
  if (options.json) {
    Json object = {{"mac", MacText(target.GetMac())}, {"state", StateName(ACP_STATE_OK)}};
    if (has_output) object["output"] = outcome.output;
    if (command.type == COMMAND_CAPTURED) object["truncated"] = outcome.cut;
    if (command.type == COMMAND_WAITED || command.type == COMMAND_TO_FILE)
      object["exit_status"] = outcome.exit_status;
    PrintJson(object);
  } else if (command.type == COMMAND_BACKGROUND) {
    PrintLine("started");
  } else {
    PrintOutput(outcome.output);
  }
  if (outcome.cut && !options.json) PrintText("\n");  // the output ends within a line
  if (outcome.cut)
    PrintError("the output may be truncated: the reply holds no more; --full gives all of it");
}

int RunOn(const Options &options, const Target &target, const Command &command) {
  Session session;
  CommandOutcome result;
  Outcome outcome = OpenAuthorized(options, target, session);
  if (outcome.IsDone())
    outcome = RunCommand(options.scope, session, command.text, command.type, result);
  if (outcome.IsDone() && command.full)
    outcome = FetchResult(options.scope, session,
                          [&](const std::string &line) { result.output += line; });
  // A command without output leaves no result file.
  if (command.full && outcome.result == acp::Result::REFUSED && result.ran) outcome = {};
  if (!outcome.IsDone() && result.ran) PrintOutput(result.output);
  if (!outcome.IsDone()) return Report(options, target.GetMac(), outcome);
  Show(options, target, command, result);
  return result.exit_status;
}

int FetchFrom(const Options &options, const Target &target) {
  Session session;
  Outcome outcome = OpenAuthorized(options, target, session);
  const auto show = [&](const std::string &line) {
    if (!options.json) return PrintOutput(line);
    PrintJson(
        {{"mac", MacText(target.GetMac())}, {"state", StateName(ACP_STATE_OK)}, {"output", line}});
  };
  if (outcome.IsDone()) outcome = FetchResult(options.scope, session, show);
  return outcome.IsDone() ? EXIT_DONE : Report(options, target.GetMac(), outcome);
}

}  // namespace

int Exec(const Options &options) {
  Command command;
  const int status = ReadCommand(options, command);
  if (status != EXIT_DONE) return status;
  return RunOnChosen(options, [&](const Options &chosen, const Target &target) {
    return RunOn(chosen, target, command);
  });
}

int ShowResult(const Options &options) {
  return RunOnChosen(options, FetchFrom);
}

}  // namespace bhctl
