// The management commands that send one ACP_SPECIAL request. Each has a row in a table; the command
// line and its help are generated from it.

#ifndef BH_TOOLS_BHCTL_SPECIAL_H_
#define BH_TOOLS_BHCTL_SPECIAL_H_

#include <chrono>
#include <cstdint>
#include <span>

#include "tools/bhctl/options.h"

namespace bhctl {

// The text of the request.
enum class Operand { NONE, PATH, DEVICE, MAC, PASS_PHRASE, PASSWORD };

// The meaning of the reply's result.
enum class ResultKind { STATE, LOCK, LOCK_STATUS, CHECKSUM };

// Flags of a row.
constexpr unsigned int NEEDS_COMMAND_MODE = 1;
constexpr unsigned int NEEDS_CONFIRMATION = 2;  // by the user

struct Special {
  const char *name;  // two words if the first is a command with code of its own
  const char *word;  // argument that selects among rows of the same name; or ""
  Operand operand;
  uint8_t code;
  uint32_t extra;
  unsigned int properties;
  const char *description;
  const char *failure = "";  // what ACP_STATE_FAILURE means
  ResultKind result = ResultKind::STATE;
  std::chrono::seconds timeout{30};
};

// Rows of the same name are adjacent.
std::span<const Special> Specials();

// For a name with several rows: the argument that selects a row, and the help for all.
struct SpecialGroup {
  const char *name;
  const char *word;
  const char *description;
};

const SpecialGroup *FindGroup(const char *name);  // null: the name has one row

// The operand's name on the command line; null if it is not an argument.
const char *OperandName(Operand operand);

// Runs the row that options.command and the arguments select. Returns the program's exit status.
int RunSpecial(const Options &options);

// Arguments ACTION and KIND: 'create' and a row, or neither for the list.
int RaidOrCreate(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_SPECIAL_H_
