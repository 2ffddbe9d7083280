// What the files of the board library know of each other.

#ifndef BH_BOARD_INTERNAL_H_
#define BH_BOARD_INTERNAL_H_

#include <string>
#include <string_view>
#include <vector>

#include "board/board.h"
#include "lib/descriptor.h"

namespace board {

// "what: error text of errno"
std::string Failure(std::string_view what);

// --- namespaces.cpp

// Writes a text into an existing file with one write, as the files of /proc want it.
bool WriteText(const std::string &path, std::string_view text);

// Brings an interface of this process's network namespace up.
bool BringUp(const std::string &interface);

// Brings `lo` up, switches IPv6 off and lets replies with foreign source addresses through, in the
// network namespace that this process is in. `proc` is where procfs is mounted.
bool PrepareNetwork(const std::string &proc);

// Directory of the running program.
std::string ProgramDirectory();

// --- files.cpp

// Copies a regular file or symbolic link over whatever stands at `to`, with its mode.
bool CopyEntry(const std::string &from, const std::string &to);

// Makes a directory and those above it. New ones get the mode that they have at `model` + path, or
// 0755; `base` itself exists.
bool MakeDirectories(const std::string &base, const std::string &path, const std::string &model);

// --- root.cpp

// Whether a path lies in one of the directories that a board has of its own.
bool IsOwn(std::string_view path);

// In the board's pid 1, in its fresh namespaces: puts the board's root directory together and makes
// it this process's root. Returns an empty text, or what went wrong.
std::string BuildRoot(const Config &config);

// --- powerpc.cpp

// At the caller: what is missing for PowerPC programs, or an empty text.
std::string CheckPowerpc(const Config &config);

// Makes PowerPC programs run on the board whose root directory is being put together.
std::string InstallPowerpc(const Config &config, const std::string &root);

// Makes `place` a program that runs the PowerPC program.
std::string InstallPowerpcProgram(const std::string &program, const std::string &place);

// --- veth.cpp

// At the caller: one veth pair an interface, its far end on the board, and the bridges that the
// near ends belong to. Fills in the boards' `wires`.
std::string MakeWires(std::vector<Board> &boards);

// At the caller, when the board's ends are up: waits until frames pass on each of its wires.
std::string AwaitWires(const Board &board);

// At the caller, when the board has died: waits until its wires are gone, and removes the bridges
// on which they were the last.
void ReleaseWires(const Board &board);

// On the board: gives the interfaces their addresses and brings them up.
std::string BringUpInterfaces(const Config &config);

// What a file holds, from its start.
std::string ReadAll(int file);

// Runs a program to its end with `input` as its standard input. Returns an empty text when it
// succeeded, else what it said.
std::string RunTool(const std::vector<std::string> &argv, std::string_view input);

// Waits until the interface exists and has its carrier.
bool WaitForCarrier(const std::string &name);

// --- spawn.cpp

// Reaps the caller's children on the board, which are ending with it.
void ReapChildren(pid_t init);

}  // namespace board

#endif  // BH_BOARD_INTERNAL_H_
