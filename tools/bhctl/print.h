// Output for people and for programs.

#ifndef BH_TOOLS_BHCTL_PRINT_H_
#define BH_TOOLS_BHCTL_PRINT_H_

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace bhctl {

using Json = nlohmann::ordered_json;  // keys stay in the order of the reply's fields

// "bhctl: " and the message as one line on standard error.
void PrintError(const std::string &message);

void PrintLine(const std::string &line);

// Columns as wide as their widest text. Rows may be short; texts are safe for a terminal already.
void PrintTable(const std::vector<std::vector<std::string>> &rows);

// One line of plain ASCII; what is not UTF-8 in a text becomes U+FFFD.
void PrintJson(const Json &object);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_PRINT_H_
