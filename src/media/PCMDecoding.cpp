#include "media/PCMDecoding.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <limits>
#include <optional>
#include <utility>

#include "media/detail/AudioDecoder.h"
#include "media/detail/DriftControl.h"
#include "media/detail/PCMOutput.h"
#include "media/detail/Resampler.h"
#include "platform/Error.h"
#include "platform/Int128.h"

extern "C" {
#include <libavutil/frame.h>
}

namespace tarn {
namespace {

constexpr int64_t longestGap = int64_t{24} * 3600;  // seconds

/// `count` of 1 / `from` seconds, in 1 / `to` seconds, to the nearest.
int64_t rescale(int64_t count, int64_t from, int64_t to) {
  Int128 rounded = dividedAndRounded(static_cast<Int128>(count) * to, from);
  constexpr int64_t farthest = int64_t{1} << 56;
  if (rounded < -farthest || rounded > farthest) throw Error("PCMDecoding", -1, "Audio time out of range");
  return static_cast<int64_t>(rounded);
}

/// 0 for a time that is not a number.
int64_t framesIn(const CMTime& time, int64_t rate) {
  return time.isNumeric() && time.timescale > 0 ? rescale(time.value, time.timescale, rate) : 0;
}

bool isSameFormat(const CMFormatDescription& a, const CMFormatDescription& b) {
  return a.codec == b.codec && a.objectTypeIndication == b.objectTypeIndication && a.magicCookie == b.magicCookie &&
         a.streamDescription == b.streamDescription;
}

/// Decodes packet by packet and holds what comes out against the timeline.
class PCMSource : public SampleBufferSource {
 public:
  PCMSource(std::unique_ptr<CompressedSampleSource> samples, bool startsAtZero, int32_t sampleRate,
            const PCMOutputSettings& settings)
      : samples_(std::move(samples)),
        keepsTimeline_(settings.keepsTimeline),
        startsAtZero_(startsAtZero),
        output_(sampleRate, settings.channels),
        resampler_(output_),
        drift_(sampleRate) {}

  std::optional<CMSampleBuffer> next() override;

 private:
  void decodeNext();
  std::optional<CMSampleBuffer> takeUpcoming();
  void prepareDecoder(const CMSampleBuffer& sample);
  void decode(const CMSampleBuffer& sample, bool endsStretch);
  void place(const AVFrame& frame, const CMSampleBuffer& sample, int64_t offset, int64_t limit);
  int64_t keepInTime(int64_t start, const CMSampleBuffer& sample);
  bool isJitter(int64_t difference, const CMSampleBuffer& sample) const;
  void cutBackTo(int64_t start);
  void fill(int64_t frames);
  void finish();

  int64_t rate() const { return output_.sampleRate(); }
  /// A difference beyond this is a break.
  int64_t tolerance() const { return rate() / 250; }
  /// Where the next decoded frame comes out.
  int64_t position() const { return output_.end() + resampler_.delay(); }

  std::unique_ptr<CompressedSampleSource> samples_;
  bool keepsTimeline_;
  bool startsAtZero_;
  PCMOutput output_;
  Resampler resampler_;

  std::optional<CMSampleBuffer> upcoming_;  ///< read ahead, so that the last of a stretch is known as such
  bool hasStarted_ = false;
  bool hasEnded_ = false;
  std::exception_ptr failure_;  ///< thrown when all that came before is out

