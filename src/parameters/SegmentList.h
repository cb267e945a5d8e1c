#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

#include "parameters/HEVCConfigurationSegment.h"
#include "parameters/ParameterSetCollector.h"
#include "parameters/detail/ParameterSetWalk.h"

namespace tarn {

/// How a SegmentList divides a track, and in which words.
struct SegmentRules {
  const ParameterSetRules& sets;
  /// Sets that one sample entry can hold together begin no new segment.
  bool joinsCompatibleSets;
  const char* domain;            ///< of the failures
  std::string_view prefix;       ///< of the last log line
  std::string_view errorPrefix;  ///< of the failures' texts
  void (*reportSegment)(size_t number, const ConfigurationSegment& segment);
};

/// Puts segments together, one sync sample after the other, from the sets in force: a sample that carries none, or some
/// of those in force, goes on with them; one that carries some kinds alone puts these in the places of the same
/// identifiers; one that carries each kind puts its sets in the place of all.
class SegmentList {
 public:
  explicit SegmentList(const SegmentRules& rules) : rules_(rules) {}

  /// The sets of the sample entry that describes the samples from this one on come into force.
  void enterSampleEntry(int64_t sampleIndex, const ParameterSets& sets);

  /// The next sync sample, with the sets that it carries.
  void addSyncSample(int64_t sampleIndex, const ParameterSets& carried);

  /// The segments; they cover all samples. Throws an Error of the rules' domain where there is no sync sample.
  std::vector<ConfigurationSegment> finish(int64_t totalSampleCount) &&;

 private:
  void putInForce(int64_t sampleIndex, const ParameterSets& sets);
  bool mayReplaceLast() const;
  void closeLast(int64_t endSampleIndex);
  [[noreturn]] void fail(std::string_view before, std::string_view after) const;

  const SegmentRules& rules_;
  std::vector<ConfigurationSegment> segments_;
  bool isLastInUse_ = false;  // a sync sample is decoded with its sets
  size_t bytes_ = 0;
};

/// The sets at the front of one sample. `unreadable`, where given, grows by the number of units that the rules refuse.
ParameterSets readCarriedSets(FileHandle& file, const SampleInfo& sample, int nalLengthSize, const NALWalkRules& walk,
                              const ParameterSetRules& rules, size_t* unreadable = nullptr);

}  // namespace tarn
