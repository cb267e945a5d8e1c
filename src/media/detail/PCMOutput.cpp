#include "media/detail/PCMOutput.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <numbers>
#include <utility>

namespace tarn {
namespace {

constexpr int64_t framesOfBuffer = 8192;

/// Half a cosine from 0 to 1.
double fadeGain(int64_t frame, int64_t length) {
  double place = (static_cast<double>(frame) + 0.5) / static_cast<double>(length);
  return (1 - std::cos(std::numbers::pi * place)) / 2;
}

}  // namespace

PCMOutput::PCMOutput(int32_t sampleRate, uint32_t channels)
    : sampleRate_(sampleRate),
      channels_(channels),
      frameBytes_(channels * sizeof(int16_t)),
      format_(CMAudioFormatDescriptionCreate(interleavedPCM16(sampleRate, channels))),
      silence_(std::make_shared<CMBlockBuffer>(Bytes(framesOfBuffer * frameBytes_))),
      fadedIn_(fadeLength()) {}

uint8_t* PCMOutput::room(int frames) {
  size_t needed = size_ + static_cast<size_t>(frames) * frameBytes_;
  if (pcm_.size() < needed) pcm_.resize(needed);
  return pcm_.data() + size_;
}

void PCMOutput::advance(int frames) {
  for (size_t at = size_, i = static_cast<size_t>(frames); i > 0 && fadedIn_ < fadeLength(); --i, at += frameBytes_) {
    scaleFrame(at, fadeGain(fadedIn_++, fadeLength()));
  }
  size_ += static_cast<size_t>(frames) * frameBytes_;
  end_ += frames;
  while (this->frames() >= framesOfBuffer + heldBack()) cut(framesOfBuffer);
}

void PCMOutput::continueAt(int64_t position) {
  cut(frames());
  end_ = position;
}

void PCMOutput::breakOff() {
  int64_t length = std::min(fadeLength(), frames());
  for (int64_t i = 0; i < length; ++i) {
    scaleFrame(size_ - static_cast<size_t>(i + 1) * frameBytes_, fadeGain(i, length));
  }
  cut(frames());
  fadedIn_ = 0;
}

void PCMOutput::appendSilence(int64_t frames) {
  cut(this->frames());
  if (frames > 0) ready_.push_back({end_, frames, nullptr});
  end_ += frames;
}

void PCMOutput::takeBack(int64_t frames) {
  frames = std::min(frames, this->frames());
  size_ -= static_cast<size_t>(frames) * frameBytes_;
  end_ -= frames;
}

void PCMOutput::cut(int64_t frames) {
  for (; frames > framesOfBuffer; frames -= framesOfBuffer) cutBuffer(framesOfBuffer);
  if (frames > 0) cutBuffer(frames);
}

void PCMOutput::cutBuffer(int64_t frames) {
  size_t size = static_cast<size_t>(frames) * frameBytes_;
  Bytes rest;
  rest.reserve(pcm_.size());
  rest.assign(pcm_.begin() + static_cast<std::ptrdiff_t>(size), pcm_.begin() + static_cast<std::ptrdiff_t>(size_));
  pcm_.resize(size);
  ready_.push_back({end_ - this->frames(), frames, std::make_shared<CMBlockBuffer>(std::move(pcm_))});
  pcm_ = std::move(rest);
  size_ -= size;
}

std::optional<CMSampleBuffer> PCMOutput::next() {
  if (ready_.empty()) return std::nullopt;
  Run& run = ready_.front();
  int64_t frames = run.data ? run.frames : std::min(run.frames, framesOfBuffer);
  CMSampleBuffer buffer;
  buffer.presentationTimeStamp = CMTime::make(run.start, sampleRate_);
  buffer.duration = CMTime::make(frames, sampleRate_);
  buffer.numSamples = frames;
  buffer.formatDescription = format_;
  if (run.data) {
    buffer.dataBuffer = std::move(run.data);
  } else if (frames == framesOfBuffer) {
    buffer.dataBuffer = silence_;
  } else {
    buffer.dataBuffer = std::make_shared<CMBlockBuffer>(Bytes(static_cast<size_t>(frames) * frameBytes_));
  }
  run.start += frames;
  run.frames -= frames;
  if (run.frames == 0) ready_.pop_front();
  return buffer;
}

void PCMOutput::scaleFrame(size_t at, double gain) {
  for (size_t sample = at; sample < at + frameBytes_; sample += sizeof(int16_t)) {
    int16_t value;
    std::memcpy(&value, pcm_.data() + sample, sizeof value);
    value = static_cast<int16_t>(std::lround(gain * value));
    std::memcpy(pcm_.data() + sample, &value, sizeof value);
  }
}

}  // namespace tarn
