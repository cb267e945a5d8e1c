#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <utility>

#include "media/CMFormatDescription.h"
#include "media/CMTime.h"
#include "platform/Bytes.h"

namespace tarn {

/// A block of memory that sample buffers share.
class CMBlockBuffer {
 public:
  explicit CMBlockBuffer(Bytes bytes) : bytes_(std::move(bytes)) {}
  ByteView bytes() const { return bytes_; }

 private:
  Bytes bytes_;
};

using CMBlockBufferPointer = std::shared_ptr<const CMBlockBuffer>;

/// Some samples of one track in their order: one compressed sample, or a run of PCM frames. Cheap to copy.
struct CMSampleBuffer {
  CMTime presentationTimeStamp = CMTime::invalid();
  CMTime duration = CMTime::invalid();  ///< of the whole buffer
  int64_t numSamples = 0;               ///< AAC packets of compressed audio, frames of PCM, 1 for compressed video
  CMFormatDescriptionPointer formatDescription;
  CMBlockBufferPointer dataBuffer;  ///< none for a compressed sample: its source gives the bytes when asked

  /// The place of a compressed sample in its track, 0-based, in decode order; -1 for PCM.
  int64_t sampleIndex = -1;

  /// How much of the sample is outside its edit (ISO/IEC 14496-12 8.6.6), before its start and past its end; a
  /// decoder drops that much of what it decodes. A sample ends with its `stts` delta, but an AAC packet with its coded
  /// length at the latest, so that a gap after it counts as none of it.
  CMTime trimDurationAtStart = CMTime::zero();
  CMTime trimDurationAtEnd = CMTime::zero();
};

/// A stream of sample buffers, from first to last. Serves one thread.
class SampleBufferSource {
 public:
  virtual ~SampleBufferSource() = default;

  /// The next buffer; nothing at the end. Throws Error when the stream breaks off; nothing comes after that.
  virtual std::optional<CMSampleBuffer> next() = 0;
};

/// The compressed samples of one track on its presentation timeline. `next` touches no media data; where a sample is
/// due that is not whole in the file the stream breaks off.
class CompressedSampleSource : public SampleBufferSource {
 public:
  /// The bytes of a sample of the track, delivered by `next` or not, by its 0-based index. Throws Error when they are
  /// not all there.
  virtual Bytes data(int64_t sampleIndex) = 0;
};

}  // namespace tarn
