#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "presentation/Presentation.h"
#include "presentation/RewriteCheck.h"

namespace tarn {

/// What a repair announces that it changes; everything else must stay.
struct AnnouncedChange {
  /// The track whose samples are made anew (encoded, or laid out anew): of it only the shown ranges and what of the
  /// media they show are compared.
  std::optional<uint32_t> remadeTrack = {};
  /// Packets of the remade track are the source's, so that they may be up to this long off their place.
  MovieTime packetLength{0};
  /// False if each step has already proved the bytes of its own result: of the samples that are kept the sizes are
  /// compared then, and nothing of where they are.
  bool comparesBytes = true;
};

/// How the presentation of one track differs between two files.
struct TrackChange {
  uint32_t trackID = 0;
  std::string handler = {};
  bool isLost = false;  ///< nothing below counts then
  bool isRemade = false;
  uint32_t samplesHidden = 0;    ///< shown before and not after
  uint32_t samplesRevealed = 0;  ///< the reverse
  uint32_t samplesMissing = 0;  ///< of the old file's, not in the new one; of a remade track, not whole in the new file
  uint32_t samplesAdded = 0;
  uint32_t samplesChanged = 0;  ///< whose bytes are not known to be the same
  MovieTime shift{0};           ///< by which the track as a whole moved: the median of its samples; later is above 0
  MovieTime largestMove{0};     ///< of a sample against `shift`; absolute
  /// How much of the shown time is not shown any more; in a video track only pictures count that both show. If the
  /// media of a remade track end up to a packet earlier or later than the old ones, that counts neither here nor in
  /// `revealed`.
  MovieTime hidden{0};
  MovieTime revealed{0};
  bool isDescribedOtherwise = false;  ///< enabled, matrix or handler differ
  bool hasDamagedList = false;        ///< the new edit list is damaged, and the old one was not
};

/// How the presentation of a movie differs between two files.
struct PresentationChange {
  std::vector<TrackChange> tracks;        ///< one for each track of the old file, in its order
  std::vector<std::string> metadataLost;  ///< paths of boxes
  MovieTime pictureShift{0};              ///< of the first video track; 0 without one

  /// By how much a track moved against the pictures.
  MovieTime againstPictures(const TrackChange& track) const { return track.shift - pictureShift; }
};

/// The bytes that two files share; nothing for a file that was changed in place outside its samples, so that every
/// sample that keeps its place is the same.
using SharedBytes = std::optional<std::span<const CopiedRange>>;

/// Compares what two files show. Tracks pair by track_ID and handler, else by handler in order; the samples of a track
/// pair by their number. Linear in the number of samples, but for the pictures, which are sorted. Reads no media.
PresentationChange comparePresentations(const Presentation& before, const Presentation& after, SharedBytes shared,
                                        const AnnouncedChange& announced = {});

/// The check of a step: compares `before` with the result of a worker, and throws RefusedResult with all harms in its
/// words if there is one, or where the result cannot be read. The file manager and `before` must outlive it.
RewriteCheck requireHarmless(FileManager& files, const Presentation& before, const AnnouncedChange& announced);

}  // namespace tarn
