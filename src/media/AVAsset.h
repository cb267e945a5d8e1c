#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "media/CMFormatDescription.h"
#include "media/CMSampleBuffer.h"
#include "media/CMTime.h"
#include "mp4/EditTimeline.h"
#include "mp4/MP4BoxUtils.h"
#include "platform/FileManager.h"

namespace tarn {

enum class AVMediaType { video, audio };

/// One track of an asset, as its headers describe it.
struct AVAssetTrack {
  uint32_t trackID = 0;  ///< 0 if the `tkhd` is missing or damaged
  AVMediaType mediaType = AVMediaType::video;
  uint32_t naturalTimeScale = 0;  ///< ticks per second of the media's clock; 0 if the `mdhd` is missing or damaged
  MP4BoxInfo trak;                ///< where the track's box is in the file

  /// One for each sample entry, in `stsd` order. Empty if the `stsd` cannot be read.
  std::vector<CMFormatDescriptionPointer> formatDescriptions;

  /// Start: the leading empty edits. Duration: the sum of the other edits; without edits that of the `mdhd`
  /// (ISO/IEC 14496-12 8.6.6, 8.4.2).
  CMTimeRange timeRange;

  /// False: the edit list counts for nothing, and the samples come as the media has them, from media time 0 on.
  bool followsEditList = true;
};

/// A media file on disk, read when asked. The FileManager must outlive it. One object serves one thread.
class AVAsset {
 public:
  AVAsset(FileManager& files, Path url) : files_(files), url_(std::move(url)) {}

  /// The tracks whose handler is that of the type ("vide", "soun"; ISO/IEC 14496-12 8.4.3), in file order. A file
  /// that is missing, cannot be read, or has no `moov` has no tracks.
  std::vector<AVAssetTrack> tracks(AVMediaType withMediaType) const;

  /// The duration of the `mvhd`, or that of the longest track if the first is shorter or missing; zero if neither can
  /// be read.
  CMTime duration() const;

  /// The samples of one of the asset's tracks, by the file's own sample table and edit list, in decode order. Edits are
  /// taken in order: an empty one advances the presentation clock, any other shows the media from its `media_time` on,
  /// a duration of 0 to the end. Only samples that overlap an edit come; one that straddles its start keeps its true,
  /// earlier time. The duration of an AAC buffer is its nominal length, 1024 or 2048 samples at the actual rate, so
  /// that a gap shows; the last one has the smaller of that and its `stts` delta. That of any other buffer is its
  /// `stts` delta. Throws Error when the tables cannot be read or contradict the file.
  std::unique_ptr<CompressedSampleSource> compressedSamples(const AVAssetTrack& track) const;

  /// One of the asset's tracks as if it had no edit list; its duration is that of the sample table. Throws as above.
  AVAssetTrack withoutEditList(const AVAssetTrack& track) const;

  /// How many of the track's samples are not whole in the file. Throws as above.
  int64_t samplesOutsideFile(const AVAssetTrack& track) const;

  /// What the track's edit list shows of its media, in order; all of it if there is no list, and where the list is
  /// damaged: where no entry reaches the media, or one has a media time below -1. Throws as above.
  std::vector<MediaEdit> shownMedia(const AVAssetTrack& track) const;

  FileManager& files() const { return files_; }
  const Path& url() const { return url_; }

 private:
  FileManager& files_;
  Path url_;
};

}  // namespace tarn
