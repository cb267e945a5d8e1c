#include "media/DecodeCheck.h"

#include <algorithm>
#include <limits>
#include <map>
#include <new>

#include "platform/Error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

namespace tarn {
namespace {

constexpr int64_t mostPixels = int64_t{1} << 26;

AVCodecID idOf(DecodeCheck::Codec codec) {
  if (codec == DecodeCheck::Codec::avc) return AV_CODEC_ID_H264;
  return codec == DecodeCheck::Codec::hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_AAC;
}

template <typename Pointer>
Pointer notNull(Pointer pointer) {
  if (!pointer) throw std::bad_alloc();
  return pointer;
}

}  // namespace

struct DecodeCheck::State {
  explicit State(const AVCodec* codec)
      : context(notNull(avcodec_alloc_context3(codec))),
        frame(notNull(av_frame_alloc())),
        packet(notNull(av_packet_alloc())) {}
  ~State() {
    avcodec_free_context(&context);
    av_frame_free(&frame);
    av_packet_free(&packet);
  }

  /// Sends a packet, or nothing to end the stream, and takes the frames that come. False for a complaint.
  bool send(const AVPacket* sent) {
    if (avcodec_send_packet(context, sent) < 0) return false;
    while (true) {
      const int result = avcodec_receive_frame(context, frame);
      if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) return true;
      if (result < 0 || frame->decode_error_flags != 0 || (frame->flags & AV_FRAME_FLAG_CORRUPT) != 0) return false;
      if (context->codec_id == AV_CODEC_ID_HEVC && frame->pts < lastShown) return false;
      lastShown = frame->pts;
      inside.erase(frame->pts);
    }
  }

  AVCodecContext* context;
  AVFrame* frame;
  AVPacket* packet;
  std::map<int64_t, uint64_t> inside;  ///< samples that have not come out yet: when they are shown, and their numbers
  int64_t lastShown = std::numeric_limits<int64_t>::min();
  uint64_t taken = 0;
  bool hasComplained = false;
};

DecodeCheck::DecodeCheck(Codec codec, ByteView configuration) {
  const AVCodec* decoder = avcodec_find_decoder(idOf(codec));
  if (decoder == nullptr) throw Error("DecodeCheck", -1, "There is no decoder for this codec");
  state_ = std::make_unique<State>(decoder);
  AVCodecContext& context = *state_->context;
  context.extradata = notNull(static_cast<uint8_t*>(av_mallocz(configuration.size() + AV_INPUT_BUFFER_PADDING_SIZE)));
  context.extradata_size = static_cast<int>(configuration.size());
  std::ranges::copy(configuration, context.extradata);
  context.err_recognition = AV_EF_EXPLODE | AV_EF_CRCCHECK | AV_EF_BITSTREAM | AV_EF_BUFFER;
  context.skip_loop_filter = AVDISCARD_ALL;  // how it looks does not matter
  context.max_pixels = mostPixels;
  context.thread_count = codec == Codec::aac ? 1 : 0;
  context.log_level_offset = AV_LOG_MAX_OFFSET;
  if (avcodec_open2(&context, decoder, nullptr) < 0) {
    throw Error("DecodeCheck", -1, "The decoder does not take this configuration");
  }
}

DecodeCheck::~DecodeCheck() = default;

bool DecodeCheck::take(ByteView sample, int64_t shownAt) {
  if (state_->hasComplained) return false;
  const bool hasSize = !sample.empty() && sample.size() < std::numeric_limits<int>::max() / 2;
  state_->inside.emplace(shownAt, state_->taken);
  if (hasSize) {
    if (av_new_packet(state_->packet, static_cast<int>(sample.size())) < 0) throw std::bad_alloc();
    std::ranges::copy(sample, state_->packet->data);
    state_->packet->pts = shownAt;
  }
  ++state_->taken;
  state_->hasComplained = !hasSize || !state_->send(state_->packet);
  av_packet_unref(state_->packet);
  return !state_->hasComplained;
}

bool DecodeCheck::finish() {
  if (!state_->hasComplained) state_->hasComplained = !state_->send(nullptr);
  return !state_->hasComplained;
}

uint64_t DecodeCheck::goodSamples() const {
  if (!state_->hasComplained || state_->taken == 0) return state_->taken;
  uint64_t firstDoubtful = state_->taken - 1;  // a part of it may have come out
  for (const auto& [shownAt, number] : state_->inside) firstDoubtful = std::min(firstDoubtful, number);
  return firstDoubtful;
}

}  // namespace tarn
