#pragma once

#include <memory>
#include <optional>
#include <string>

#include "audio/transcode/FrameCounts.h"
#include "media/AVAssetReader.h"

namespace tarn {

/// One walk over the compressed samples of one track, with a reader of its own. An error in mid-stream ends it.
class CompressedWalk {
 public:
  /// Both must outlive the walk. Throws Error when the file cannot be opened.
  CompressedWalk(const AVAsset& asset, const AVAssetTrack& track)
      : reader_(asset), output_(std::make_shared<AVAssetReaderTrackOutput>(track)) {}

  /// Adds the output to the reader; false if it cannot be added.
  bool addOutput() {
    if (!reader_.canAddOutput(*output_)) return false;
    reader_.addOutput(output_);
    return true;
  }
  bool start() { return reader_.startReading(); }
  /// Why it would not start.
  std::string failure() const { return reader_.error() ? reader_.error()->description() : "unknown"; }

  std::optional<CMSampleBuffer> next() { return output_->copyNextSampleBuffer(); }
  void cancel() { reader_.cancelReading(); }

 private:
  AVAssetReader reader_;
  std::shared_ptr<AVAssetReaderTrackOutput> output_;
};

/// True for a time or a length that a buffer really states.
inline bool isStated(const CMTime& time) {
  return time.isValid() && !time.isIndefinite();
}

/// Where a buffer ends: its stated duration after its time, or else this many frames at this rate in Hz.
inline CMTime endOf(const CMSampleBuffer& buffer, int64_t frames, double rate) {
  const CMTime length = isStated(buffer.duration) ? buffer.duration : CMTime::make(frames, frameTimescale(rate));
  return buffer.presentationTimeStamp + length;
}

}  // namespace tarn
