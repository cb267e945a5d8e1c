#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "parameters/HEVCConfigurationSegment.h"
#include "parameters/detail/ParameterSetCollector.h"
#include "platform/Error.h"

namespace tarn {

/// How a SegmentList divides a track, and in which words.
struct SegmentRules {
  const ParameterSetRules& sets;
  /// Sets that one sample entry can hold together begin no new segment.
  bool joinsCompatibleSets;
  void (*reportStart)(size_t syncSamples);  ///< null for silence
  const char* domain;                       ///< of the failures
  std::string_view prefix;                  ///< of the last log line
  std::string_view errorPrefix;             ///< of the failures' texts
  void (*reportSegment)(size_t number, const ConfigurationSegment& segment);
};

/// Puts segments together, one sync sample after the other, from the sets in force: a sample that carries none, or some
/// of those in force, goes on with them; one that carries some kinds alone puts these in the places of the same
/// identifiers; one that carries each kind puts its sets in the place of all. Where compatible sets are joined, the
/// first segments take the kinds that they lack from the segment after them.
class SegmentList {
 public:
  /// Bounds memory where a damaged sample table leads from one set to another at every sample: the bytes of all units,
  /// and what holding a unit and a segment takes besides.
  static constexpr size_t mostBytes = 24 << 20;

  explicit SegmentList(const SegmentRules& rules) : rules_(rules) {}

  /// The sets of the sample entry that describes the samples from this one on come into force.
  void enterSampleEntry(int64_t sampleIndex, const ParameterSets& sets);

  /// The next sync sample, with the sets that it carries.
  void addSyncSample(int64_t sampleIndex, const ParameterSets& carried);

  /// The segments; they cover all samples. Throws an Error of the rules' domain if there is no sync sample.
  std::vector<ConfigurationSegment> finish(int64_t totalSampleCount) &&;

  /// The failure of a list that grows beyond `mostBytes`.
  static Error tooMany(const SegmentRules& rules);

 private:
  void putInForce(int64_t sampleIndex, const ParameterSets& sets);
  bool mayReplaceLast(const ParameterSets& sets) const;
  void fillUp();
  void closeLast(int64_t endSampleIndex);

  const SegmentRules& rules_;
  std::vector<ConfigurationSegment> segments_;
  bool isLastInUse_ = false;  // a sync sample is decoded with its sets
  size_t bytes_ = 0;
};

}  // namespace tarn