  CMFormatDescriptionPointer format_;      ///< of the decoder
  std::unique_ptr<AudioDecoder> decoder_;  ///< none for a format that it does not take
  int64_t sampleIndex_ = -1;               ///< of the packet decoded last
  int64_t endOfPackets_ = 0;
  int64_t lost_ = 0;        ///< output frames that the packets since the last good one should have given
  bool isCutting_ = false;  ///< within an overlap
  DriftControl drift_;
};

std::optional<CMSampleBuffer> PCMSource::next() {
  while (true) {
    if (auto buffer = output_.next()) return buffer;
    if (hasEnded_) {
      if (failure_) std::rethrow_exception(std::exchange(failure_, nullptr));
      return std::nullopt;
    }
    try {
      decodeNext();
    } catch (const Error&) {
      failure_ = std::current_exception();
      hasEnded_ = true;
      finish();
    }
  }
}

void PCMSource::decodeNext() {
  if (!hasStarted_) takeUpcoming();
  auto sample = takeUpcoming();
  if (!sample) {
    hasEnded_ = true;
    finish();
    return;
  }
  if (!hasStarted_) {
    hasStarted_ = true;
    const CMTime start = sample->presentationTimeStamp + sample->trimDurationAtStart;
    output_.continueAt(startsAtZero_ ? 0 : framesIn(start, rate()));
    endOfPackets_ = output_.end();
  }
  prepareDecoder(*sample);
  bool endsStretch = upcoming_ ? upcoming_->sampleIndex != sample->sampleIndex + 1 : !failure_;
  decode(*sample, endsStretch);
}

/// The packet read ahead; reads the one after it.
std::optional<CMSampleBuffer> PCMSource::takeUpcoming() {
  auto sample = std::exchange(upcoming_, std::nullopt);
  if (failure_) return sample;
  try {
    upcoming_ = samples_->next();
  } catch (const Error&) {
    failure_ = std::current_exception();
  }
  return sample;
}

void PCMSource::prepareDecoder(const CMSampleBuffer& sample) {
  bool isNext = sample.sampleIndex == sampleIndex_ + 1;
  sampleIndex_ = sample.sampleIndex;
  if (sample.formatDescription != format_ &&
      !(format_ && sample.formatDescription && isSameFormat(*sample.formatDescription, *format_))) {
    decoder_.reset();
    if (sample.formatDescription && canDecode(*sample.formatDescription)) {
      decoder_ = std::make_unique<AudioDecoder>(*sample.formatDescription);
    }
  }
  format_ = sample.formatDescription;
  if (isNext || !decoder_) return;
  decoder_->flush();
  for (int64_t i = std::max<int64_t>(sample.sampleIndex - decoder_->prerollPackets(), 0); i < sample.sampleIndex; ++i) {
    try {
      decoder_->send(samples_->data(i));
    } catch (const Error&) {
      continue;  // not shown, so not missed
    }
    while (decoder_->receive() != nullptr) continue;
  }
}

/// `endsStretch`: the packet after it in the track does not follow.
void PCMSource::decode(const CMSampleBuffer& sample, bool endsStretch) {
  CMTime shownEnd = sample.duration - sample.trimDurationAtEnd;
  int64_t decoded = 0;
  if (decoder_) {
    decoder_->send(samples_->data(sample.sampleIndex));
    while (const AVFrame* frame = decoder_->receive()) {
      if (!resampler_.takes(*frame)) continue;
      // Where no packet follows one is as long as the table says, and one that reaches beyond its edit is cut there.
      bool isCut = framesIn(shownEnd, frame->sample_rate) > 0 && (endsStretch || sample.trimDurationAtEnd.value > 0);
      place(*frame, sample, decoded,
            isCut ? framesIn(shownEnd, frame->sample_rate) : std::numeric_limits<int64_t>::max());
      decoded += frame->nb_samples;
    }
  }
  if (decoded == 0) lost_ += std::max<int64_t>(framesIn(shownEnd - sample.trimDurationAtStart, rate()), 0);
  endOfPackets_ = std::max(endOfPackets_, framesIn(sample.presentationTimeStamp + shownEnd, rate()));
}

/// Puts out what is shown of a frame that begins this many samples after the start of its packet, of which those from
/// `limit` on are not shown.
void PCMSource::place(const AVFrame& frame, const CMSampleBuffer& sample, int64_t offset, int64_t limit) {
  int64_t first =
      std::clamp<int64_t>(framesIn(sample.trimDurationAtStart, frame.sample_rate) - offset, 0, frame.nb_samples);
  int64_t end = std::clamp<int64_t>(limit - offset, 0, frame.nb_samples);
  if (first >= end) return;
  int64_t start = framesIn(sample.presentationTimeStamp, rate()) + rescale(offset + first, frame.sample_rate, rate());
  first += rescale(keepInTime(start, sample), rate(), frame.sample_rate);
  if (first >= end) return;
  isCutting_ = false;
  resampler_.convert(frame, static_cast<int>(first), static_cast<int>(end - first));
}

/// Prepares the output for frames of a packet that should start at this place: fills a gap, makes up for a small
/// difference, or tells how many output frames are to be left out.
int64_t PCMSource::keepInTime(int64_t start, const CMSampleBuffer& sample) {
  if (!keepsTimeline_) {
    if (lost_ > 0) fill(lost_);
    int64_t difference = start - position();
    if (std::abs(difference) > tolerance()) output_.continueAt(output_.end() + difference);
    return 0;
  }
  const int64_t tick = rescale(1, std::max(sample.presentationTimeStamp.timescale, 1), rate());
  int64_t difference = start - position();
  if (lost_ == 0 && !isCutting_ && isJitter(difference, sample)) return 0;
  const int64_t smallestBreak = std::max(tolerance(), 2 * tick);
  if (difference > smallestBreak || (lost_ > 0 && difference > 0)) {
    resampler_.flush();
    fill(start - output_.end());
    return 0;
  }
  lost_ = 0;
  if (difference < -smallestBreak && !isCutting_) {
    cutBackTo(start);
    difference = start - position();
  }
  if (isCutting_) return std::max<int64_t>(-difference, 0);
  resampler_.compensate(drift_.correction(difference, tick, position()));
  return 0;
}

/// True for a packet that is a little off its place, from which the next one comes back.
bool PCMSource::isJitter(int64_t difference, const CMSampleBuffer& sample) const {
  const int64_t mostJitter = rate() / 100;
  const bool isSmall = std::abs(difference) >= tolerance() && std::abs(difference) <= mostJitter;
  if (!isSmall || !upcoming_ || upcoming_->sampleIndex != sample.sampleIndex + 1) return false;
  const CMTime step = upcoming_->presentationTimeStamp - sample.presentationTimeStamp;
  const int64_t next = difference + framesIn(step, rate()) - framesIn(sample.duration, rate());
  return 2 * std::abs(next) < std::abs(difference);
}

/// Begins an overlap: what comes next starts there, or after what cannot be taken back any more.
void PCMSource::cutBackTo(int64_t start) {
  isCutting_ = true;
  resampler_.flush();
  output_.takeBack(output_.end() - start);
  output_.breakOff();
}

void PCMSource::fill(int64_t frames) {
  if (frames > longestGap * rate()) throw Error("PCMDecoding", -1, "The audio has a gap of more than a day");
  resampler_.flush();
  output_.breakOff();
  output_.appendSilence(std::max<int64_t>(frames, 0));
  lost_ = 0;
  isCutting_ = false;
}

/// With the timeline kept the end is exact too, unless the stream broke off.
void PCMSource::finish() {
  resampler_.flush();
  if (!failure_) {
    int64_t missing = keepsTimeline_ ? endOfPackets_ - output_.end() : lost_;
    if (missing > tolerance() || (lost_ > 0 && missing > 0)) {
      fill(missing);
    } else if (keepsTimeline_ && missing > 0) {
      output_.appendSilence(missing);
    } else if (keepsTimeline_) {
      output_.takeBack(-missing);
    }
  }
  output_.finish();
}

}  // namespace

bool canDecode(const CMFormatDescription& description) {
  try {
    AudioDecoder decoder(description);
    return true;
  } catch (const Error&) {
    return false;
  }
}

int decodedChannels(CompressedSampleSource& samples) {
  constexpr int mostPackets = 32;
  try {
    std::optional<AudioDecoder> decoder;
    for (int i = 0; i < mostPackets; ++i) {
      const auto sample = samples.next();
      if (!sample || !sample->formatDescription) return 0;
      if (!decoder) decoder.emplace(*sample->formatDescription);
      decoder->send(samples.data(sample->sampleIndex));
      if (const AVFrame* frame = decoder->receive()) return frame->ch_layout.nb_channels;
    }
  } catch (const Error&) {
    return 0;
  }
  return 0;
}

std::unique_ptr<SampleBufferSource> makePCMSource(std::unique_ptr<CompressedSampleSource> samples,
                                                  const AVAssetTrack& track, const PCMOutputSettings& settings) {
  constexpr double lowestRate = 1000;
  constexpr double highestRate = 768000;
  if (!(settings.sampleRate >= lowestRate && settings.sampleRate <= highestRate) || settings.channels < 1 ||
      settings.channels > 2) {
    throw Error("PCMDecoding", -1, "PCM of this rate or channel count is not made");
  }
  if (std::ranges::none_of(track.formatDescriptions, [](const auto& format) { return canDecode(*format); })) {
    throw Error("PCMDecoding", -1, "The track has no audio that can be decoded");
  }
  return std::make_unique<PCMSource>(std::move(samples), !track.followsEditList,
                                     static_cast<int32_t>(std::lround(settings.sampleRate)), settings);
}

}  // namespace tarn
