#pragma once

#include <tarn/summary.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "audio/AudioRepairDecision.h"
#include "inspect/Verdict.h"
#include "parameters/PictureSize.h"
#include "pipeline/OriginalSyncInfo.h"
#include "platform/FileManager.h"
#include "presentation/MissingSamples.h"
#include "sync/SyncFixOrder.h"

namespace tarn {

struct TopLevelBox {
  std::string type;
  uint64_t offset = 0;
  uint64_t size = 0;          ///< bytes, as the box says
  uint64_t missingBytes = 0;  ///< of it, past the file's end
};

struct TrackFacts {
  uint32_t id = 0;
  std::string handler;  ///< handler_type; empty where it cannot be read
  std::string codec;    ///< tag of the first sample entry; empty where it cannot be read
  uint32_t timescale = 0;
  int64_t duration = 0;                ///< of the media, track timescale
  bool lacksDuration = false;          ///< there are samples, and the `mdhd` says 0 or that it does not know
  std::optional<uint32_t> samples;     ///< as the size table counts them
  std::optional<PictureSize> picture;  ///< of a video track
  std::optional<uint16_t> channels;    ///< of an audio track, as is the rate, in Hz
  std::optional<uint32_t> rate;
};

/// A decoder configuration box, `hvcC` or `avcC` (ISO/IEC 14496-15 5.3.3, 8.3.3).
struct ConfigurationFacts {
  std::string type;
  uint64_t size = 0;  ///< bytes, header included
  size_t vps = 0;     ///< numbers of parameter sets
  size_t sps = 0;
  size_t pps = 0;
  bool isComplete = false;             ///< each kind that the codec has is there
  std::optional<std::string> problem;  ///< why it cannot be read
};

/// A run of samples, 1-based, both ends included.
struct SampleRange {
  int64_t first = 1;
  int64_t last = 1;
};

struct SampleEntryFacts {
  std::string tag;
  uint64_t size = 0;  ///< bytes
  PictureSize picture;
  std::vector<SampleRange> ranges;  ///< of the samples that use it
  std::optional<ConfigurationFacts> configuration;
  std::string firstStray;   ///< type of the child that overruns the entry; empty if none does
  uint64_t strayBytes = 0;  ///< after its last whole child
};

/// What the bitstream itself holds.
struct BitstreamFacts {
  size_t syncSamples = 0;
  int nalLengthSize = 4;    ///< bytes
  std::vector<size_t> vps;  ///< sizes of the distinct parameter sets in bytes
  std::vector<size_t> sps;
  std::vector<size_t> pps;
  std::vector<PictureSize> pictures;  ///< that the SPS state
  bool reusesIdentifiers = false;     ///< HEVC only
  bool changesPictureSize = false;
  std::optional<std::string> problem;  ///< why it cannot be read
};

/// The first video track, on which the repair works.
struct VideoFacts {
  std::vector<SampleEntryFacts> entries;
  std::optional<std::string> problem;       ///< why the samples of the entries cannot be told
  std::optional<BitstreamFacts> bitstream;  ///< of HEVC and AVC
};

/// What the fragments step does to the file.
struct FragmentsForecast {
  enum class Kind {
    nothing,
    joins,         ///< fragments become a plain movie
    keepsPart,     ///< the end is missing; what is there becomes a whole movie
    correctsSize,  ///< of an `mdat` that ends past the end of the file, with all samples there
    leavesAlone,   ///< what it would mend
    refuses,
  };

  Kind kind = Kind::nothing;
  std::string reason = {};

  bool changesFile() const { return kind == Kind::joins || kind == Kind::keepsPart || kind == Kind::correctsSize; }
};

/// What the remux step does to the file.
struct RemuxForecast {
  enum class Kind { skipped, leavesAlone, changesTag, rebuilds, splits, refuses };

  Kind kind = Kind::skipped;
  std::string reason;
  bool changesFile = false;
  std::vector<SampleEntryFacts> entries;  ///< after the step
  std::vector<std::string> losses;
};

/// A gap in the sound, or a place at which the sound jumps back.
struct SoundPlace {
  double atSeconds = 0;
  double milliseconds = 0;
};

/// What the audio step does to the file.
struct AudioForecast {
  enum class Kind {
    notReached,
    skipped,  ///< by the record that the file would get
    noSound,
    leavesAlone,
    leavesToEditList,
    takesFastPath,
    transcodes,
    leavesExtremeDrift,
  };

  Kind kind = Kind::notReached;
  std::string reason;
  std::optional<AudioFindings> findings = {};
  std::vector<SoundPlace> gaps = {};  ///< the first ones; the findings tell how many there are
  std::vector<SoundPlace> overlaps = {};

  /// Track and packets differ in length, and no gap explains it.
  bool hasDrift() const { return findings && findings->analysis.gapType == GapType::timelineDrift; }
  bool replacesSound() const { return kind == Kind::takesFastPath || kind == Kind::transcodes; }
};

/// What the sync step does to the file.
struct SyncForecast {
  enum class Kind { notReached, nothing, writes, fails };

  Kind kind = Kind::nothing;
  std::string reason;
  SyncFixOrder order = {};  ///< the edit lists that it writes
};

struct Inspection {
  Path file;
  uint64_t size = 0;
  std::vector<TopLevelBox> boxes;
  std::optional<std::string> boxesProblem;  ///< how the row of boxes ends, where it does not end with the file
  bool hasMovie = false;                    ///< there is a `moov`, listed among the boxes or after them
  std::vector<TrackFacts> tracks;
  std::optional<VideoFacts> video;
  std::optional<OriginalSyncInfo> sync;
  std::optional<std::string> syncProblem;   ///< why there are no sync facts
  std::vector<Problem> problems;            ///< what is wrong with the file
  std::vector<IncompleteTrack> incomplete;  ///< tracks that list samples which the file does not hold
  std::optional<std::string> refusal;       ///< why no player shows the file, and so none is made of it
  FragmentsForecast fragments;
  RemuxForecast remux;
  AudioForecast audio;
  SyncForecast syncFix;
  std::vector<std::string> warnings = {};  ///< what the steps warn of, in the words of `tarn repair`
  /// What the steps together would do to the presentation; the repair then leaves the file as it is. Sound that they
  /// make anew is not looked at: it is made by the repair itself.
  std::vector<std::string> harms = {};
  /// As a run sums itself up; `done` and `after` are those of the trial.
  RepairSummary summary = {};
  bool isComparable = false;  ///< what the file shows can be read; else there are no harms, and nothing to compare
  bool changesFile = false;   ///< the repair's result differs from the file; each of its changes mends a problem
  Verdict verdict = {};
};

/// Looks at a file, which is opened for reading alone, and lets the steps of the repair work on it without a change to
/// any disk. Facts that cannot be read are told as problems. Throws PosixError for a file that cannot be opened.
Inspection inspect(FileManager& files, const Path& file);

}  // namespace tarn
