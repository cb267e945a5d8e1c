#include "inspect/Verdict.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <vector>

#include "inspect/Inspection.h"

namespace tarn {
namespace {

using Kind = Verdict::Kind;

/// "<first>", "<first>; and 2 more problems".
std::string summary(const std::vector<std::string>& problems) {
  const size_t more = problems.size() - 1;
  if (more == 0) return problems.front();
  return fmt::format("{}; and {} more problem{}", problems.front(), more, more == 1 ? "" : "s");
}

std::vector<std::string> wordsOf(const Inspection& inspection, bool areMended) {
  std::vector<std::string> words;
  for (const Problem& problem : inspection.problems) {
    if (isMended(problem, inspection) == areMended) words.push_back(problem.words);
  }
  return words;
}

}  // namespace

bool isMended(const Problem& problem, const Inspection& inspection) {
  if (!inspection.changesFile) return false;
  switch (problem.of) {
    case Problem::Of::file:
      return false;
    case Problem::Of::samples:
      return inspection.fragments.changesFile();
    case Problem::Of::video:
      return inspection.remux.changesFile;
    case Problem::Of::sound:
      return inspection.audio.replacesSound();
    case Problem::Of::editLists:
      return inspection.syncFix.kind == SyncForecast::Kind::writes;
  }
  return false;
}

Verdict verdictOn(const Inspection& inspection) {
  if (inspection.refusal) return {Kind::broken, "Broken: " + *inspection.refusal};
  const FragmentsForecast& fragments = inspection.fragments;
  if (fragments.kind == FragmentsForecast::Kind::keepsPart) {
    return {Kind::repairable, fmt::format("Repairable in part: {}; download it again for the rest", fragments.reason)};
  }
  if (fragments.kind == FragmentsForecast::Kind::refuses) {
    return {Kind::broken, fmt::format("Broken: {}", fragments.reason)};
  }
  if (!inspection.incomplete.empty()) {
    return {Kind::broken, fmt::format("Broken: {}; download it again", inspection.incomplete.front().words())};
  }
  if (inspection.remux.kind == RemuxForecast::Kind::refuses) {
    return {Kind::broken, fmt::format("Broken: {}", inspection.remux.reason)};
  }
  const auto mended = wordsOf(inspection, true);
  if (!mended.empty()) return {Kind::repairable, "Repairable: " + summary(mended)};
  if (!inspection.harms.empty()) {
    return {Kind::leftAlone, "Left alone, since a repair would do harm: " + inspection.harms.front()};
  }
  const auto left = wordsOf(inspection, false);
  if (!left.empty()) return {Kind::leftAlone, "Left alone: " + summary(left)};
  return {Kind::nothingToRepair, "Nothing to repair"};
}

}  // namespace tarn
