#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "media/CMSampleBuffer.h"
#include "platform/Error.h"
#include "platform/FileManager.h"

namespace tarn {

enum class AVFileType { appleM4A };

/// What an input's samples are encoded to: AAC-LC.
struct AACOutputSettings {
  int sampleRate = 48000;  ///< Hz
  int channels = 2;        ///< 1 or 2
  int bitRate = 128000;    ///< bits per second
};

class AVAssetWriter;

/// Where the samples of one track go in: 16-bit interleaved PCM at the rate and channel count of the settings.
class AVAssetWriterInput {
 public:
  explicit AVAssetWriterInput(const AACOutputSettings& settings);
  ~AVAssetWriterInput();

  /// Has no effect: a source that cannot wait is not served better than one that can.
  bool expectsMediaDataInRealTime = false;

  /// True while the encoders keep up; also true once the writer has failed, so that nobody waits for ever.
  bool isReadyForMoreMediaData() const;

  /// Puts the buffer's frames after those that came before, whatever its time says. False if the writer has failed
  /// or is not writing; it may be called while not ready, and then waits for room.
  bool appendSampleBuffer(const CMSampleBuffer& buffer);

  /// No more samples come: what is appended from here on is refused.
  void markAsFinished();

  const AACOutputSettings& settings() const;

 private:
  friend class AVAssetWriter;
  struct Track;
  std::shared_ptr<Track> track_;
};

enum class AVAssetWriterStatus { unknown = 0, writing = 1, completed = 2, failed = 3, cancelled = 4 };

/// Writes one AAC track into an M4A file. The encoder's priming is left out and the last packet's duration shortened,
/// so that media time 0 is PCM frame 0 and the duration is the exact number of frames, without an edit list. (Where the
/// missing frames are a non-zero multiple of the packet count, the last packet keeps its 1024.) No frames at all give a
/// file with `moov` and `mdat`. PCM is encoded in segments on several workers; the result does not depend on how many.
/// Memory stays flat. Calls come from one thread.
class AVAssetWriter {
 public:
  /// Makes the file, which must not exist. Throws PosixError when that fails. At most `workers` threads encode; 0 means
  /// as many as cores, at most 4.
  AVAssetWriter(FileManager& files, const Path& outputURL, AVFileType fileType, unsigned workers = 0);
  /// A writer that has not finished is cancelled.
  ~AVAssetWriter();
  AVAssetWriter(const AVAssetWriter&) = delete;
  AVAssetWriter& operator=(const AVAssetWriter&) = delete;

  /// False for a second input and for settings that the encoder does not take or the file cannot describe: other rates
  /// than 24000, 44100 and 48000 Hz.
  bool canAddInput(const AVAssetWriterInput& input) const;
  /// The input must be one that can be added.
  void addInput(const std::shared_ptr<AVAssetWriterInput>& input);

  /// False if that fails: see `error`.
  bool startWriting();
  /// Has no effect: frames are counted from the first one on, so media time 0 is where the session starts.
  void startSessionAtSourceTime(const CMTime& time);

  /// Encodes what is left, writes the boxes, flushes and closes the file, then calls the handler on a thread of its
  /// own; it must not destroy the writer. A writer that is not writing stays what it is.
  void finishWritingWithCompletionHandler(std::function<void()> handler);

  /// Stops the workers and deletes the file, unless that is complete.
  void cancelWriting();

  /// Failed as soon as anything has failed.
  AVAssetWriterStatus status() const;
  /// Why the status is failed.
  std::optional<Error> error() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace tarn
