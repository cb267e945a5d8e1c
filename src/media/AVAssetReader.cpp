#include "media/AVAssetReader.h"

#include <algorithm>
#include <utility>

namespace tarn {

AVAssetReaderTrackOutput::AVAssetReaderTrackOutput(AVAssetTrack track) : track_(std::move(track)) {}

AVAssetReaderTrackOutput::AVAssetReaderTrackOutput(AVAssetTrack track, PCMOutputSettings settings)
    : track_(std::move(track)), settings_(settings) {}

std::optional<CMSampleBuffer> AVAssetReaderTrackOutput::copyNextSampleBuffer() {
  if (reader_ == nullptr || reader_->status() != AVAssetReaderStatus::reading || isAtEnd_) return std::nullopt;
  try {
    if (auto buffer = source_->next()) return buffer;
  } catch (const Error& error) {
    reader_->fail(error);
    return std::nullopt;
  }
  isAtEnd_ = true;
  reader_->outputEnded();
  return std::nullopt;
}

AVAssetReader::AVAssetReader(const AVAsset& asset) : asset_(asset) {
  asset.files().open(asset.url(), OpenMode::reading);
}

bool AVAssetReader::canAddOutput(const AVAssetReaderTrackOutput& output) const {
  if (status_ != AVAssetReaderStatus::unknown || output.reader_ != nullptr) return false;
  if (!output.settings_) return true;
  const auto& track = output.track_;
  return track.mediaType == AVMediaType::audio &&
         std::ranges::any_of(track.formatDescriptions, [](const auto& description) { return canDecode(*description); });
}

void AVAssetReader::addOutput(std::shared_ptr<AVAssetReaderTrackOutput> output) {
  output->reader_ = this;
  outputs_.push_back(std::move(output));
}

bool AVAssetReader::startReading() {
  if (status_ != AVAssetReaderStatus::unknown) return false;
  try {
    for (const auto& output : outputs_) {
      auto samples = asset_.compressedSamples(output->track_);
      if (output->settings_) {
        output->source_ = makePCMSource(std::move(samples), output->track_, *output->settings_);
      } else {
        output->source_ = std::move(samples);
      }
    }
  } catch (const Error& error) {
    fail(error);
    return false;
  }
  status_ = AVAssetReaderStatus::reading;
  return true;
}

void AVAssetReader::cancelReading() {
  if (status_ == AVAssetReaderStatus::unknown || status_ == AVAssetReaderStatus::reading) {
    status_ = AVAssetReaderStatus::cancelled;
  }
  for (const auto& output : outputs_) output->source_.reset();
}

void AVAssetReader::fail(const Error& error) {
  status_ = AVAssetReaderStatus::failed;
  error_ = error;
  for (const auto& output : outputs_) output->source_.reset();
}

void AVAssetReader::outputEnded() {
  if (std::ranges::all_of(outputs_, [](const auto& output) { return output->isAtEnd_; })) {
    status_ = AVAssetReaderStatus::completed;
  }
}

}  // namespace tarn
