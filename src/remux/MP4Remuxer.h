#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "mp4/ChunkOffsetTable.h"
#include "mp4/MP4BoxUtils.h"
#include "parameters/HEVCConfigurationSegment.h"
#include "pipeline/CancellationToken.h"
#include "pipeline/RemuxTimingHelper.h"
#include "platform/Bytes.h"
#include "platform/FileManager.h"
#include "presentation/RewriteCheck.h"
#include "remux/VideoPlan.h"

namespace tarn {

/// The video remuxer: it makes a file's video track one that players take, on the file itself. No state; one file at a
/// time. Failures are MP4RemuxError, ByteArrayError and PosixError; a file whose repair fails is as it was.
class MP4Remuxer {
 public:
  // --- Boxes and chunk offsets: MP4BoxUtils and ChunkOffsetTable under the remuxer's name ---

  /// Top-level search from the file's position on, and search from there to the container's end; see MP4BoxUtils.
  static std::optional<MP4BoxInfo> findBox(FileHandle& file, std::string_view type, uint64_t maxSearch) {
    return MP4BoxUtils::findBox(file, type, maxSearch);
  }
  static std::optional<MP4BoxInfo> findBoxInContainer(FileHandle& file, const MP4BoxInfo& container,
                                                      std::string_view type) {
    return MP4BoxUtils::findBoxInContainer(file, container, type);
  }

  /// ChunkOffsetTable::adjustAllInMoov, of which the log tells.
  static void adjustChunkOffsets(std::span<uint8_t> moovData, const ChunkOffsetShift& shift);

  // --- Codec tag (ISO/IEC 14496-12 8.5.2, 14496-15) ---

  /// The four-character code of the video track's first sample entry, whatever the codec; nothing if the way to it
  /// is broken. Throws fileNotFound, and ioError when the file cannot be opened.
  static std::optional<std::string> detectHEVCTag(FileManager& files, const Path& fileURL);

  /// The same of a given `stsd`. Moves the file's position.
  static std::optional<std::string> readVideoCodecFromStsd(FileHandle& file, const MP4BoxInfo& stsd);

  /// The repair without a rewrite: a first sample entry "avc3" that holds an `avcC` with at least one SPS and one PPS
  /// that a decoder can read becomes "avc1", 4 bytes in the file itself, flushed. True if the entry needs nothing
  /// more; false for HEVC and when there is no such `avcC`. Throws fileNotFound, ioError, corruptedMP4 and, for another
  /// codec, unsupportedFormat. `codecTag` is what the caller found; the tag is read again.
  static bool remuxAVCTag(FileManager& files, const Path& fileURL, std::string_view codecTag);

  // --- Parameter sets out of the bitstream (ISO/IEC 14496-15 5.3.3, 8.3.3) ---

  /// Takes the parameter sets out of the samples, puts a complete configuration box into the video track's first
  /// sample entry, whatever box was there, and replaces the file; no sample byte changes. A stream that one entry
  /// cannot describe, since its picture size changes or an identifier comes again with other content, gets several; see
  /// below. For AVC the tag repair is tried first and is all, unless the samples carry other sets than the entry. A
  /// caller who has a plan of the kind rebuilds or splits hands it over: its sets are then used, nothing is scanned and
  /// no tag repair is tried. An empty `timings` becomes a record of zeros and is filled. The token, which may be null,
  /// is looked at before the scan, before the `moov` is edited and, if there is one entry, before the file is
  /// written. A new `moov` that is byte for byte the old one is not written. `check` is called as RewriteCheck says.
  ///
  /// Throws CancellationError; MP4RemuxError: fileNotFound, writeError where the temporary directory's file system has
  /// not more than twice the file's size free, corruptedMP4, unsupportedFormat for another codec, ioError;
  /// NALUnitParserError, ConfigurationBoxError, and what the sample table parser throws.
  static void remuxHEVCWithParameterExtraction(FileManager& files, const Path& fileURL,
                                               const CancellationToken* cancellationToken,
                                               std::optional<RemuxTimings>& timings, const VideoPlan* plan = nullptr,
                                               const RewriteCheck& check = {});
  static void remuxAVCWithParameterExtraction(FileManager& files, const Path& fileURL, std::string_view codecTag,
                                              const CancellationToken* cancellationToken,
                                              std::optional<RemuxTimings>& timings, const VideoPlan* plan = nullptr,
                                              const RewriteCheck& check = {});

  /// The `moov` with the box as the first child of the video track's first sample entry, and the entry's tag "hvc1"
  /// ("encv" stays; its `frma` says "hvc1") or "avc1". Older configuration boxes and what follows a damaged child
  /// are left out. Throws ByteArrayError, corruptedMP4 and unsupportedFormat. `moov` has an 8-byte header, here and
  /// below.
  static Bytes injectHvcCBoxIntoMoov(ByteView moovData, ByteView hvcCBox);
  static Bytes injectAvcCBoxIntoMoov(ByteView moovData, ByteView avcCBox);

