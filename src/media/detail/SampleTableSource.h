#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "media/CMFormatDescription.h"
#include "media/CMSampleBuffer.h"
#include "mp4/EditTimeline.h"
#include "mp4/SampleLocations.h"
#include "mp4/SampleTimes.h"
#include "platform/FileManager.h"

namespace tarn {

/// The samples of one track by its sample table and edit list. Memory is that of the tables.
class SampleTableSource : public CompressedSampleSource {
 public:
  struct Tables {
    std::unique_ptr<FileHandle> file;
    SampleLocations locations;
    SampleTimes times;
    std::vector<MediaEdit> edits;
    std::vector<CMFormatDescriptionPointer> descriptions;  ///< in `stsd` order
    int32_t timescale = 0;                                 ///< of the track, above 0
  };

  /// Throws an Error of the domain "SampleTable" for edits that repeat the media beyond all measure.
  explicit SampleTableSource(Tables tables);
  SampleTableSource(const SampleTableSource&) = delete;
  SampleTableSource& operator=(const SampleTableSource&) = delete;

  std::optional<CMSampleBuffer> next() override;
  /// A sample's size is compared with the bytes that are there after its place before memory is taken for it. Throws an
  /// Error of the domain "SampleTable" for one that does not exist or is not whole in the file as it was opened,
  /// and PosixError if it cannot be read.
  Bytes data(int64_t sampleIndex) override;

 private:
  /// What a sample entry says of its samples.
  struct SampleKind {
    CMFormatDescriptionPointer description;
    std::optional<CMTime> nominalDuration;  ///< of an AAC packet
    int64_t codedLength = 0;                ///< the same in the track's timescale; no bound for other samples
  };
  struct SampleRange {
    uint32_t first;
    uint32_t end;
  };

  static SampleKind kindOf(const CMFormatDescriptionPointer& description, int32_t timescale);
  /// The samples that an edit may show.
  SampleRange rangeOf(const MediaEdit& edit) const;
  const SampleKind& kindOf(uint32_t sample);
  CMSampleBuffer buffer(uint32_t sample, const SampleTime& time, const SampleKind& kind, int64_t length) const;
  CMTime ticks(int64_t value) const { return CMTime::make(value, tables_.timescale); }

  Tables tables_;
  std::vector<SampleKind> kinds_;  ///< one for each description, at least one
  size_t edit_ = 0;                ///< in work, or the next
  std::optional<SampleTimes::Cursor> cursor_;
  uint32_t end_ = 0;  ///< of the samples of the edit in work
  size_t kind_ = 0;   ///< of the samples of `kindRange_`
  SampleRange kindRange_ = {0, 0};
};

}  // namespace tarn
