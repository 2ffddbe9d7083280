// For programs that run the daemon's handlers within themselves, thousands of times a second on a
// board: what would leave the process is caught there. Linked into the program, it stands before
// the shim and the C library.
//
// A fork goes on as the child or as the parent, by the next choice. The end of a child is a jump to
// `end`; to the parent it has ended at once, with a status by choice. Programs are not run: those
// whose output is read have printed `output`. No wait takes time. Frames are looked at and go
// nowhere.

#ifndef BH_BOARD_FUZZ_STUBS_H_
#define BH_BOARD_FUZZ_STUBS_H_

#include <setjmp.h>

#include <cstdint>
#include <string_view>

namespace board {

struct FuzzStubs {
  uint32_t choices;         // bits, the least significant first, then zeros
  std::string_view output;  // not empty
  bool running;             // `end` has been set
  sigjmp_buf end;
};
extern FuzzStubs fuzz_stubs;

}  // namespace board

#endif  // BH_BOARD_FUZZ_STUBS_H_
