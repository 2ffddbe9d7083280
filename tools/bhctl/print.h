// Output for people and for programs.

#ifndef BH_TOOLS_BHCTL_PRINT_H_
#define BH_TOOLS_BHCTL_PRINT_H_

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace bhctl {

using Json = nlohmann::ordered_json;  // keys keep the order of the reply's fields

// Prints "bhctl: " and the message on standard error.
void PrintError(const std::string &message);

void PrintLine(const std::string &line);

// Aligns the columns. Rows may have fewer columns. The texts must be safe for a terminal.
void PrintTable(const std::vector<std::vector<std::string>> &rows);

// Prints one line of ASCII. Bytes that are not UTF-8 become U+FFFD.
void PrintJson(const Json &object);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_PRINT_H_
