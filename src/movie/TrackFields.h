#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "movie/EditRules.h"
#include "movie/MovieTree.h"
#include "mp4/BoxLayout.h"
#include "mp4/ChunkOffsetTable.h"
#include "mp4/MP4BoxUtils.h"

namespace tarn {

/// The one of two fields that the version of a full box (ISO/IEC 14496-12 4.2) says is there. A field that its box ends
/// before is not there.
struct VersionedField {
  layout::Field version0;
  layout::Field otherVersions;

  /// Nothing for no box, here and below.
  std::optional<uint64_t> load(const MovieBox* box) const;

  struct Change {
    uint64_t before;
    uint64_t after;
  };
  /// A 32-bit field takes what fits it. Returns nothing, and changes nothing, if the field is not there.
  std::optional<Change> store(MovieBox* box, uint64_t value) const;
};

inline constexpr VersionedField trackIDField{layout::trackID32, layout::trackID64};
inline constexpr VersionedField tkhdDurationField{layout::trackDuration32, layout::trackDuration64};
inline constexpr VersionedField nextTrackIDField{layout::nextTrackID32, layout::nextTrackID64};
inline constexpr VersionedField headerDurationField{layout::timeHeader32.duration, layout::timeHeader64.duration};
inline constexpr VersionedField headerTimescaleField{layout::timeHeader32.timescale, layout::timeHeader64.timescale};

/// The handler_type of a `trak` (ISO/IEC 14496-12 8.4.3); empty without one.
std::string_view handlerOf(const MovieBox& trak);

/// The first track of this type, known as `rules.track` says; null without one.
MovieBox* findTrack(MovieBox& moov, MP4TrackType type, const EditRules& rules);

/// Moves the chunk offsets that `rules.tables` names by a shift. The length of the `moov` stays; a 32-bit offset that
/// does not fit is clamped, which the log tells of.
void moveChunks(std::span<uint8_t> moov, const ChunkOffsetShift& shift, const EditRules& rules);

/// Moves those of every `stco` and `co64` of the `trak`'s sample table, as ChunkOffsetTable::moved does: an `stco`
/// becomes a `co64` if it must. Throws MovieError: damaged for a chunk outside all moves.
void moveChunks(MovieBox& trak, std::span<const MediaMove> moves);

}  // namespace tarn
