// Programs for the appliance's own processor on the board: the machine's user-mode emulator runs
// them, with the C library of the cross compiler's packages.
//
// The emulator looks for each file that an emulated program opens below /run/powerpc first. So one
// LD_PRELOAD names the shim of either kind: PowerPC programs find theirs there, and the shells and
// tools that they start, which are the machine's, the machine's.

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>

#include "board/internal.h"

namespace board {

namespace {

constexpr char EMULATOR[] = "/usr/bin/qemu-ppc-static";
constexpr char LIBRARIES[] = "/usr/powerpc-linux-gnu/lib";
constexpr char PLACE[] = "/run/powerpc";  // EMULATE is in it

std::string WriteScript(const std::string &path, const std::string &arguments) {
  std::ofstream script(path);
  script << "#!/bin/sh\nexec " << EMULATOR << " -L " << PLACE << ' ' << arguments << " \"$@\"\n"
         << std::flush;
  return script && chmod(path.c_str(), 0755) == 0 ? "" : Failure("cannot write " + path);
}

}  // namespace

std::string CheckPowerpc(const Config &config) {
  const std::array<std::string, 3> needed = {EMULATOR, LIBRARIES, config.powerpc + "/libshim.so"};
  for (const std::string &path : needed)
    if (access(path.c_str(), R_OK) != 0) return Failure("for PowerPC programs, " + path);
  return "";
}

std::string InstallPowerpc(const Config &config, const std::string &root) {
  const std::string place = root + PLACE;
  const std::string shim = config.powerpc + "/libshim.so";
  if (!MakeDirectories(root, PLACE + config.products, "") ||
      symlink(LIBRARIES, (place + "/lib").c_str()) != 0 ||
      symlink(shim.c_str(), (place + config.products + "/libshim.so").c_str()) != 0)
    return Failure(place);
  return WriteScript(root + EMULATE, "");
}

std::string InstallPowerpcProgram(const std::string &program, const std::string &place) {
  const std::string name = std::filesystem::path(program).filename().string();
  return WriteScript(place, "-0 " + name + " '" + program + "'");
}

}  // namespace board
