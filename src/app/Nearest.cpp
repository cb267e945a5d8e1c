#include "app/Nearest.h"

#include <algorithm>
#include <numeric>
#include <utility>

namespace tarn {
namespace {

/// The mistakes between two words; two letters that changed places are one.
size_t mistakes(std::string_view a, std::string_view b) {
  std::vector<size_t> beforeLast, last(b.size() + 1), row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 1; i <= a.size(); ++i) {
    beforeLast = std::exchange(last, row);
    row[0] = i;
    for (size_t j = 1; j <= b.size(); ++j) {
      const size_t changed = last[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1);
      row[j] = std::min({last[j] + 1, row[j - 1] + 1, changed});
      const bool isSwapped = i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1];
      if (isSwapped) row[j] = std::min(row[j], beforeLast[j - 2] + 1);
    }
  }
  return row.back();
}

}  // namespace

std::optional<std::string> nearest(std::string_view word, const std::vector<std::string>& known) {
  constexpr size_t longestWord = 64;
  if (word.size() > longestWord) return std::nullopt;
  const size_t letters = word.size() - std::min(word.find_first_not_of('-'), word.size());
  size_t fewest = std::max<size_t>(1, letters / 3) + 1;
  std::optional<std::string> found;
  for (const std::string& candidate : known) {
    const bool isBegun = letters >= 2 && candidate.starts_with(word);
    const size_t count = isBegun ? 1 : mistakes(word, candidate);
    if (count < fewest) {
      fewest = count;
      found = candidate;
    }
  }
  return found;
}

}  // namespace tarn
