// A command is sent once, to one appliance, over one interface. It is never repeated: a lost reply
// looks like a lost request, and the command may not be safe to run twice.

#include "tools/bhctl/exec.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "acp/body.h"
#include "tools/bhctl/client.h"
#include "tools/bhctl/credentials.h"
#include "tools/bhctl/print.h"
#include "tools/bhctl/refusal.h"
#include "tools/bhctl/session.h"
#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

// Limits of the appliance.
constexpr std::ptrdiff_t MAX_WORDS = 31;
constexpr size_t MAX_WORDS_LENGTH = 511;  // bytes
constexpr size_t MAX_TO_FILE = 511 - 23;  // " > " and the result file's name are appended

constexpr const char *NO_OPERATION = ":";  // of the shell

constexpr uint32_t MAX_WAIT_STATUS = 0xFFFF;
constexpr int SIGNALLED = 128;
constexpr int SIGNAL_BITS = 0x7F;
constexpr int NO_SHELL = 0xFF;  // the exit status of COMMAND_TO_FILE when system() gave -1

// Up to the first NUL.
std::string TextOf(Bytes bytes) {
  return {bytes.begin(), std::find(bytes.begin(), bytes.end(), uint8_t{0})};
}

// The layout of a Linux wait status is the same on every machine.
int ExitStatusOf(int wait_status) {
  const int signal = wait_status & SIGNAL_BITS;
  return signal != 0 ? SIGNALLED + signal : wait_status >> 8;
}

CommandOutcome WaitedOutcome(uint32_t result) {
  if (result > MAX_WAIT_STATUS) return {};
  return {true, ExitStatusOf(static_cast<int>(result)), ""};
}

// The appliance's child exits with the low byte of system()'s result. That byte has the signal that
// ended the shell; the command's own exit status is lost.
CommandOutcome ToFileOutcome(uint32_t result) {
  if (result > MAX_WAIT_STATUS) return {};
  const int status = static_cast<int>(result);
  if ((status & SIGNAL_BITS) != 0) return {true, ExitStatusOf(status), ""};
  if (status >> 8 == NO_SHELL) return {};
  return {true, ExitStatusOf(status >> 8), ""};
}

// Control characters are replaced on a terminal only.
void PrintOutput(const std::string &output) {
  const std::string shown = isatty(STDOUT_FILENO) == 1 ? SafeLines(output) : output;
  fwrite(shown.data(), 1, shown.size(), stdout);
}

int Malformed(const Answer &answer) {
  PrintError(MacText(answer.mac) + " sent a malformed reply");
  return EXIT_NO_ANSWER;
}

int Refused(const Options &options, const Answer &answer, const std::string &advice) {
  const std::string hint = "the command mode must be enabled for this machine (" +
                           MacText(answer.src_mac) +
                           "): give --pass-phrase or run 'bhctl enable'; " + advice;
  // ACP_STATE_FAILURE does not tell the reason.
  return ShowRefusal(options, answer.mac, answer.state,
                     answer.state == ACP_STATE_FAILURE ? hint : "");
}

// A wait status, or a body without output, means that the appliance could not fork.
int CommandRefused(const Options &options, Answer answer) {
  if (answer.state > MAX_WAIT_STATUS && answer.body.empty())
    return Refused(options, answer, "no background command may be running");
  answer.state = ACP_STATE_FAILURE;
  if (options.json) return Refused(options, answer, "");
  PrintError(MacText(answer.mac) + " could not start the command");
  return EXIT_REFUSED;
}

// Returns false with a message if the type is unknown or the command is too long for it.
bool ReadArguments(const Options &options, std::string &text, uint32_t &type) {
  text = options.arguments.at("COMMAND");
  type = COMMAND_CAPTURED;
  if (const std::string *digit = Given(options, "--type"); digit != nullptr) {
    if (digit->size() != 1 || digit->front() < '0' || digit->front() > '3') {
      PrintError("--type must be 0, 1, 2 or 3, not '" + *digit + "'");
      return false;
    }
    type = static_cast<uint32_t>(digit->front() - '0');
  }
  if (FitsType(text, type)) return true;
  PrintError("COMMAND must have 1 to " + std::to_string(MAX_REQUEST_TEXT) +
             " bytes; with --type 0 or 1 at most " + std::to_string(MAX_WORDS_LENGTH) +
             " bytes and " + std::to_string(MAX_WORDS) + " words; with --type 2 at most " +
             std::to_string(MAX_TO_FILE) + " bytes");
  return false;
}

// Chooses one appliance and one interface: an appliance that two interfaces reach would run the
// command twice. Enables the command mode if the pass phrase is known.
int ChooseAppliance(const Options &options, Options &chosen) {
  const Credentials credentials = CredentialsOf(options);
  Session session;
  const int status = OpenSession(options, SecretsOf(credentials), session);
  if (status != EXIT_DONE) return status;
  chosen = SessionOptions(options, session);
  return AuthorizeOrReport(chosen, session, credentials);
}

// The reply to a background command is the same whether it was started or refused. So first a
// command that does nothing shows whether the appliance accepts commands.
int CheckPermission(const Options &options) {
  Answer answer;
  const int status = AskOne(options, MakeCommandRequest(NO_OPERATION, COMMAND_CAPTURED), answer);
  if (status != EXIT_DONE || answer.state == ACP_STATE_OK) return status;
  return CommandRefused(options, answer);
}

