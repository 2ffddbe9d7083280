// The management commands that are one ACP_SPECIAL request each. The table has a row for each of
// them; the command line and the help are made from it.

#ifndef BH_TOOLS_BHCTL_SPECIAL_H_
#define BH_TOOLS_BHCTL_SPECIAL_H_

#include <chrono>
#include <cstdint>
#include <span>

#include "tools/bhctl/options.h"

namespace bhctl {

// What the request carries as its text.
enum class Operand { NONE, PATH, DEVICE, MAC, PASS_PHRASE, PASSWORD };

// What the reply's result is: a state, or what the configuration lock or a file's checksum is like.
enum class ResultKind { STATE, LOCK, LOCK_STATUS, CHECKSUM };

// Properties of a row, added up.
constexpr unsigned int ENABLED = 1;  // the command mode must be enabled for this machine
constexpr unsigned int ASKS = 2;     // not done before somebody has said yes

struct Special {
  const char *name;  // of the command; of two words when the first has code of its own
  const char *word;  // that the command line chooses the row by, among those of one name; or ""
  Operand operand;
  uint8_t code;
  uint32_t extra;
  unsigned int properties;
  const char *description;
  const char *failure = "";  // what ACP_STATE_FAILURE means
  ResultKind result = ResultKind::STATE;
  std::chrono::seconds timeout{30};
};

// Rows of one name stand together.
std::span<const Special> Specials();

// Of a name with several rows: the name of the argument that chooses, and what the help says of
// all.
struct SpecialGroup {
  const char *name;
  const char *word;
  const char *description;
};

const SpecialGroup *FindGroup(const char *name);  // null: its name has one row

// The operand's name on the command line; null when it is not given there.
const char *OperandName(Operand operand);

// Runs the row that options.command and the arguments choose. Returns the program's exit status.
int RunSpecial(const Options &options);

// Arguments ACTION and KIND: 'create' and a row, or neither to list what there is.
int RaidOrCreate(const Options &options);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_SPECIAL_H_
