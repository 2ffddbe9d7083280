// What runs on a board and what it holds, seen from outside it.

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "board/internal.h"

namespace board {

namespace {

// The board's process table, as the board's own kernel has it.
std::string ProcessTable(const Board &board) {
  return board.root + "/run/kernel-proc";
}

// "PID (NAME) STATE PARENT ...", and the name may hold anything.
Process ParseProcess(const std::string &line) {
  Process process;
  const size_t name_end = line.rfind(") ");
  if (name_end == std::string::npos) return process;
  std::istringstream(line) >> process.pid;
  std::istringstream(line.substr(name_end + 2)) >> process.state >> process.parent;
  return process;
}

}  // namespace

std::vector<Process> Processes(const Board &board) {
  std::vector<Process> processes;
  for (const auto &entry : std::filesystem::directory_iterator(ProcessTable(board))) {
    std::ifstream file(entry.path() / "stat");  // of other entries there is none that begins so
    std::string line;
    if (entry.path().filename() < ":" && std::getline(file, line))
      processes.push_back(ParseProcess(line));
  }
  return processes;
}

long OpenFiles(const Board &board, pid_t inner) {
  const std::string folder = ProcessTable(board) + "/" + std::to_string(inner) + "/fd";
  const std::filesystem::directory_iterator files(folder);
  return std::distance(begin(files), end(files));
}

std::vector<ServiceSocket> ServiceSockets(const Board &board) {
  std::vector<ServiceSocket> sockets;
  std::ifstream table("/proc/" + std::to_string(board.init) + "/net/udp");
  for (std::string line; std::getline(table, line);) {
    if (line.find(":5998 ") == std::string::npos) continue;
    std::istringstream words(line);
    std::vector<std::string> columns;
    for (std::string word; words >> word;)
      columns.push_back(word);
    const std::string &queues = columns[4];  // "SEND:RECEIVE"
    const std::string waiting = queues.substr(queues.find(':') + 1);
    sockets.push_back({std::stoi(waiting, nullptr, 16), std::stoi(columns.back())});
  }
  return sockets;
}

}  // namespace board
