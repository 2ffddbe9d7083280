// Round trips to one server over the wire of a board of its own.

#ifndef BH_BENCH_ROUND_TRIP_H_
#define BH_BENCH_ROUND_TRIP_H_

#include <benchmark/benchmark.h>
#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "board/board.h"
#include "tests/system/wire.h"

// Boots a board; without one the benchmark is marked as failed.
std::optional<board::Board> BootFor(benchmark::State &state);

// Starts the program on the board, its output thrown away.
pid_t StartQuietly(const board::Board &board, const std::vector<std::string> &argv);

// Asks the server, a child of this process, one request after the other; then ends it. Reports the
// processor time of a request beside its round trip: the server's and its children's, without
// waits.
void MeasureRoundTrips(benchmark::State &state, const board::Board &board, pid_t server,
                       const wire::Bytes &request);

#endif  // BH_BENCH_ROUND_TRIP_H_