  /// Where the `stsd` of a `trak` begins. Throws corruptedMP4 that names the box that is missing.
  static size_t findStsdOffsetInTrak(ByteView moovData, size_t trakOffset);

  /// Adds the change to the sizes of the boxes from the `stsd` of a `trak` up to the `moov`. To be called when the
  /// bytes after the `stsd` header have been changed already. Throws corruptedMP4 if a size does not fit 32 bits.
  static void updateParentBoxSizes(std::span<uint8_t> moovData, int64_t sizeDelta, size_t videoTrakOffset);

  /// A `sinf` box whose `frma` names the codec, a four-character code (ISO/IEC 14496-12 8.12.2); its length stays.
  static Bytes updateFrmaInSinfData(ByteView sinfData, std::string_view targetCodec);

  // --- Streams that change: one sample entry for each configuration (ISO/IEC 14496-12 8.5.2, 8.7.4) ---

  /// Gives the video track one sample entry for each segment, a run of samples with the same parameter sets in force,
  /// each made from the entry of the segment's first sync sample, and makes each sample a chunk of its own that names
  /// its segment's entry. Segments that are not given are found in the stream, with the sets of the sample entry in
  /// force at the start. Given ones are those of a plan: segments whose entries would be alike share one, and HEVC
  /// entries state the size that is shown; that of segments which are found is the coded one. Only `stsd`, `stsc` and
  /// the chunk offsets of the track change; the size in `tkhd` stays. `moovData` is the whole `moov` that is at
  /// `moovBox` in the file, `fileHandle` the file open for reading, which is closed before the file is replaced. A
  /// `moov` that stays the same is not written. Fills `timings`. Throws MP4RemuxError, ByteArrayError,
  /// ConfigurationBoxError, PosixError, VisualSampleEntryBuilderError, and what the sample table parser and the
  /// detection of the segments throw.
  static void remuxWithMultipleSampleEntries(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                             ByteView moovData, int nalLengthSize, FileHandle& fileHandle,
                                             std::optional<RemuxTimings>& timings,
                                             const std::vector<ConfigurationSegment>& segments = {},
                                             const RewriteCheck& check = {});
  static void remuxAVCWithMultipleSampleEntries(FileManager& files, const Path& fileURL, const MP4BoxInfo& moovBox,
                                                ByteView moovData, int nalLengthSize, FileHandle& fileHandle,
                                                std::optional<RemuxTimings>& timings,
                                                const std::vector<ConfigurationSegment>& segments = {},
                                                const RewriteCheck& check = {});

  /// A box inside a buffer, in bytes; it is in the buffer whole.
  struct BoxRange {
    size_t offset = 0;
    size_t size = 0;
  };

  /// The `stbl` of the video track, and its whole `stsd`. Both throw corruptedMP4 that names what is missing.
  static BoxRange findStblBoxInMoov(ByteView moovData);
  static Bytes extractStsdBoxFromMoov(ByteView moovData);

  /// The `moov` with an `stsd` of these entries and the given whole boxes in the `stbl` of its video track. Throws
  /// corruptedMP4, also where a size does not fit 32 bits.
  static Bytes buildMoovWithMultipleEntries(ByteView originalMoov, const std::vector<Bytes>& newSampleEntries,
                                            ByteView newStscBox, ByteView newChunkOffsetBox);

  /// The `stbl` with the new boxes in the places of the old; all other children stay where they are, but a second chunk
  /// offset box, and what follows a damaged child, is left out.
  static Bytes replaceBoxesInStbl(ByteView stblData, ByteView newStsd, ByteView newStsc, ByteView newChunkOffset);

  /// Does the same as updateParentBoxSizes, from the box around the `stbl` up.
  static void updateParentBoxSizesForStbl(std::span<uint8_t> moovData, int64_t sizeDelta, size_t videoTrakOffset);

  // --- Rewrite ---

  /// Writes the file anew in the temporary directory, its top-level boxes in their order and `newMoovData` in the place
  /// of the `moov` at `moovBox`, and replaces it in one step. Chunk offsets in `newMoovData`, which are those of the
  /// source, are corrected for media that move. Bytes after the last whole box are copied as they are. `fileHandle` is
  /// the source, open for reading; it is closed before the replace. `check` is called with the finished file. On
  /// failure the source is as it was and no temporary file is left. Throws writeError, corruptedMP4, ioError,
  /// PosixError, and what the check throws.
  static void writeAtomicMP4(FileManager& files, const Path& sourceFileURL, const MP4BoxInfo& moovBox,
                             Bytes newMoovData, FileHandle& fileHandle, std::optional<RemuxTimings>& timings,
                             const RewriteCheck& check = {});
};

}  // namespace tarn
