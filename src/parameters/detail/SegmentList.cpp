#include "parameters/detail/SegmentList.h"

#include <fmt/ranges.h>

#include <array>
#include <string>
#include <utility>

#include "parameters/detail/SetRules.h"
#include "platform/Error.h"
#include "platform/Log.h"
#include "platform/SHA256.h"

namespace tarn {
namespace {

constexpr size_t bytesPerUnit = 64;
constexpr size_t bytesPerSegment = 256;

/// The SHA-256 of each unit, one over the other: the order of the units does not matter.
std::string computeFingerprint(const ParameterSets& sets) {
  std::array<uint8_t, 32> sum{};
  for (ParameterSetKind kind : allParameterSetKinds) {
    for (const Bytes& unit : unitsOf(sets, kind)) {
      auto digest = sha256(unit);
      for (size_t i = 0; i < sum.size(); ++i) sum[i] ^= digest[i];
    }
  }
  return fmt::format("{:02x}", fmt::join(sum, ""));
}

size_t memoryOf(const ParameterSets& sets) {
  size_t count = bytesPerSegment;
  for (const auto* units : {&sets.vpsArray, &sets.spsArray, &sets.ppsArray, &sets.spsRbspArray}) {
    for (const Bytes& unit : *units) count += unit.size() + bytesPerUnit;
  }
  return count;
}

Error failure(const SegmentRules& rules, std::string_view before, std::string_view after) {
  return {rules.domain, -1, fmt::format("{}{}{}", before, rules.errorPrefix, after)};
}

bool isEmpty(const ParameterSets& sets) {
  return sets.vpsArray.empty() && sets.spsArray.empty() && sets.ppsArray.empty();
}

}  // namespace

void SegmentList::enterSampleEntry(int64_t sampleIndex, const ParameterSets& sets) {
  if (segments_.empty()) {
    putInForce(sampleIndex, sets);
  } else if (!areAmong(sets, segments_.back().sets)) {
    bool replacesAll = isComplete(sets, rules_.sets.codec);
    putInForce(sampleIndex, replacesAll ? sets : merged(segments_.back().sets, sets, rules_.sets));
  }
}

void SegmentList::addSyncSample(int64_t sampleIndex, const ParameterSets& carried) {
  if (segments_.empty()) {
    putInForce(sampleIndex, carried);
  } else if (const ParameterSets& last = segments_.back().sets; !areAmong(carried, last)) {
    bool isJoined = rules_.joinsCompatibleSets && areCompatible(last, carried, rules_.sets);
    if (isJoined) isLastInUse_ = false;
    bool replacesAll = !isJoined && isComplete(carried, rules_.sets.codec);
    putInForce(sampleIndex, replacesAll ? carried : merged(last, carried, rules_.sets));
  }
  isLastInUse_ = true;
}

/// The last segment need not stand for itself: no sample needs its sets, or they are part of a configuration that the
/// new ones complete.
bool SegmentList::mayReplaceLast(const ParameterSets& sets) const {
  if (segments_.empty()) return false;
  const ParameterSets& last = segments_.back().sets;
  if (isEmpty(last) || !isLastInUse_) return true;
  return rules_.joinsCompatibleSets && !isComplete(last, rules_.sets.codec) && areCompatible(last, sets, rules_.sets);
}

void SegmentList::putInForce(int64_t sampleIndex, const ParameterSets& sets) {
  bytes_ += memoryOf(sets);
  if (bytes_ > mostBytes) throw tooMany(rules_);
  if (mayReplaceLast(sets)) {
    bytes_ -= memoryOf(segments_.back().sets);
    segments_.back().sets = sets;
    return;
  }
  // The samples before the first sync sample have its configuration.
  int64_t start = segments_.empty() ? 0 : sampleIndex;
  closeLast(start - 1);
  segments_.push_back({.startSampleIndex = start, .firstSyncSampleIndex = sampleIndex, .sets = sets});
  isLastInUse_ = false;
}

std::vector<ConfigurationSegment> SegmentList::finish(int64_t totalSampleCount) && {
  closeLast(totalSampleCount - 1);
  if (rules_.joinsCompatibleSets) fillUp();
  for (ConfigurationSegment& segment : segments_) segment.fingerprint = computeFingerprint(segment.sets);
  log("\n{}Detected {} configuration segment(s)", rules_.prefix, segments_.size());
  if (segments_.empty()) throw failure(rules_, "No ", "configuration segments detected");
  return std::move(segments_);
}

void SegmentList::fillUp() {
  for (size_t i = segments_.size(); i-- > 1;) {
    ParameterSets& sets = segments_[i - 1].sets;
    const ParameterSets& next = segments_[i].sets;
    for (ParameterSetKind kind : allParameterSetKinds) {
      if (!unitsOf(sets, kind).empty()) continue;
      unitsOf(sets, kind) = unitsOf(next, kind);
      if (kind == ParameterSetKind::sps) sets.spsRbspArray = next.spsRbspArray;
    }
  }
}

void SegmentList::closeLast(int64_t endSampleIndex) {
  if (segments_.empty()) return;
  ConfigurationSegment& last = segments_.back();
  last.endSampleIndex = endSampleIndex;
  rules_.reportSegment(segments_.size(), last);
}

Error SegmentList::tooMany(const SegmentRules& rules) {
  return failure(rules, "Too many ", "configuration segments");
}

}  // namespace tarn
