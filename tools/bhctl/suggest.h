// The nearest word to a misspelt one.

#ifndef BH_TOOLS_BHCTL_SUGGEST_H_
#define BH_TOOLS_BHCTL_SUGGEST_H_

#include <string>
#include <vector>

namespace bhctl {

// ", did you mean 'word'?", or an empty string if no word is near.
std::string Suggestion(const std::string &misspelt, const std::vector<std::string> &words);

}  // namespace bhctl

#endif  // BH_TOOLS_BHCTL_SUGGEST_H_
