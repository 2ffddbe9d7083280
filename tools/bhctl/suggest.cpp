#include "tools/bhctl/suggest.h"

#include <algorithm>
#include <numeric>

namespace bhctl {
namespace {

constexpr size_t MAX_TYPO = 2;  // swapped characters count as two

// The number of inserted, removed and replaced characters between two words.
size_t EditDistance(const std::string &from, const std::string &to) {
  std::vector<size_t> row(to.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < from.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < to.size(); ++j) {
      const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

std::string Suggestion(const std::string &misspelt, const std::vector<std::string> &words) {
  const auto best =
      std::min_element(words.begin(), words.end(), [&](const std::string &a, const std::string &b) {
        return EditDistance(misspelt, a) < EditDistance(misspelt, b);
      });
  if (best == words.end() || best->empty()) return "";
  // Of a short word, hardly a letter would be left.
  const size_t limit = std::min(MAX_TYPO, best->size() / 2);
  if (EditDistance(misspelt, *best) > limit) return "";
  return ", did you mean '" + *best + "'?";
}

}  // namespace bhctl
