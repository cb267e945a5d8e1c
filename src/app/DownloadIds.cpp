#include "app/DownloadIds.h"

#include <fmt/format.h>

#include <algorithm>

#include "platform/Error.h"

namespace tarn {

std::string shortId(int64_t id, const std::vector<int64_t>& ids) {
  constexpr size_t shortest = 4;
  std::string whole = std::to_string(id);
  for (size_t length = shortest; length < whole.size(); ++length) {
    std::string ending = whole.substr(whole.size() - length);
    const auto hasIt = [&](int64_t other) { return std::to_string(other).ends_with(ending); };
    if (std::ranges::count_if(ids, hasIt) <= 1) return ending;
  }
  return whole;
}

int64_t idNamed(const std::string& text, const std::vector<int64_t>& ids) {
  std::vector<int64_t> found;
  for (const int64_t id : ids) {
    const std::string whole = std::to_string(id);
    if (whole == text) return id;
    if (!text.empty() && whole.ends_with(text)) found.push_back(id);
  }
  if (found.size() == 1) return found.front();
  throw Error("Downloads", -1,
              found.empty() ? fmt::format("There is no download {}; `tarn downloads` lists all.", text)
                            : fmt::format("{} downloads end in {}; give more of the number.", found.size(), text));
}

}  // namespace tarn
