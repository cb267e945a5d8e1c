#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "movie/TrackFields.h"

namespace tarn {

// Edits of a track in memory, which the log tells of. What cannot be true or cannot be expressed throws
// AudioTrackReplacerError::corruptedMP4.

/// Stores a field, or warns that it is not there. `label` is for the log.
void storeField(const VersionedField& field, MovieBox* box, std::string_view label, uint64_t value);

/// An `stts` (ISO/IEC 14496-12 8.6.1.2) as a single entry, where that keeps the track's duration exactly; else nothing,
/// and the reason is in the log.
std::optional<Bytes> normalizeAudioStts(const MovieBox& stts);

/// Puts the media of `newTrak` into `trak`: its clock, its sample table and its data references. All else of `trak`
/// stays. The entries of its edit list (ISO/IEC 14496-12 8.6.6) stay if `keepsEditList`: media times go into the new
/// clock, rounded to nearest, and the last entry is cut where it would show more than a packet of nothing; else there
/// is not a list. The `tkhd` duration is what the entries add up to, `mediaDuration` without any. Timescale and
/// duration of the movie that `trak` is in.
void putMedia(MovieBox& trak, const MovieBox& newTrak, uint32_t movieTimescale, uint64_t mediaDuration,
              bool keepsEditList);

}  // namespace tarn
