// The user's list of appliances: names for MAC addresses, and groups of names. A text file; each
// line has a name, a MAC address, and the groups that the appliance is in. '#' begins a comment.

#ifndef BH_TOOLS_BHCTL_INVENTORY_H_
#define BH_TOOLS_BHCTL_INVENTORY_H_

#include <string>
#include <vector>

#include "client/datagram.h"

namespace bhctl {

struct InventoryEntry {
  std::string name;
  acp::Mac mac = {};
  std::vector<std::string> groups;
};

using Inventory = std::vector<InventoryEntry>;

// $XDG_CONFIG_HOME/bhctl/inventory, or ~/.config/bhctl/inventory; empty without a home.
std::string InventoryPath();

// Parses the text. Returns false with the reason in `why`, with the line's number.
bool ParseInventory(const std::string &text, Inventory &inventory, std::string &why);

// Reads InventoryPath(). A missing file is an empty inventory.
bool ReadInventory(Inventory &inventory, std::string &why);

// The entry's name for the address; empty if there is none.
std::string InventoryName(const Inventory &inventory, const acp::Mac &mac);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_INVENTORY_H_
