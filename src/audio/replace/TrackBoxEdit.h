#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "audio/replace/MovieTree.h"
#include "mp4/BoxLayout.h"
#include "mp4/ChunkOffsetTable.h"

namespace tarn {

// Edits of a `trak` or `mvhd` in memory. A field that is missing reads as the value that is named, and is not edited.
// What cannot be true or cannot be expressed throws AudioTrackReplacerError::corruptedMP4.

/// The one of two fields that the version of a box says is there.
struct VersionedField {
  layout::Field version0;
  layout::Field otherVersions;

  /// `otherwise` for no box, and for one that ends ahead of the field.
  uint64_t load(const MovieBox* box, uint64_t otherwise) const;
  /// True when written; a 32-bit field takes what fits it. `label` is for the log.
  bool store(MovieBox* box, std::string_view label, uint64_t value) const;
};

inline constexpr VersionedField trackIDField{layout::trackID32, layout::trackID64};
inline constexpr VersionedField tkhdDurationField{layout::trackDuration32, layout::trackDuration64};
inline constexpr VersionedField nextTrackIDField{layout::nextTrackID32, layout::nextTrackID64};
inline constexpr VersionedField headerDurationField{layout::timeHeader32.duration, layout::timeHeader64.duration};
inline constexpr VersionedField headerTimescaleField{layout::timeHeader32.timescale, layout::timeHeader64.timescale};

/// The first track of this handler type (ISO/IEC 14496-12 8.4.3), or else the first with this media header; null
/// without one.
MovieBox* findTrack(MovieBox& moov, std::string_view handlerType, std::string_view mediaHeader);

/// An `stts` (ISO/IEC 14496-12 8.6.1.2) as a single entry, where that keeps the track's duration exactly; else nothing,
/// and the reason is in the log.
std::optional<Bytes> normalizeAudioStts(const MovieBox& stts);

/// Corrects every `stco` and `co64` of a track, as ChunkOffsetTable::moved does.
void moveChunkOffsets(MovieBox& trak, std::span<const MediaMove> moves);

/// Puts the media of `newTrak` into `trak`: its clock, its sample table and its data references. All else of `trak`
/// stays. The entries of its edit list (ISO/IEC 14496-12 8.6.6) stay if `keepsEditList`: media times go into the new
/// clock, rounded to nearest, and the last entry is cut where it would show more than a packet of nothing; else there
/// is no list. The `tkhd` duration is what the entries add up to, `mediaDuration` without any. Timescale and duration
/// of the movie that `trak` is in.
void putMedia(MovieBox& trak, const MovieBox& newTrak, uint32_t movieTimescale, uint64_t mediaDuration,
              bool keepsEditList);

}  // namespace tarn
