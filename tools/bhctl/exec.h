// Remote commands: exec runs one on an appliance, result fetches what it left there. Each returns
// the program's exit status.

#ifndef BH_TOOLS_BHCTL_EXEC_H_
#define BH_TOOLS_BHCTL_EXEC_H_

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "tools/bhctl/datagram.h"
#include "tools/bhctl/options.h"

namespace bhctl {

// Arguments COMMAND and --type. The exit status is the command's own where the appliance tells it.
int Exec(const Options &options);

int Result(const Options &options);

// `text` is at most MAX_REQUEST_TEXT bytes and holds no NUL.
Request MakeCommandRequest(std::string_view text, uint32_t type);
Request MakeResultRequest();

// Whether an appliance has room for a command of this type; it answers others like refused ones.
bool FitsType(std::string_view text, uint32_t type);

struct CommandOutcome {
  bool ran = false;                // or was started; otherwise the appliance refused
  int exit_status = EXIT_REFUSED;  // a signal's number and 128 for what a signal has ended
  std::string output;              // of COMMAND_CAPTURED
};

// What the reply to a command of this type tells, once the appliance is known to run commands for
// this machine. Nothing when it makes no sense.
std::optional<CommandOutcome> ReadOutcome(uint32_t type, uint32_t result, Bytes body);

// The line in the body of ACP_RESULT_REPLY, with its line feed. Nothing when the lengths contradict
// each other.
std::optional<std::string> DecodeResultLine(Bytes body);

// The text with its line feeds and tabs, and otherwise as SafeText makes it.
std::string SafeLines(std::string_view text);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_EXEC_H_
