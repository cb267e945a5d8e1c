#include "media/AVAssetWriter.h"

#include <algorithm>
#include <cstring>
#include <system_error>
#include <thread>
#include <vector>

#include "media/detail/AACEncoder.h"
#include "media/detail/M4AFile.h"
#include "media/detail/SegmentedAACEncoder.h"
#include "mp4/AudioBoxBuilders.h"

namespace tarn {
namespace {

constexpr unsigned mostWorkers = 4;

unsigned workerCount(unsigned asked) {
  if (asked > 0) return asked;
  return std::clamp(std::thread::hardware_concurrency(), 1U, mostWorkers);
}

bool areEncodable(const AACOutputSettings& settings) {
  if (!canBeDescribed(settings.sampleRate, settings.channels)) return false;
  try {
    AACEncoder probe(settings);
    return true;
  } catch (const Error&) {
    return false;
  }
}

}  // namespace

/// What input and writer share.
struct AVAssetWriterInput::Track {
  AACOutputSettings settings;
  std::unique_ptr<SegmentedAACEncoder> encoder;  // while the writer is writing
  int64_t frames = 0;
  bool isFinished = false;
  std::optional<Error> refusal;  // of a buffer that is not in the settings' format

  std::optional<Error> failure() const {
    if (refusal || !encoder) return refusal;
    return encoder->failure();
  }
};

AVAssetWriterInput::AVAssetWriterInput(const AACOutputSettings& settings) : track_(std::make_shared<Track>()) {
  track_->settings = settings;
}

AVAssetWriterInput::~AVAssetWriterInput() = default;

const AACOutputSettings& AVAssetWriterInput::settings() const {
  return track_->settings;
}

bool AVAssetWriterInput::isReadyForMoreMediaData() const {
  return !track_->encoder || track_->refusal || track_->encoder->hasRoom();
}

bool AVAssetWriterInput::appendSampleBuffer(const CMSampleBuffer& buffer) {
  Track& track = *track_;
  if (!track.encoder || track.isFinished || track.failure()) return false;
  const AACOutputSettings& settings = track.settings;
  const AudioStreamBasicDescription format =
      interleavedPCM16(settings.sampleRate, static_cast<uint32_t>(settings.channels));
  const size_t bytes = static_cast<size_t>(std::max<int64_t>(buffer.numSamples, 0)) * format.mBytesPerFrame;
  if (!buffer.formatDescription || buffer.formatDescription->streamDescription != format || !buffer.dataBuffer ||
      buffer.dataBuffer->bytes().size() != bytes) {
    track.refusal = Error("AVAssetWriter", -1, "a buffer is not of the input's format");
    track.encoder->cancel();
    return false;
  }
  std::vector<int16_t> samples(bytes / sizeof(int16_t));
  if (bytes > 0) std::memcpy(samples.data(), buffer.dataBuffer->bytes().data(), bytes);
  track.encoder->append(samples);
  track.frames += buffer.numSamples;
  return !track.encoder->failure();
}

void AVAssetWriterInput::markAsFinished() {
  track_->isFinished = true;
}

/// A writer that is writing ends once, in the way that comes first.
struct AVAssetWriter::State {
  std::unique_ptr<M4AFile> file;
  unsigned workers = 1;
  std::shared_ptr<AVAssetWriterInput::Track> track;
  std::thread finisher;

  mutable std::mutex mutex;  // guards these two
  AVAssetWriterStatus status = AVAssetWriterStatus::unknown;
  std::optional<Error> error;

  std::optional<Error> failure() const { return track ? track->failure() : std::nullopt; }

  bool isWriting() const {
    std::lock_guard guard(mutex);
    return status == AVAssetWriterStatus::writing;
  }

  bool begin() {
    std::lock_guard guard(mutex);
    if (status != AVAssetWriterStatus::unknown) return false;
    status = AVAssetWriterStatus::writing;
    return true;
  }

  void complete() {
    std::lock_guard guard(mutex);
    if (status != AVAssetWriterStatus::writing) return;
    file->keep();
    status = AVAssetWriterStatus::completed;
  }

  void fail(const Error& why) {
    std::lock_guard guard(mutex);
    if (status != AVAssetWriterStatus::writing) return;
    status = AVAssetWriterStatus::failed;
    error = why;
  }

  void cancel() {
    if (auto why = failure()) fail(*why);
    std::lock_guard guard(mutex);
    if (status <= AVAssetWriterStatus::writing) status = AVAssetWriterStatus::cancelled;
  }

  /// Lets go of the file, which is deleted unless it is complete.
  void close() {
    if (track) track->encoder.reset();
    file.reset();
  }

  void finish() {
    if (!isWriting()) return;
    try {
      if (track) track->encoder->finish();
      if (auto why = failure()) return fail(*why);
      if (!isWriting()) return;
      file->finish(track ? track->settings : AACOutputSettings(), track ? track->frames : 0);
      complete();
    } catch (const Error& why) {
      fail(why);
    } catch (const std::exception& why) {
      fail(Error("AVAssetWriter", -1, why.what()));
    }
  }
};

AVAssetWriter::AVAssetWriter(FileManager& files, const Path& outputURL, AVFileType /*fileType*/, unsigned workers)
    : state_(std::make_unique<State>()) {
  state_->workers = workerCount(workers);
  state_->file = std::make_unique<M4AFile>(files, outputURL);
}

AVAssetWriter::~AVAssetWriter() {
  cancelWriting();
}

bool AVAssetWriter::canAddInput(const AVAssetWriterInput& input) const {
  return status() == AVAssetWriterStatus::unknown && !state_->track && areEncodable(input.settings());
}

void AVAssetWriter::addInput(const std::shared_ptr<AVAssetWriterInput>& input) {
  state_->track = input->track_;
}

bool AVAssetWriter::startWriting() {
  if (!state_->begin()) return false;
  if (auto& track = state_->track) {
    try {
      track->encoder = std::make_unique<SegmentedAACEncoder>(
          track->settings, state_->workers,
          [file = state_->file.get()](const auto& packets) { file->append(packets); });
    } catch (const std::system_error& failure) {
      state_->fail(Error("AVAssetWriter", failure.code().value(), failure.what()));
      return false;
    }
  }
  return true;
}

void AVAssetWriter::startSessionAtSourceTime(const CMTime& /*time*/) {}

void AVAssetWriter::finishWritingWithCompletionHandler(std::function<void()> handler) {
  if (state_->finisher.joinable()) state_->finisher.join();
  state_->finisher = std::thread([state = state_.get(), handler = std::move(handler)] {
    state->finish();
    handler();
  });
}

void AVAssetWriter::cancelWriting() {
  state_->cancel();
  if (state_->track && state_->track->encoder) state_->track->encoder->cancel();
  if (state_->finisher.joinable()) state_->finisher.join();
  state_->close();
}

AVAssetWriterStatus AVAssetWriter::status() const {
  std::lock_guard guard(state_->mutex);
  const bool isFailing = state_->status == AVAssetWriterStatus::writing && state_->failure();
  return isFailing ? AVAssetWriterStatus::failed : state_->status;
}

std::optional<Error> AVAssetWriter::error() const {
  std::lock_guard guard(state_->mutex);
  return state_->status == AVAssetWriterStatus::writing ? state_->failure() : state_->error;
}

}  // namespace tarn
