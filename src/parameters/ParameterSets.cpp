#include "parameters/ParameterSets.h"

#include <fmt/ranges.h>

#include <algorithm>

#include "platform/Log.h"

namespace tarn {

std::string_view nameOf(ParameterSetKind kind) {
  constexpr std::array<std::string_view, 3> names{"VPS", "SPS", "PPS"};
  return names[static_cast<size_t>(kind)];
}

bool isComplete(const ParameterSets& sets, const NALCodec& codec) {
  return std::ranges::all_of(allParameterSetKinds, [&](ParameterSetKind kind) {
    return !codec.hasKind(kind) || !unitsOf(sets, kind).empty();
  });
}

std::string missingKinds(const ParameterSets& sets, const NALCodec& codec) {
  std::vector<std::string> missing;
  for (ParameterSetKind kind : allParameterSetKinds) {
    if (codec.hasKind(kind) && unitsOf(sets, kind).empty()) missing.push_back(fmt::format("no {}", nameOf(kind)));
  }
  return fmt::format("{}", fmt::join(missing, ", "));
}

bool areAmong(const ParameterSets& sets, const ParameterSets& others) {
  return std::ranges::all_of(allParameterSetKinds, [&](ParameterSetKind kind) {
    const auto& all = unitsOf(others, kind);
    return std::ranges::all_of(unitsOf(sets, kind),
                               [&](const Bytes& unit) { return std::ranges::find(all, unit) != all.end(); });
  });
}

void dropTooLongSets(ParameterSets& sets) {
  for (ParameterSetKind kind : allParameterSetKinds) {
    auto& units = unitsOf(sets, kind);
    for (size_t i = units.size(); i-- > 0;) {
      if (units[i].size() <= longestStoredSet) continue;
      log("Skipping a {} of {} bytes, of which a sample entry holds {} at most", nameOf(kind), units[i].size(),
          longestStoredSet);
      units.erase(units.begin() + static_cast<ptrdiff_t>(i));
      if (kind == ParameterSetKind::sps) sets.spsRbspArray.erase(sets.spsRbspArray.begin() + static_cast<ptrdiff_t>(i));
    }
  }
}

}  // namespace tarn
