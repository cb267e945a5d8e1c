#include "media/detail/AACEncoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <algorithm>

#include "platform/Error.h"

namespace tarn {
namespace {

/// Where the encoder's rate control begins to look for the quality that fits the bit rate. Its own default is so high
/// that it needs some 300 packets to come down, which cost twice the time and sound 1 to 2 dB worse. From 30 on it
/// needs 450 packets where one channel is nearly the other, from 20 on 256.
constexpr int firstQuality = 20;

Error encoderError(const char* what, int status) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(status, text, sizeof text);
  return {"AACEncoder", status, std::string(what) + ": " + text};
}

struct FreeContext {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FreeFrame {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreePacket {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};

}  // namespace

struct AACEncoder::State {
  std::unique_ptr<AVCodecContext, FreeContext> context;
  std::unique_ptr<AVFrame, FreeFrame> frame{av_frame_alloc()};
  std::unique_ptr<AVPacket, FreePacket> packet{av_packet_alloc()};
};

AACEncoder::AACEncoder(const AACOutputSettings& settings) : state_(std::make_unique<State>()) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_AAC);
  if (!codec) throw Error("AACEncoder", -1, "there is no AAC encoder");
  state_->context.reset(avcodec_alloc_context3(codec));
  if (!state_->context || !state_->frame || !state_->packet) throw std::bad_alloc();
  AVCodecContext& context = *state_->context;
  context.profile = FF_PROFILE_AAC_LOW;
  context.sample_fmt = AV_SAMPLE_FMT_FLTP;
  context.sample_rate = settings.sampleRate;
  context.bit_rate = settings.bitRate;
  context.flags |= AV_CODEC_FLAG_BITEXACT;
  context.global_quality = firstQuality;
  context.thread_count = 1;
  context.log_level_offset = AV_LOG_MAX_OFFSET;  // silent: what goes wrong is told by the results
  av_channel_layout_default(&context.ch_layout, settings.channels);
  if (int status = avcodec_open2(&context, codec, nullptr); status < 0) {
    throw encoderError("the AAC encoder does not take these settings", status);
  }
  AVFrame& frame = *state_->frame;
  frame.format = context.sample_fmt;
  frame.nb_samples = framesPerAACPacket;
  frame.sample_rate = context.sample_rate;
  if (av_channel_layout_copy(&frame.ch_layout, &context.ch_layout) < 0 || av_frame_get_buffer(&frame, 0) < 0) {
    throw std::bad_alloc();
  }
}

AACEncoder::~AACEncoder() = default;

void AACEncoder::send(std::span<const int16_t> samples) {
  AVFrame& frame = *state_->frame;
  if (int status = av_frame_make_writable(&frame); status < 0) throw encoderError("no frame", status);
  const auto channels = static_cast<size_t>(frame.ch_layout.nb_channels);
  const size_t frames = std::min<size_t>(samples.size() / channels, framesPerAACPacket);
  for (size_t channel = 0; channel < channels; ++channel) {
    auto* plane = reinterpret_cast<float*>(frame.extended_data[channel]);
    for (size_t i = 0; i < frames; ++i) plane[i] = static_cast<float>(samples[i * channels + channel]) / 32768.0F;
    std::fill(plane + frames, plane + framesPerAACPacket, 0.0F);
  }
  if (int status = avcodec_send_frame(state_->context.get(), &frame); status < 0) {
    throw encoderError("the AAC encoder takes no more", status);
  }
}

void AACEncoder::finish() {
  if (int status = avcodec_send_frame(state_->context.get(), nullptr); status < 0) {
    throw encoderError("the AAC encoder cannot finish", status);
  }
}

std::optional<Bytes> AACEncoder::receive() {
  AVPacket& packet = *state_->packet;
  const int status = avcodec_receive_packet(state_->context.get(), &packet);
  if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) return std::nullopt;
  if (status < 0) throw encoderError("the AAC encoder failed", status);
  Bytes bytes(packet.data, packet.data + packet.size);
  av_packet_unref(&packet);
  return bytes;
}

}  // namespace tarn
