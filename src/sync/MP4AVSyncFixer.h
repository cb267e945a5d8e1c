#pragma once

#include <optional>
#include <string>
#include <vector>

#include "mp4/MP4BoxUtils.h"
#include "pipeline/CancellationToken.h"
#include "pipeline/NamesInTheMaking.h"
#include "pipeline/OriginalSyncInfo.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "presentation/RewriteCheck.h"
#include "sync/SyncFixOrder.h"
#include "sync/detail/TrackTimingInfo.h"

namespace tarn {

/// What is to be changed in a `moov`.
struct MoovEdits {
  std::optional<Bytes> videoEdtsData;      ///< a whole `edts`; without one the track's own stays
  std::optional<Bytes> audioEdtsData;      ///< likewise
  int64_t videoTrackDuration = 0;          ///< movie timescale; 0 or less leaves the `tkhd` alone
  int64_t audioTrackDuration = 0;          ///< likewise
  std::optional<Bytes> convertedCttsData;  ///< a whole `ctts` that replaces the one below
  uint64_t originalCttsOffset = 0;         ///< in the file
  uint64_t originalCttsSize = 0;           ///< bytes; 0 if there is none
};

/// Finds out where a file's tracks start, and writes edit lists (ISO/IEC 14496-12 8.6.6) that make them start together
/// as they did in the source. No state; an operation works on the thread of its caller. Failures are AVSyncError, and
/// those of the file layer unchanged; whatever fails, the file is as it was.
class MP4AVSyncFixer {
 public:
  /// How the tracks of a file stand to each other by its edit lists; a damaged list counts as none. A file without
  /// audio has no audio entries, 48000 and 2112.
  static OriginalSyncInfo readOriginalSyncInfo(FileManager& files, const Path& fileURL);

  /// Fixes a file in place. True if its `moov` was rewritten, false if nothing had to be done.
  /// `token` (may be null) is asked at the start and before the rewrite; a set one throws CancellationError.
  /// `timings` (may be null) is filled. `original` comes from readOriginalSyncInfo on the file as it was before any
  /// repair. `audioWasTranscoded` says that the audio track is not the source's any more. `names` (may be null) holds
  /// the temp file's name while it is written. With an `order` (may be null) the file gets exactly the lists that it
  /// holds; nothing is worked out from the file or from `original`, and a file without audio counts too. `check` is
  /// called before the replacement, and keeps the file as it was if it throws.
  static bool fix(FileManager& files, const Path& fileURL, const CancellationToken* token, AVSyncTimings* timings,
                  const std::optional<OriginalSyncInfo>& original, bool audioWasTranscoded,
                  NamesInTheMaking* names = nullptr, const SyncFixOrder* order = nullptr,
                  const RewriteCheck& check = {});

  /// Puts the edit lists and durations into the file's `moov` and moves the chunk offsets of all its tracks if the
  /// media moves. The boxes must have been found in this file. False, and nothing written, when the `moov` has all that
  /// already. `check` as above.
  static bool rewriteMoovWithBothEdts(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                      const MP4BoxInfo& videoTrakBox, const std::optional<MP4BoxInfo>& audioTrakBox,
                                      const MoovEdits& edits, NamesInTheMaking* names = nullptr,
                                      const RewriteCheck& check = {});

  /// The same for an order.
  static bool rewriteMoovAsOrdered(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                   const SyncFixOrder& order, NamesInTheMaking* names = nullptr,
                                   const RewriteCheck& check = {});

  // Parsers of a file that is open for reading. They move its position. The first two throw AVSyncError: corruptedMP4
  // for a box that is missing, ioError for one that cannot be read, analysisError for a timescale of 0.

  /// Ticks per second of the `mvhd`; never 0.
  static uint32_t parseMovieTimescale(FileHandle& file, const MP4BoxInfo& moovBox);

  static TrackTimingInfo parseVideoTrackInfo(FileHandle& file, const MP4BoxInfo& moovBox);

  /// Nothing if there is no audio track, or none with a timescale. Priming counts for replaced audio alone.
  static std::optional<AudioTrackTimingInfo> parseAudioTrackInfo(FileHandle& file, const MP4BoxInfo& moovBox,
                                                                 bool audioWasTranscoded);

  /// The track's edit list, video or audio, at most 16 entries; empty if there is none.
  static std::vector<EditListEntry> parseVideoEditList(FileHandle& file, const MP4BoxInfo& moovBox, MP4TrackType type);

  /// The format of the first sample entry; "unknown" when it cannot be read.
  static std::string parseAudioCodec(FileHandle& file, const MP4BoxInfo& mdiaBox);

  /// The duration of a whole `mdhd`, track timescale; 0 if it is cut short, or says that it is not known (all bits
  /// set).
  static int64_t parseMdhdDuration(ByteView mdhd);

  static int64_t getDefaultEncoderDelay(const std::string& codec);
};

}  // namespace tarn