void ShowOutcome(const Options &options, uint32_t type, const Answer &answer,
                 const CommandOutcome &outcome) {
  if (options.json) {
    Json object = {{"mac", MacText(answer.mac)}, {"state", StateName(ACP_STATE_OK)}};
    if (type == COMMAND_CAPTURED) object["output"] = outcome.output;
    if (type == COMMAND_WAITED || type == COMMAND_TO_FILE)
      object["exit_status"] = outcome.exit_status;
    PrintJson(object);
  } else if (type == COMMAND_BACKGROUND) {
    PrintLine("started");
  } else {
    PrintOutput(outcome.output);
  }
  if (outcome.output.size() == MAX_OUTPUT)
    PrintError("the output may be truncated; --type 2 and 'bhctl result' give all of it");
}

}  // namespace

Request MakeCommandRequest(std::string_view text, uint32_t type) {
  Request request = {ACP_CMD, ACP_CMD_REPLY, 0, {}};
  request.body = BodyOf(CommandRequest{static_cast<uint32_t>(text.size()), type});
  request.body.insert(request.body.end(), text.begin(), text.end());
  request.body.insert(request.body.end(), COMMAND_TAIL, 0);
  return request;
}

Request MakeResultRequest() {
  return {ACP_RESULT, ACP_RESULT_REPLY, sizeof(OutputReply) + RESULT_TAIL, {}};
}

bool FitsType(std::string_view text, uint32_t type) {
  if (text.empty() || text.size() > MAX_REQUEST_TEXT) return false;
  if (type == COMMAND_CAPTURED) return true;
  if (type == COMMAND_TO_FILE) return text.size() <= MAX_TO_FILE;
  const std::ptrdiff_t spaces = std::count(text.begin(), text.end(), ' ');
  const std::ptrdiff_t words = text.back() == ' ' ? spaces : spaces + 1;
  return text.size() <= MAX_WORDS_LENGTH && words <= MAX_WORDS;
}

std::optional<CommandOutcome> ReadOutcome(uint32_t type, uint32_t result, Bytes body) {
  if (type == COMMAND_WAITED) return WaitedOutcome(result);
  if (type == COMMAND_TO_FILE) return ToFileOutcome(result);
  if (type == COMMAND_BACKGROUND)
    return result == ACP_STATE_FAILURE ? CommandOutcome{true, EXIT_DONE, ""} : CommandOutcome{};
  if (result != ACP_STATE_OK) return CommandOutcome{};
  if (body.size() < sizeof(OutputReply) + OUTPUT_TAIL) return std::nullopt;
  return CommandOutcome{true, EXIT_DONE, TextOf(body.subspan(sizeof(OutputReply)))};
}

std::optional<std::string> DecodeResultLine(Bytes body) {
  if (body.size() < sizeof(OutputReply) + RESULT_TAIL) return std::nullopt;
  const uint32_t length = BodyRecord<OutputReply>(body).length;
  const Bytes rest = body.subspan(sizeof(OutputReply));
  if (length > rest.size() - RESULT_TAIL) return std::nullopt;
  return TextOf(rest.first(length));
}

std::string SafeLines(std::string_view text) {
  std::string safe;
  while (!text.empty()) {
    const size_t length = std::min(text.find_first_of("\n\t"), text.size());
    safe += SafeText(text.substr(0, length));
    safe += text.substr(length, 1);
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return safe;
}

int Exec(const Options &options) {
  std::string text;
  uint32_t type = 0;
  if (!ReadArguments(options, text, type)) return EXIT_USAGE;
  Options chosen;
  int status = ChooseAppliance(options, chosen);
  if (status == EXIT_DONE && type == COMMAND_BACKGROUND) status = CheckPermission(chosen);
  if (status != EXIT_DONE) return status;
  Answer answer;
  status = AskOne(chosen, MakeCommandRequest(text, type), answer);
  if (status == EXIT_NO_ANSWER) PrintError("the appliance may have run the command anyway");
  if (status != EXIT_DONE) return status;
  const std::optional<CommandOutcome> outcome = ReadOutcome(type, answer.state, answer.body);
  if (!outcome) return Malformed(answer);
  if (!outcome->ran) return CommandRefused(options, answer);
  ShowOutcome(options, type, answer, *outcome);
  return outcome->exit_status;
}

// Each reply has the next line. An empty line is the end.
int Result(const Options &options) {
  Options chosen;
  int status = ChooseAppliance(options, chosen);
  while (status == EXIT_DONE) {
    Answer answer;
    status = AskOne(chosen, MakeResultRequest(), answer);
    if (status == EXIT_NO_ANSWER) PrintError("one line of the output may be lost");
    if (status != EXIT_DONE) break;
    if (answer.state != ACP_STATE_OK)
      return Refused(options, answer, "run exec --type 2 first, and wait for its end");
    const std::optional<std::string> line = DecodeResultLine(answer.body);
    if (!line) return Malformed(answer);
    if (line->empty()) break;
    if (options.json)
      PrintJson(
          {{"mac", MacText(answer.mac)}, {"state", StateName(ACP_STATE_OK)}, {"output", *line}});
    else
      PrintOutput(*line);
  }
  return status;
}

}  // namespace bhctl
