// Commands run in the server's own loop, except those in the background. cmd_chpid holds the pid of
// a background command until the SIGCHLD handler has collected it. Until then no other command is
// accepted.

#include "handlers/command.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <span>
#include <string>
#include <utility>

#include "access/command_mode.h"
#include "acp/body.h"
#include "acp/reply.h"
#include "daemon/process.h"
#include "daemon/state.h"
#include "daemon/trace.h"
#include "lib/text.h"

namespace {

constexpr size_t MAX_RESULT_LINE = 511;  // characters, line feed included
constexpr size_t REPLY_BUFFER = 7500;    // bytes, header included

// The record's size as clients count it: its two numbers and the text's first byte with padding.
constexpr int32_t COMMAND_RECORD = 12;
constexpr int32_t HEADER = ACP_HEADER_SIZE;

// The request, taken apart once.
struct Command {
  int32_t length;    // of the text as the client says
  uint32_t type;     // AcpCommandType
  std::string text;  // what came of it
};

Command ReadCommand(const AcpRequest &request) {
  const std::span<const uint8_t> body = RequestBody(request);
  Command command = {};
  // Without a body there is no command, not an empty one: no text is -1 bytes long.
  command.length =
      body.empty() ? -1 : static_cast<int32_t>(BodyU32(body, offsetof(CommandRequest, length)));
  command.type = BodyU32(body, offsetof(CommandRequest, type));
  command.text = BodyText(body, sizeof(CommandRequest));
  return command;
}

// Counted in 64 bits: a length near the largest number does not wrap, a negative one fits nothing.
bool IsComplete(const AcpRequest &request, const Command &command) {
  const int64_t wanted = int64_t{HEADER} + COMMAND_RECORD + command.length - 1;
  if (request.recvlen >= wanted) return true;
  DebugPrint("recvlen(%d)!=ACPHeader(%d)+ACPCOMMAND(%d)+cmdlen(%ld)-1\n", request.recvlen, HEADER,
             COMMAND_RECORD, static_cast<long>(command.length));
  return false;
}

// The routines' own limits; exec_capture has none.
bool CanRun(const Command &command) {
  if (command.type == COMMAND_TO_FILE) return FitsExec2(command.text, daemon_state.result_file);
  return command.type == COMMAND_CAPTURED || FitsExec1(command.text);
}

// Whether the command may run; says why not, and what came, in the trace.
bool Admit(const AcpRequest &request, const Command &command) {
  const int64_t most = int64_t{command.length} + 1;
  const int64_t checked =
      std::clamp<int64_t>(std::ssize(command.text), 0, std::max<int64_t>(most, 0));
  bool admitted = false;
  if (checked == command.length && command.type <= COMMAND_CAPTURED &&
      daemon_state.cmd_chpid <= 0) {
    admitted = CheckEnabledClient(request) >= 0;
    DebugPrint("%s", admitted ? "Permit One Command!!!! \n" : "Don't permit One Command!!!! \n");
  }
  DebugPrint("len(%ld) checklen(%d) type(%ld)\n", static_cast<long>(command.length),
             static_cast<int>(checked), static_cast<long>(static_cast<int32_t>(command.type)));
  return admitted && CanRun(command);
}

// A fork that fails leaves the status word at the 0 of the admission.
int32_t RunWords(const Command &command) {
  int32_t status = 0;
  const int32_t type = static_cast<int32_t>(command.type);
  ChildSignalBlock block;  // until the child's pid is stored
  daemon_state.cmd_chpid = exec1(command.text.c_str(), type, &status);
  block.Release();
  DebugPrint("exec1>%s (type=%d) ret=0x%x\n", command.text.c_str(), type,
             static_cast<unsigned>(status));
  return status;
}

int32_t RunToFile(const Command &command) {
  int32_t status = 0;
  const int32_t type = static_cast<int32_t>(command.type);
  daemon_state.cmd_chpid = exec2(command.text.c_str(), type, daemon_state.result_file, &status);
  DebugPrint("exec2>%s (type=%d) ret=0x%x\n", command.text.c_str(), type,
             static_cast<unsigned>(daemon_state.cmd_chpid));
  return status;
}

// Room for any reply of this file; null, with a word in the trace, without memory.
Reply AllocateBuffer() {
  Reply reply = AllocateReply(REPLY_BUFFER - ACP_HEADER_SIZE);
  if (!reply.bytes) DebugPrint("**  AllocateMemory fail\r\n");
  return reply;
}

// The output goes into the reply, up to its first NUL byte. False when there is no memory.
bool AnswerWithOutput(const AcpRequest &request, const Command &command) {
  char output[MAX_OUTPUT + 1] = "";
  Reply reply = AllocateBuffer();
  if (!reply.bytes) return false;
  const int32_t result = exec_capture(command.text.c_str(), output, sizeof(output));
  const size_t length = strlen(output);
  memcpy(reply.bytes.get() + ACP_HEADER_SIZE + sizeof(OutputReply), output, length);
  reply.length = ACP_HEADER_SIZE + sizeof(OutputReply) + length + OUTPUT_TAIL;
  SendReply(request, std::move(reply), ACP_CMD_REPLY, static_cast<uint32_t>(result));
  DebugPrint("result=0x%x\n", static_cast<unsigned>(result));
  return true;
}

// Takes the first line, up to its first NUL byte, off the result file into `line`; what remains
// goes into the temporary file. False when one of them cannot be used.
bool TakeResultLine(std::string &line) {
  const FilePtr results = OpenRegularFile(daemon_state.result_file);
  if (!results || !RemoveLeftover(daemon_state.result_tmp_file)) return false;
  FilePtr rest = CreateRegularFile(daemon_state.result_tmp_file);
  if (!rest) return false;
  char first[MAX_RESULT_LINE + 1] = "";
  if (fgets(first, sizeof(first), results.get()) != nullptr) line = first;
  char chunk[8192];
  size_t length = 0;
  bool copied = true;
  while (copied && (length = fread(chunk, 1, sizeof(chunk), results.get())) > 0)
    copied = fwrite(chunk, 1, length, rest.get()) == length;
  copied = copied && ferror(results.get()) == 0;
  return WriteAndClose(std::move(rest), "") == 0 && copied;
}

bool MayFetchResult(const AcpRequest &request) {
  return (get_mode_flags() & MODE_COMMAND_ENABLED) != 0 && CheckEnabledClient(request) == 0 &&
         daemon_state.cmd_chpid == 0;
}

void DropResultLine() {
  unlink(daemon_state.result_file);
  rename(daemon_state.result_tmp_file, daemon_state.result_file);
  DebugPrint("Result file update\r\n");
}

}  // namespace

