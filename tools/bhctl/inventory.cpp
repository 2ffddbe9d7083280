#include "tools/bhctl/inventory.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "tools/bhctl/text.h"

namespace bhctl {
namespace {

std::vector<std::string> Words(const std::string &line) {
  std::istringstream stream(line.substr(0, line.find('#')));
  std::vector<std::string> words;
  for (std::string word; stream >> word;)
    words.push_back(word);
  return words;
}

bool IsTaken(const Inventory &inventory, const std::string &name) {
  return std::any_of(inventory.begin(), inventory.end(), [&](const InventoryEntry &entry) {
    return entry.name == name ||
           std::find(entry.groups.begin(), entry.groups.end(), name) != entry.groups.end();
  });
}

// Returns the reason why the words are no entry; empty if they are one.
std::string AddEntry(const std::vector<std::string> &words, Inventory &inventory) {
  const std::optional<Mac> mac = words.size() < 2 ? std::nullopt : ParseMac(words[1]);
  if (!mac) return "a name and a MAC address are expected";
  if (ParseMac(words[0]) || ParseAddress(words[0]) || words[0].find(',') != std::string::npos)
    return std::string("'") + SafeText(words[0]) + "' cannot be a name";
  if (IsTaken(inventory, words[0]))
    return std::string("the name '") + SafeText(words[0]) + "' is already in use";
  inventory.push_back({words[0], *mac, {words.begin() + 2, words.end()}});
  return "";
}

}  // namespace

std::string InventoryPath() {
  const char *config = getenv("XDG_CONFIG_HOME");
  const char *home = getenv("HOME");
  if (config != nullptr && config[0] == '/') return std::string(config) + "/bhctl/inventory";
  if (home != nullptr && home[0] == '/') return std::string(home) + "/.config/bhctl/inventory";
  return "";
}

bool ParseInventory(const std::string &text, Inventory &inventory, std::string &why) {
  std::istringstream stream(text);
  int number = 0;
  for (std::string line; std::getline(stream, line);) {
    ++number;
    const std::vector<std::string> words = Words(line);
    if (words.empty()) continue;
    why = AddEntry(words, inventory);
    if (why.empty()) continue;
    why.insert(0, "line " + std::to_string(number) + ": ");
    return false;
  }
  return true;
}

bool ReadInventory(Inventory &inventory, std::string &why) {
  const std::string path = InventoryPath();
  if (path.empty()) return true;
  errno = 0;
  std::ifstream file(path);
  if (!file) {
    if (errno == ENOENT || errno == ENOTDIR) return true;
    why = path + ": " + ErrorText(errno);
    return false;
  }
  std::ostringstream text;
  text << file.rdbuf();
  if (ParseInventory(text.str(), inventory, why)) return true;
  why = path + ", " + why;
  return false;
}

std::string InventoryName(const Inventory &inventory, const Mac &mac) {
  const auto found = std::find_if(inventory.begin(), inventory.end(),
                                  [&](const InventoryEntry &entry) { return entry.mac == mac; });
  return found == inventory.end() ? "" : found->name;
}

}  // namespace bhctl
