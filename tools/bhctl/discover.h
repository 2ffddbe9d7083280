// The discover command: lists the appliances, once or repeatedly.

#ifndef BH_TOOLS_BHCTL_DISCOVER_H_
#define BH_TOOLS_BHCTL_DISCOVER_H_

#include <string>
#include <vector>

#include "client/appliances.h"
#include "tools/bhctl/options.h"
#include "tools/bhctl/print.h"

namespace bhctl {

// Arguments --watch, --long, --columns and --sort. Returns the program's exit status.
int Discover(const Options &options);

// All that the discovery tells: as an object, and as rows of name and value.
Json ApplianceJson(const Appliance &appliance);
std::vector<std::vector<std::string>> ApplianceRows(const Appliance &appliance);

// The names of the columns, in their order.
std::vector<std::string> ColumnNames();

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_DISCOVER_H_
