#include "audio/transcode/TranscodeOutput.h"

#include <algorithm>
#include <future>
#include <string>
#include <thread>

#include "audio/AudioTranscoderError.h"
#include "platform/Log.h"

namespace tarn {
namespace {

using namespace std::chrono_literals;

constexpr auto betweenReports = 500ms;
constexpr int testsBetweenPauses = 100;
constexpr auto pauseForWriter = 5ms;
constexpr auto pauseForFinish = 50ms;

AVAssetWriter makeWriter(FileManager& files, const Path& url, unsigned workers) {
  removeIfExists(files, url);
  try {
    return AVAssetWriter(files, url, AVFileType::appleM4A, workers);
  } catch (const Error& error) {
    throw AudioTranscoderError::assetWriteFailed(error.description());
  }
}

std::string whyFailed(const AVAssetWriter& writer) {
  const auto error = writer.error();
  return error ? error->description() : "Unknown write error";
}

}  // namespace

TranscodePulse::TranscodePulse(const CancellationToken* token, const TranscodeProgress& callback,
                               int64_t expectedSamples)
    : token_(token), callback_(callback), expectedSamples_(expectedSamples) {}

void TranscodePulse::beat() {
  throwIfCancelled();
  reportIfDue();
  throwIfCancelled();  // the callback may have set the token
}

void TranscodePulse::throwIfCancelled() const {
  if (token_) token_->throwIfCancelled();
}

void TranscodePulse::reportIfDue() {
  const auto now = std::chrono::steady_clock::now();
  if (lastReport_ && now - *lastReport_ < betweenReports) return;
  lastReport_ = now;
  const double done =
      expectedSamples_ < 1 ? 0 : static_cast<double>(writtenSamples_) / static_cast<double>(expectedSamples_);
  report(std::min(done, 1.0), "Transcoding");
}

void TranscodePulse::report(double progress, const char* stage) const {
  if (callback_) callback_(progress, stage);
}

TranscodeOutput::TranscodeOutput(FileManager& files, const Path& url, const AACOutputSettings& settings,
                                 unsigned workers, TranscodePulse& pulse)
    : file_(files, url),
      writer_(makeWriter(files, url, workers)),
      input_(std::make_shared<AVAssetWriterInput>(settings)),
      pulse_(pulse) {
  if (!writer_.canAddInput(*input_)) {
    log("AudioTranscoder: Cannot add audio input to writer");
    log("AudioTranscoder: Writer settings sampleRate={}, channels={}, bitRate={}", settings.sampleRate,
        settings.channels, settings.bitRate);
    throw AudioTranscoderError::assetWriteFailed("Cannot add audio input to writer");
  }
  writer_.addInput(input_);
}

void TranscodeOutput::start() {
  if (!writer_.startWriting()) throw AudioTranscoderError::assetWriteFailed(whyFailed(writer_));
  writer_.startSessionAtSourceTime(CMTime::zero());
  log("AudioTranscoder: Session started at 0.0s (fixed: always 0)");
}

void TranscodeOutput::append(const CMSampleBuffer& buffer) {
  waitUntilReady();
  input_->appendSampleBuffer(buffer);
  pulse_.addWrittenSamples(buffer.numSamples);
}

void TranscodeOutput::waitUntilReady() {
  pulse_.beat();
  for (int tests = 1; !input_->isReadyForMoreMediaData(); ++tests) {
    if (tests % testsBetweenPauses != 0) continue;
    std::this_thread::sleep_for(pauseForWriter);
    pulse_.beat();
  }
  throwIfFailed();
}

void TranscodeOutput::finish() {
  pulse_.beat();
  input_->markAsFinished();
  // The handler may come after this has been left by a cancellation: it must find its promise.
  auto finished = std::make_shared<std::promise<void>>();
  auto future = finished->get_future();
  writer_.finishWritingWithCompletionHandler([finished] { finished->set_value(); });
  while (future.wait_for(pauseForFinish) != std::future_status::ready) pulse_.beat();
  throwIfFailed();
}

void TranscodeOutput::throwIfFailed() const {
  if (writer_.status() == AVAssetWriterStatus::failed) {
    throw AudioTranscoderError::assetWriteFailed(whyFailed(writer_));
  }
}

}  // namespace tarn