int32_t ACP_command_reply(const AcpRequest &request) {
  DebugPrint("-> ACP_command_reply\r\n");
  const Command command = ReadCommand(request);
  int32_t result = -1;
  if (IsComplete(request, command) && Admit(request, command)) {
    DebugPrint("cmd=[%s]\n", command.text.c_str());
    if (command.type == COMMAND_CAPTURED && AnswerWithOutput(request, command)) return 0;
    if (command.type == COMMAND_TO_FILE) result = RunToFile(command);
    if (command.type < COMMAND_TO_FILE) result = RunWords(command);
  }
  SendState(request, ACP_CMD_REPLY, static_cast<uint32_t>(result));
  return 0;
}

int32_t ACP_result_reply(const AcpRequest &request) {
  DebugPrint("-> ACP_result_reply\r\n");
  Reply reply = AllocateBuffer();
  if (!reply.bytes) return -1;
  std::string line;
  const bool taken = MayFetchResult(request) && TakeResultLine(line);
  OutputReply header = {};
  if (taken) {
    header.length = static_cast<uint32_t>(line.size());
    line.copy(reinterpret_cast<char *>(reply.bytes.get()) + ACP_HEADER_SIZE + sizeof(header),
              line.size());
  }
  PutBody(reply, header);
  reply.length = ACP_HEADER_SIZE + sizeof(header) + header.length + RESULT_TAIL;
  SendReply(request, std::move(reply), ACP_RESULT_REPLY, taken ? ACP_STATE_OK : ACP_STATE_FAILURE);
  if (taken) DropResultLine();
  return 0;
}
