// The four types of commands answer in four ways.

#include "client/command.h"

#include <algorithm>
#include <cstddef>

#include "acp/body.h"
#include "client/credentials.h"
#include "client/format.h"

namespace acp {
namespace {

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

Outcome Malformed() {
  return Failure(Result::NO_ANSWER, "the reply is malformed");
}

// ACP_STATE_FAILURE does not tell the reason.
Outcome Refused(const Session &session, uint32_t state, const std::string &advice) {
  const std::string hint =
      state == ACP_STATE_FAILURE ? NotEnabledHint(session) + "; " + advice : "";
  return Refusal(state, hint);
}

// A wait status, or a body without output, means that the appliance could not fork.
Outcome CommandRefused(const Session &session, const Answer &answer) {
  if (answer.state > MAX_WAIT_STATUS && answer.body.empty())
    return Refused(session, answer.state, "no background command may be running");
  Outcome outcome = Refusal(ACP_STATE_FAILURE, "");
  outcome.message = "could not start the command";
  return outcome;
}

// The reply to a background command is the same whether it was started or refused. So first a
// command that does nothing shows whether the appliance accepts commands.
Outcome CheckPermission(const Scope &scope, const Session &session) {
  Answer answer;
  Outcome outcome = AskOne(scope, MakeCommandRequest(NO_OPERATION, COMMAND_CAPTURED), answer);
  if (!outcome.IsDone() || answer.state == ACP_STATE_OK) return outcome;
  return CommandRefused(session, answer);
}

Outcome Lost(Outcome outcome) {
  if (outcome.result == Result::NO_ANSWER)
    outcome.hint = "the appliance may have run the command anyway";
  if (outcome.result == Result::CANCELLED)
    outcome.hint = "the command goes on, and the appliance answers nobody until it ends";
  return outcome;
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
    return result == ACP_STATE_FAILURE ? CommandOutcome{true, 0, ""} : CommandOutcome{};
  if (result != ACP_STATE_OK) return CommandOutcome{};
  if (body.size() < sizeof(OutputReply) + OUTPUT_TAIL) return std::nullopt;
  CommandOutcome outcome = {true, 0, TextOf(body.subspan(sizeof(OutputReply)))};
  outcome.cut = outcome.output.size() == MAX_OUTPUT;
  return outcome;
}

std::optional<std::string> DecodeResultLine(Bytes body) {
  if (body.size() < sizeof(OutputReply) + RESULT_TAIL) return std::nullopt;
  const uint32_t length = BodyRecord<OutputReply>(body).length;
  const Bytes rest = body.subspan(sizeof(OutputReply));
  if (length > rest.size() - RESULT_TAIL) return std::nullopt;
  return TextOf(rest.first(length));
}

Outcome RunCommand(const Scope &scope, const Session &session, std::string_view text, uint32_t type,
                   CommandOutcome &command) {
  const Scope chosen = SessionScope(scope, session);
  Outcome outcome;
  if (type == COMMAND_BACKGROUND) outcome = CheckPermission(chosen, session);
  if (!outcome.IsDone()) return outcome;
  Answer answer;
  outcome = Lost(AskOne(chosen, MakeCommandRequest(text, type), answer));
  if (!outcome.IsDone()) return outcome;
  const std::optional<CommandOutcome> read = ReadOutcome(type, answer.state, answer.body);
  if (!read) return Malformed();
  command = *read;
  return command.ran ? Outcome() : CommandRefused(session, answer);
}

// Each reply has the next line. An empty line is the end.
Outcome FetchResult(const Scope &scope, const Session &session,
                    const std::function<void(const std::string &line)> &each) {
  const Scope chosen = SessionScope(scope, session);
  for (;;) {
    Answer answer;
    Outcome outcome = AskOne(chosen, MakeResultRequest(), answer);
    if (outcome.result == Result::NO_ANSWER) outcome.hint = "one line of the output may be lost";
    if (!outcome.IsDone()) return outcome;
    if (answer.state != ACP_STATE_OK)
      return Refused(session, answer.state, "run exec --type 2 first, and wait for its end");
    const std::optional<std::string> line = DecodeResultLine(answer.body);
    if (!line) return Malformed();
    if (line->empty()) return {};
    each(*line);
  }
}

}  // namespace acp
