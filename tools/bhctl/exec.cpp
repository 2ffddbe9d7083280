// A command is sent once, to one appliance, over one interface, and never again: neither a lost
// request nor a lost reply shows, and a command need not be one that may run twice.

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

// What an appliance has room for.
constexpr std::ptrdiff_t MAX_WORDS = 31;
constexpr size_t MAX_WORDS_LENGTH = 511;  // bytes
constexpr size_t MAX_TO_FILE = 511 - 23;  // " > " and the result file's name come to it

constexpr const char *NO_OPERATION = ":";  // to the shell

constexpr uint32_t MAX_WAIT_STATUS = 0xFFFF;
constexpr int SIGNALLED = 128;
constexpr int SIGNAL_BITS = 0x7F;
constexpr int NO_SHELL = 0xFF;  // the exit status of COMMAND_TO_FILE when system() gave -1

// Up to the first NUL.
std::string TextOf(Bytes bytes) {
  return {bytes.begin(), std::find(bytes.begin(), bytes.end(), uint8_t{0})};
}

// A Linux wait status; its layout is the same on every machine.
int ExitStatusOf(int wait_status) {
  const int signal = wait_status & SIGNAL_BITS;
  return signal != 0 ? SIGNALLED + signal : wait_status >> 8;
}

CommandOutcome WaitedOutcome(uint32_t result) {
  if (result > MAX_WAIT_STATUS) return {};
  return {true, ExitStatusOf(static_cast<int>(result)), ""};
}

// The appliance's child ends with the low byte of what system() gave it. That byte holds the signal
// that has ended the shell; of a command's own exit status nothing is left.
CommandOutcome ToFileOutcome(uint32_t result) {
  if (result > MAX_WAIT_STATUS) return {};
  const int status = static_cast<int>(result);
  if ((status & SIGNAL_BITS) != 0) return {true, ExitStatusOf(status), ""};
  if (status >> 8 == NO_SHELL) return {};
  return {true, ExitStatusOf(status >> 8), ""};
}

// On a terminal nothing of it is a command to that; elsewhere it is left as it is.
void PrintOutput(const std::string &output) {
  const std::string shown = isatty(STDOUT_FILENO) == 1 ? SafeLines(output) : output;
  fwrite(shown.data(), 1, shown.size(), stdout);
}

int Senseless(const Answer &answer) {
  PrintError(MacText(answer.mac) + " sent an answer that makes no sense");
  return EXIT_NO_ANSWER;
}

int Refused(const Options &options, const Answer &answer, const std::string &advice) {
  const std::string hint = "command mode must be enabled for this machine (" +
                           MacText(answer.src_mac) +
                           "): give --pass-phrase or run 'bhctl enable'; and " + advice;
  // ACP_STATE_FAILURE tells nothing more.
  return ShowRefusal(options, answer.mac, answer.state,
                     answer.state == ACP_STATE_FAILURE ? hint : "");
}

// A wait status, or a body without output, is no refusal: the appliance had no process to spare.
int CommandRefused(const Options &options, Answer answer) {
  if (answer.state > MAX_WAIT_STATUS && answer.body.empty())
    return Refused(options, answer, "no command may be running in the background");
  answer.state = ACP_STATE_FAILURE;
  if (options.json) return Refused(options, answer, "");
  PrintError(MacText(answer.mac) + " could not start the command");
  return EXIT_REFUSED;
}

// False, with a message, when there is no such type or the command does not suit it.
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
             " bytes; with --type 0 or 1 at most " + std::to_string(MAX_WORDS_LENGTH) + " and " +
             std::to_string(MAX_WORDS) + " words, with --type 2 at most " +
             std::to_string(MAX_TO_FILE));
  return false;
}

// For one appliance over the interface that leads to it: two interfaces may well lead to the same
// one, which would then run a command twice. Enables the command mode if the pass phrase is known.
int ChooseAppliance(const Options &options, Options &chosen) {
  const Credentials credentials = CredentialsOf(options);
  Session session;
  const int status = OpenSession(options, SecretsOf(credentials), session);
  if (status != EXIT_DONE) return status;
  chosen = SessionOptions(options, session);
  return AuthorizeOrTell(chosen, session, credentials);
}

// A command that was started in the background is answered like a refused one. What the appliance
// makes of a command that does nothing tells them apart.
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
    PrintError("the output may have been cut; --type 2 and 'bhctl result' give all of it");
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
  if (status == EXIT_NO_ANSWER) PrintError("the command may have been run all the same");
  if (status != EXIT_DONE) return status;
  const std::optional<CommandOutcome> outcome = ReadOutcome(type, answer.state, answer.body);
  if (!outcome) return Senseless(answer);
  if (!outcome->ran) return CommandRefused(options, answer);
  ShowOutcome(options, type, answer, *outcome);
  return outcome->exit_status;
}

// The appliance hands out a line once; an empty one is the end.
int Result(const Options &options) {
  Options chosen;
  int status = ChooseAppliance(options, chosen);
  while (status == EXIT_DONE) {
    Answer answer;
    status = AskOne(chosen, MakeResultRequest(), answer);
    if (status == EXIT_NO_ANSWER) PrintError("a line of the result may be lost");
    if (status != EXIT_DONE) break;
    if (answer.state != ACP_STATE_OK)
      return Refused(options, answer,
                     "no command may be running now, one with --type 2 having run before");
    const std::optional<std::string> line = DecodeResultLine(answer.body);
    if (!line) return Senseless(answer);
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
