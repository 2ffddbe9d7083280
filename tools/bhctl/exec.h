// Remote commands: exec runs one on an appliance, result fetches its output. Both return the
// program's exit status.

#ifndef BH_TOOLS_BHCTL_EXEC_H_
#define BH_TOOLS_BHCTL_EXEC_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"

namespace bhctl {

// Arguments COMMAND and --type. The exit status is the command's own if the appliance sends it.
int Exec(const Options &options);

int Result(const Options &options);

// `text` has at most MAX_REQUEST_TEXT bytes and no NUL.
Request MakeCommandRequest(std::string_view text, uint32_t type);
Request MakeResultRequest();

// Whether the command fits the appliance's limits. The appliance refuses longer ones.
bool FitsType(std::string_view text, uint32_t type);

struct CommandOutcome {
  bool ran = false;                // or was started; false: refused
  int exit_status = EXIT_REFUSED;  // after a signal: 128 plus its number
  std::string output;              // of COMMAND_CAPTURED
};

// Decodes the reply to a command of this type. For COMMAND_BACKGROUND the appliance must be known
// to accept commands. Returns nullopt if the reply is malformed.
std::optional<CommandOutcome> ReadOutcome(uint32_t type, uint32_t result, Bytes body);

// The line in the body of ACP_RESULT_REPLY, with its line feed. Returns nullopt if the lengths are
// inconsistent.
std::optional<std::string> DecodeResultLine(Bytes body);

// Like SafeText, but keeps line feeds and tabs.
std::string SafeLines(std::string_view text);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_EXEC_H_
