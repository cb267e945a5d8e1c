#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "fragments/Runs.h"
#include "fragments/TrackTables.h"
#include "fragments/detail/FragmentBoxes.h"
#include "movie/MovieTree.h"

namespace tarn {

/// A track of a movie in fragments while its samples are gathered: those of the `moov` first, then those of each
/// fragment at the time that it states.
class FragmentTrack {
 public:
  /// Throws MovieError: damaged, for a track that cannot be read; FragmentsError for an encrypted one.
  explicit FragmentTrack(const MovieBox& trak);

  uint32_t trackID() const { return trackID_; }
  uint32_t timescale() const { return timescale_; }
  /// The whole `stsd`.
  const Bytes& stsd() const { return stsd_; }

  SampleDefaults defaults;  ///< of its `trex`
  uint64_t missing = 0;     ///< samples after the last one that lie past the end of the file

  /// The next sample is decoded at this time (ISO/IEC 14496-12 8.8.12). Stretches or shortens the sample before it.
  /// A run that goes back and begins with a sync sample replaces what it comes to lie on. Throws FragmentsError where
  /// that cannot be.
  void continueAt(uint64_t time, bool isSync);
  /// Throws FragmentsError for a description that the `stsd` does not have.
  void append(const TrackSample& sample);
  /// Puts the samples from `first` on into the groups of a fragment.
  void appendGroups(uint64_t first, const TrackFragment& fragment);
  /// Notes that boxes of these types say something of samples that the plain movie will not.
  void leaveOut(const std::vector<std::string>& types);
  /// Forgets all but the first so many samples.
  void truncate(uint64_t samples);
  /// There is no further sample. Throws FragmentsError if a run went back that does not reach as far as what it
  /// replaced.
  void finish() const;

  TrackTables& tables() { return tables_; }
  const TrackTables& tables() const { return tables_; }
  uint64_t samplesInMoov() const { return samplesInMoov_; }
  /// When its samples are composed; what is not pictures is shown when it is decoded. The first sample is decoded at 0.
  TrackTables::Composition media() const;
  /// The same of the samples of the `moov` alone.
  const TrackTables::Composition& mediaInMoov() const { return mediaInMoov_; }

  /// When the first sample is decoded, by the fragments' times; the tables begin at 0.
  int64_t start() const { return start_; }
  /// The samples as they were appended, independent of the tables.
  const Runs<bool>& syncs() const { return syncs_; }
  uint64_t duration() const { return duration_; }

  /// What is told of the track, in words for people.
  std::vector<std::string> notes() const;

 private:
  void readDescriptions(const MovieBox& stbl);
  void readSyncs(const MovieBox& stbl);
  int64_t end() const { return start_ + static_cast<int64_t>(duration_); }
  void setLastDuration(uint64_t ticks);
  void stretch(uint64_t gap);
  void goBack(int64_t time, bool isSync);
  double seconds(uint64_t ticks) const { return static_cast<double>(ticks) / timescale_; }

  uint32_t trackID_ = 0;
  uint32_t timescale_ = 0;
  uint32_t descriptions_ = 0;  ///< entries of the `stsd`
  Bytes stsd_;
  TrackTables tables_;
  uint64_t samplesInMoov_ = 0;
  bool hasPictures_ = false;
  TrackTables::Composition mediaInMoov_;
  int64_t start_ = 0;
  Runs<bool> syncs_;
  uint64_t duration_ = 0;
  uint32_t lastDuration_ = 0;

  int64_t furthest_ = 0;  ///< how far the samples reached that a later run has replaced
  uint64_t gaps_ = 0;
  uint64_t gapTicks_ = 0;
  uint64_t replaced_ = 0;
  std::string unknownGroups_;      ///< types, with commas
  std::set<std::string> leftOut_;  ///< types of boxes
};

}  // namespace tarn
