// Round trips to one server over the wire of a board of its own.

#ifndef BH_BENCH_ROUND_TRIP_H_
#define BH_BENCH_ROUND_TRIP_H_

#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "board/board.h"
#include "board/client_end.h"

// The client's, as wire::Request names it.
constexpr uint8_t CLIENT_MAC[6] = {0x02, 0x0b, 0x4a, 0, 0, 0x01};

constexpr double LEAST_SECONDS = 1;  // of a repetition that waits for the wire

// Boots a board; without one the benchmark is marked as failed.
std::optional<board::Board> BootFor(benchmark::State &state);

// Starts the program on the board, its output thrown away.
pid_t StartQuietly(const board::Board &board, const std::vector<std::string> &argv);

// Processor time, in ms, of all children that have been waited for, and of theirs.
double ChildrenTime();

// Serves in this process, which is on a board, until it is killed; the daemon's state stands.
int ServeHere();

// Asks a server on a board of its own one request after the other: a program, or a function which
// serves in a process there. Reports the processor time of a request beside its round trip: the
// server's and its children's, without waits.
void MeasureProgram(benchmark::State &state, const std::vector<std::string> &server,
                    const wire::Bytes &request);
void MeasureFunction(benchmark::State &state, int (*serve)(), const wire::Bytes &request);

#endif  // BH_BENCH_ROUND_TRIP_H_
