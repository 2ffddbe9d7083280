// Calls that the shim makes fail on demand.
//
// The environment variable BOARD_FAIL lists calls to fail, parted by commas:
//
//   program/call[=argument][:n[:error]]      bh_servd/fork:1:EAGAIN,bh_servd/calloc=544
//
// The n-th such call (default 1; 0: every one) of a program of that name ("*": any) fails with the
// error (default ENOMEM for calloc, else EIO). The argument is the path of an open or fopen, the
// number of bytes of a calloc, a socket's family, a setsockopt's option, a semget's flags in octal,
// a mount's device, or an ioctl's number as the call log has it; then only calls with it count.
// Calls are counted in each process image; a fork takes the count along, and a program that changes
// the variable starts anew. The calls that can fail are those of WRAP and WRAP_AS, and fopen, open,
// fork, calloc, socket, setsockopt, semget, ioctl, mount and settimeofday; and `write`, which is an
// open or fopen for writing that succeeds, but with EPERM for all that is written to the file then.
//
// Beside it, for programs that run already, stands the file /run/failing: "program n" and a line
// feed. Of the calls, whatever they are, that processes of that program make from then on, the n-th
// fails with EIO. Each is noted there as a line, "call" or "call argument": line n + 1 of the file
// is the one that has failed, and it has no such line until then. A calloc counts for the variable
// alone.

#ifndef BH_BOARD_FAILING_H_
#define BH_BOARD_FAILING_H_

#pragma GCC visibility push(hidden)

// Whether this call is one to fail; errno is then set, and else as it was.
bool Fails(const char *call, const char *argument = nullptr);

// The same for the variable alone, and only when it has plans at all.
bool FailsByVariable(const char *call, const char *argument);
bool HasPlans();

#pragma GCC visibility pop

#endif  // BH_BOARD_FAILING_H_
