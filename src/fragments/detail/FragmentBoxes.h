#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "platform/Bytes.h"

namespace tarn {

// The boxes of a movie fragment (ISO/IEC 14496-12 8.8). All views are of the `moof` that was parsed, which must outlive
// them.

/// What samples have that say nothing themselves: of a `trex` (8.8.3), changed by a `tfhd` (8.8.7).
struct SampleDefaults {
  uint32_t description = 1;  ///< 1-based index into the `stsd`
  uint32_t duration = 0;     ///< track timescale
  uint32_t size = 0;         ///< bytes
  uint32_t flags = 0;        ///< as FragmentSample has them
};

struct FragmentSample {
  uint32_t duration = 0;
  uint32_t size = 0;
  uint32_t flags = 0;  ///< sample_flags (8.8.3.1)
  int32_t compositionOffset = 0;

  bool isSync() const { return (flags & 0x1'0000) == 0; }
  /// As `sdtp` packs them (8.6.4.2).
  uint8_t dependencies() const { return static_cast<uint8_t>(flags >> 20); }
};

/// A `trun` (8.8.8).
class TrackRun {
 public:
  /// `contents` are those of the box. Throws MovieError: damaged, if they end before the samples.
  TrackRun(ByteView contents, const SampleDefaults& defaults);

  uint32_t count() const { return count_; }
  /// True if the samples have entries of their own; else only the file's bytes bound their number.
  bool hasEntries() const { return entrySize_ > 0; }
  std::optional<int32_t> dataOffset() const { return dataOffset_; }
  FragmentSample sample(uint32_t index) const;

 private:
  bool has(uint32_t flag) const { return (flags_ & flag) != 0; }

  SampleDefaults defaults_;
  uint32_t flags_ = 0;
  uint32_t count_ = 0;
  std::optional<int32_t> dataOffset_;
  std::optional<uint32_t> firstFlags_;
  size_t entrySize_ = 0;
  ByteView entries_;
};

/// A `traf` (8.8.6).
struct TrackFragment {
  uint32_t trackID = 0;
  std::optional<uint64_t> baseDataOffset = {};  ///< place in the file from which data offsets count
  bool baseIsMoof = false;
  uint32_t description = 1;
  std::optional<uint64_t> decodeTime = {};  ///< of its first sample (8.8.12), track timescale
  std::vector<TrackRun> runs = {};
  std::vector<ByteView> groupDescriptions = {};  ///< each `sgpd`, a whole box with an 8-byte header
  std::vector<ByteView> sampleGroups = {};       ///< each `sbgp`, the same
  std::vector<std::string> others = {};          ///< some types of boxes that say something else of the samples
};

/// The defaults of a track. Throws if there is no such track.
using DefaultsOfTrack = std::function<SampleDefaults(uint32_t trackID)>;

/// The track fragments of a whole `moof` box. Throws MovieError: damaged; FragmentsError if they are encrypted.
std::vector<TrackFragment> parseMovieFragment(ByteView moof, const DefaultsOfTrack& defaults);

/// A `trex`, given its contents; nothing if they end too early.
struct TrackExtends {
  uint32_t trackID = 0;
  SampleDefaults defaults = {};
};
std::optional<TrackExtends> parseTrackExtends(ByteView contents);

}  // namespace tarn
