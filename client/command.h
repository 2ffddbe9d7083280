// Remote commands. A command is sent once: a lost reply looks like a lost request, and the command
// may not be safe to run twice.

#ifndef BH_CLIENT_COMMAND_H_
#define BH_CLIENT_COMMAND_H_

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "client/exchange.h"
#include "client/session.h"

namespace acp {

// `text` has at most MAX_REQUEST_TEXT bytes and no NUL.
Request MakeCommandRequest(std::string_view text, uint32_t type);
Request MakeResultRequest();

// Limits of the appliance.
constexpr std::ptrdiff_t MAX_WORDS = 31;
constexpr size_t MAX_WORDS_LENGTH = 511;  // bytes
constexpr size_t MAX_TO_FILE = 511 - 23;  // " > " and the result file's name are appended

// Whether the command fits the appliance's limits. The appliance refuses longer ones.
bool FitsType(std::string_view text, uint32_t type);

struct CommandOutcome {
  bool ran = false;     // or was started; false: refused
  int exit_status = 1;  // after a signal: 128 plus its number
  std::string output;   // of COMMAND_CAPTURED
  bool cut = false;     // there was more output
};

// Decodes the reply to a command of this type. For COMMAND_BACKGROUND the appliance must be known
// to accept commands. Returns nullopt if the reply is malformed.
std::optional<CommandOutcome> ReadOutcome(uint32_t type, uint32_t result, Bytes body);

// The line in the body of ACP_RESULT_REPLY, with its line feed. Returns nullopt if the lengths are
// inconsistent.
std::optional<std::string> DecodeResultLine(Bytes body);

// Runs the command in an authorised session. Done if it ran, whatever its exit status.
Outcome RunCommand(const Scope &scope, const Session &session, std::string_view text, uint32_t type,
                   CommandOutcome &command);

// Gets the output of a COMMAND_TO_FILE that ended, line by line. Each line leaves the appliance
// with its reply; one whose reply is lost is lost.
Outcome FetchResult(const Scope &scope, const Session &session,
                    const std::function<void(const std::string &line)> &each);

}  // namespace acp

#endif  // BH_CLIENT_COMMAND_H_
