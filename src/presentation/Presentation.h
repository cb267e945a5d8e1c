#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/EditTimeline.h"
#include "mp4/SampleLocations.h"
#include "mp4/SampleTimes.h"
#include "platform/FileManager.h"

namespace tarn {

/// A time on the movie's timeline, from its start on, worked out in 128 bits and off by at most a nanosecond.
using MovieTime = std::chrono::nanoseconds;

/// One track: its tables, and how its edit list lays them on the movie's timeline. Memory is that of the tables.
struct TrackPresentation {
  uint32_t trackID = 0;
  std::string handler = {};         ///< handler_type, as "vide"; empty if it cannot be read
  std::string codec = {};           ///< tag of the first sample entry; empty if it cannot be read
  uint32_t timescale = 0;           ///< of the `mdhd`; never 0
  bool isEnabled = true;            ///< track_enabled of the `tkhd`
  std::string matrix = {};          ///< of the `tkhd`, its 36 bytes
  uint32_t sampleDescriptions = 0;  ///< entries of the `stsd`

  bool hasEditList = false;  ///< with at least one entry, damaged or not
  EditListDamage damage = EditListDamage::none;
  /// The edits in force: those of the list; without a list, or if it is damaged, one that shows the media as it is
  /// (media time is movie time, from the smallest composition time on if that is below 0).
  std::vector<PresentedEdit> edits = {};

  int64_t firstCompositionTime = 0;     ///< of the first sample in decode order, track timescale
  int64_t smallestCompositionTime = 0;  ///< of all pictures; 0 for other tracks
  int64_t mediaEnd = 0;  ///< end of the last sample: of pictures by composition, else by decoding; track timescale
  int64_t mediaStart() const { return handler == "vide" ? smallestCompositionTime : 0; }
  uint32_t samplesShown = 0;
  uint32_t samplesClipped = 0;  ///< of those shown, those of which a part is cut off
  uint32_t samplesHidden = 0;
  std::optional<MovieTime> shownFrom = {};  ///< nothing if no sample is shown
  std::optional<MovieTime> shownTo = {};

  SampleTimes times;
  SampleLocations locations;

  /// Counts the samples that have a chunk; of a truncated file some may be past its end.
  uint32_t sampleCount() const { return samplesShown + samplesHidden; }
  /// The time from the decoding of a sample to that of the next; 0 for a sample that is not there.
  MovieTime sampleLength(uint32_t sample) const;
};

/// What a player shows of a movie and when, worked out from its tables and edit lists alone: nothing is decoded, no
/// media is read. A picture's media interval runs from its composition time to that of the next picture in order of
/// composition, any other sample's from its decoding time to the next one's. What of an interval is inside an edit is
/// shown; of a picture no part that is at most one tick of the movie and less than half of the interval. A sample
/// without an interval is hidden: of pictures with one composition time all but the last in decode order. Serves one
/// thread.
class Presentation {
 public:
  /// Reads the file's first `moov`, wherever it is. Throws an Error of the domain "Presentation" if there is no
  /// `moov` or no movie timescale, where the movie is fragmented, or where a track's tables cannot be read, promise
  /// more samples of one size than a file of this size has bytes, or name more than 8 million pictures; PosixError
  /// if the file cannot be read. Tracks of any handler are read; one without samples is kept, with none shown.
  static Presentation read(FileManager& files, const Path& path);
  /// The same; returns nothing if the movie's boxes do not say what it shows, so that no result can be compared with
  /// it. `consequence` begins the line that the log then gets. Throws PosixError.
  static std::optional<Presentation> readIfPossible(FileManager& files, const Path& path, std::string_view consequence);

  uint32_t movieTimescale() const { return movieTimescale_; }
  const std::vector<TrackPresentation>& tracks() const { return tracks_; }
  /// The boxes that are neither media nor say where or when samples are shown, as paths of the innermost ones
  /// ("moov/udta/meta/ilst/©nam"), sorted; one that is there twice is listed twice. Left out are `free`, `skip`,
  /// `wide`, what stands below an `mdia`, and the encoder's name.
  const std::vector<std::string>& metadata() const { return metadata_; }

  /// One tick of the movie.
  MovieTime tick() const;

  /// The first track of this handler; null if there is none.
  const TrackPresentation* first(std::string_view handler) const;

 private:
  static Presentation readFrom(FileHandle& file);

  uint32_t movieTimescale_ = 0;
  std::vector<TrackPresentation> tracks_;
  std::vector<std::string> metadata_;
};

/// True for a file whose `moov` holds an `mvex`, or which has a `moof` beside it: its `moov` does not list all samples
/// (ISO/IEC 14496-12 8.8). Boxes are looked for over the whole file, but for no more than a million headers. Throws
/// PosixError if it cannot be read.
bool isFragmented(FileManager& files, const Path& path);

}  // namespace tarn
