#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>

#include "audio/transcode/TranscodeConfig.h"
#include "audio/transcode/TranscodeLoop.h"
#include "media/AVAssetWriter.h"
#include "pipeline/CancellationToken.h"
#include "platform/TempFile.h"

namespace tarn {

/// What goes on all along while a transcoding works or waits: it looks whether it is to stop, and tells how far it is.
class TranscodePulse {
 public:
  /// The token may be null, the callback empty; both must outlive the pulse.
  TranscodePulse(const CancellationToken* token, const TranscodeProgress& callback, int64_t expectedSamples);

  /// Throws CancellationError. Reports at most every half second.
  void beat();
  void report(double progress, const char* stage) const;

  void addWrittenSamples(int64_t samples) { writtenSamples_ += samples; }

 private:
  void throwIfCancelled() const;
  void reportIfDue();

  const CancellationToken* token_;
  const TranscodeProgress& callback_;
  int64_t expectedSamples_;
  int64_t writtenSamples_ = 0;
  std::optional<std::chrono::steady_clock::time_point> lastReport_;
};

/// The M4A in the making. The file is gone with the object unless it was kept. All failures of the writer are
/// AudioTranscoderError, and whatever waits throws CancellationError soon after the token is set.
class TranscodeOutput : public PCMSink {
 public:
  /// Makes the file, in place of one that is there. `workers` as in TranscodeConfig.
  TranscodeOutput(FileManager& files, const Path& url, const AACOutputSettings& settings, unsigned workers,
                  TranscodePulse& pulse);

  void start();
  void append(const CMSampleBuffer& buffer) override;
  /// Returns when the file is whole.
  void finish();
  void keep() { file_.keep(); }

 private:
  void waitUntilReady();
  void throwIfFailed() const;

  TempFile file_;
  AVAssetWriter writer_;
  std::shared_ptr<AVAssetWriterInput> input_;
  TranscodePulse& pulse_;
};

}  // namespace tarn
