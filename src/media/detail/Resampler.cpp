#include "media/detail/Resampler.h"

#include <vector>

#include "platform/Error.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

namespace tarn {
namespace {

int checked(int result) {
  if (result < 0) throw Error("PCMDecoding", result, "Decoded audio cannot be converted");
  return result;
}

}  // namespace

struct Resampler::Input {
  AVChannelLayout layout = {};
  int sampleRate = 0;
  int format = AV_SAMPLE_FMT_NONE;
  std::vector<const uint8_t*> planes;

  Input() = default;
  ~Input() { av_channel_layout_uninit(&layout); }
  Input(const Input&) = delete;
  Input& operator=(const Input&) = delete;

  bool matches(const AVFrame& frame) const {
    return frame.sample_rate == sampleRate && frame.format == format &&
           av_channel_layout_compare(&frame.ch_layout, &layout) == 0;
  }
};

void Resampler::Deleter::operator()(SwrContext* context) const {
  swr_free(&context);
}

Resampler::Resampler(PCMOutput& output) : output_(output), input_(std::make_unique<Input>()) {}

Resampler::~Resampler() = default;

bool Resampler::takes(const AVFrame& frame) {
  if (context_ && input_->matches(frame)) return true;
  flush();
  return configure(frame);
}

bool Resampler::configure(const AVFrame& frame) {
  checked(av_channel_layout_copy(&input_->layout, &frame.ch_layout));
  input_->sampleRate = frame.sample_rate;
  input_->format = frame.format;
  bool isPlanar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame.format)) != 0;
  input_->planes.resize(isPlanar ? static_cast<size_t>(frame.ch_layout.nb_channels) : 1);

  // A decoder that knows only how many channels there are gets the usual layout.
  AVChannelLayout from = {};
  if (frame.ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
    av_channel_layout_default(&from, frame.ch_layout.nb_channels);
  } else {
    checked(av_channel_layout_copy(&from, &frame.ch_layout));
  }
  AVChannelLayout to = {};
  av_channel_layout_default(&to, output_.channels());
  SwrContext* context = nullptr;
  int result =
      swr_alloc_set_opts2(&context, &to, AV_SAMPLE_FMT_S16, output_.sampleRate(), &from,
                          static_cast<AVSampleFormat>(frame.format), frame.sample_rate, AV_LOG_MAX_OFFSET, nullptr);
  av_channel_layout_uninit(&from);
  context_.reset(context);
  isCompensating_ = false;
  if (result >= 0 && swr_init(context) >= 0) return true;
  context_.reset();
  return false;
}

void Resampler::convert(const AVFrame& frame, int first, int count) {
  if (!takes(frame)) throw Error("PCMDecoding", -1, "Decoded audio cannot be converted");
  auto sampleSize = static_cast<size_t>(av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame.format)));
  size_t step = input_->planes.size() > 1 ? sampleSize : sampleSize * static_cast<size_t>(frame.ch_layout.nb_channels);
  for (size_t i = 0; i < input_->planes.size(); ++i) {
    input_->planes[i] = frame.extended_data[i] + static_cast<size_t>(first) * step;
  }
  put(input_->planes.data(), count);
}

void Resampler::put(const uint8_t** data, int count) {
  int mostFrames = checked(swr_get_out_samples(context_.get(), count));
  uint8_t* out = output_.room(mostFrames);
  output_.advance(checked(swr_convert(context_.get(), &out, mostFrames, data, count)));
}

void Resampler::flush() {
  if (context_ && delay() > 0) put(nullptr, 0);
  context_.reset();
}

int64_t Resampler::delay() const {
  return context_ ? swr_get_delay(context_.get(), output_.sampleRate()) : 0;
}

void Resampler::compensate(int frames) {
  if (!context_ || (frames == 0 && !isCompensating_)) return;
  checked(swr_set_compensation(context_.get(), frames, output_.sampleRate()));
  isCompensating_ = true;
}

}  // namespace tarn
