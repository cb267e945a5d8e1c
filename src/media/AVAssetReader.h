#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "media/AVAsset.h"
#include "media/CMSampleBuffer.h"
#include "media/PCMDecoding.h"
#include "platform/Error.h"

namespace tarn {

/// Where one track of a reader comes out, as compressed samples or decoded. Belongs to one reader, and to its thread.
class AVAssetReaderTrackOutput {
 public:
  /// Compressed samples, as they are.
  explicit AVAssetReaderTrackOutput(AVAssetTrack track);
  /// 16-bit interleaved PCM.
  AVAssetReaderTrackOutput(AVAssetTrack track, PCMOutputSettings settings);

  /// The next buffer; nothing before the reader has started, at the end, and after a failure, which the reader's status
  /// tells of.
  std::optional<CMSampleBuffer> copyNextSampleBuffer();

 private:
  friend class AVAssetReader;

  AVAssetTrack track_;
  std::optional<PCMOutputSettings> settings_;
  class AVAssetReader* reader_ = nullptr;
  std::unique_ptr<SampleBufferSource> source_;
  bool isAtEnd_ = false;
};

enum class AVAssetReaderStatus { unknown = 0, reading = 1, completed = 2, failed = 3, cancelled = 4 };

/// Reads tracks of one asset. Each output is read for itself, in any order. Serves one thread; must outlive the use of
/// its outputs.
class AVAssetReader {
 public:
  /// The asset must outlive the reader. Throws Error when the file cannot be opened.
  explicit AVAssetReader(const AVAsset& asset);

  /// False once reading has started, for an output of another reader, and for PCM of a track that is no audio or has no
  /// format that can be decoded.
  bool canAddOutput(const AVAssetReaderTrackOutput& output) const;
  /// The output must be one that can be added.
  void addOutput(std::shared_ptr<AVAssetReaderTrackOutput> output);

  /// Opens the samples of all outputs. False if that fails, or at a second call: see `error`.
  bool startReading();
  /// Ends all outputs and lets go of the file.
  void cancelReading();

  /// Completed once every output has come to its end.
  AVAssetReaderStatus status() const { return status_; }
  /// Why the status is failed.
  const std::optional<Error>& error() const { return error_; }

 private:
  friend class AVAssetReaderTrackOutput;
  void fail(const Error& error);
  void outputEnded();

  const AVAsset& asset_;
  std::vector<std::shared_ptr<AVAssetReaderTrackOutput>> outputs_;
  AVAssetReaderStatus status_ = AVAssetReaderStatus::unknown;
  std::optional<Error> error_;
};

}  // namespace tarn
