#include "poster/Picture.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <new>
#include <utility>

#include "parameters/VideoCodec.h"
#include "platform/Error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libswscale/swscale.h>
}

namespace tarn {
namespace {

constexpr int64_t mostPixels = int64_t{1} << 26;
constexpr int quality = 5;  // of 2, the best, to 31

struct Deleter {
  void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
  void operator()(SwsContext* context) const { sws_freeContext(context); }
};
template <typename Type>
using Owned = std::unique_ptr<Type, Deleter>;

template <typename Type>
Owned<Type> owned(Type* pointer) {
  if (!pointer) throw std::bad_alloc();
  return Owned<Type>(pointer);
}

Error failure(const char* words) {
  return Error("Poster", -1, words);
}

Owned<AVCodecContext> openDecoder(const KeyPictures& pictures) {
  const AVCodec* codec =
      avcodec_find_decoder(pictures.codec == &VideoCodec::hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
  if (!codec) throw failure("no decoder");
  auto decoder = owned(avcodec_alloc_context3(codec));
  const Bytes& configuration = pictures.configuration;
  decoder->extradata = static_cast<uint8_t*>(av_mallocz(configuration.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (!decoder->extradata) throw std::bad_alloc();
  decoder->extradata_size = static_cast<int>(configuration.size());
  std::ranges::copy(configuration, decoder->extradata);
  decoder->max_pixels = mostPixels;
  decoder->thread_count = 1;
  if (avcodec_open2(decoder.get(), codec, nullptr) < 0) throw failure("the decoder does not take the configuration");
  return decoder;
}

/// Null if the decoder gives none. A decoder of its own for each: none knows of another's pictures.
Owned<AVFrame> decode(const KeyPictures& pictures, const Bytes& sample) {
  const auto decoder = openDecoder(pictures);
  const auto packet = owned(av_packet_alloc());
  if (av_new_packet(packet.get(), static_cast<int>(sample.size())) < 0) throw std::bad_alloc();
  std::ranges::copy(sample, packet->data);
  auto frame = owned(av_frame_alloc());
  avcodec_send_packet(decoder.get(), packet.get());
  avcodec_send_packet(decoder.get(), nullptr);
  if (avcodec_receive_frame(decoder.get(), frame.get()) < 0) return nullptr;
  return frame;
}

Owned<AVFrame> firstPicture(const KeyPictures& pictures) {
  Owned<AVFrame> flawed;
  for (const Bytes& sample : pictures.samples) {
    auto frame = decode(pictures, sample);
    if (!frame) continue;
    if (frame->decode_error_flags == 0 && (frame->flags & AV_FRAME_FLAG_CORRUPT) == 0) return frame;
    if (!flawed) flawed = std::move(frame);
  }
  if (!flawed) throw failure("nothing can be decoded");
  return flawed;
}

Owned<AVFrame> makeFrame(int width, int height) {
  auto frame = owned(av_frame_alloc());
  frame->format = AV_PIX_FMT_YUVJ420P;
  frame->width = width;
  frame->height = height;
  if (av_frame_get_buffer(frame.get(), 0) < 0) throw std::bad_alloc();
  return frame;
}

/// The size as it is shown, with no edge longer than that.
std::pair<int, int> shownSize(const AVFrame& frame, const KeyPictures& pictures, int longestEdge) {
  double width = frame.width;
  const double height = frame.height;
  const AVRational coded = frame.sample_aspect_ratio;
  double ratio = coded.num > 0 && coded.den > 0 ? av_q2d(coded) : 1;
  if (pictures.pixelWidth != pictures.pixelHeight && pictures.pixelWidth > 0 && pictures.pixelHeight > 0) {
    ratio = static_cast<double>(pictures.pixelWidth) / pictures.pixelHeight;
  }
  width *= std::clamp(ratio, 1.0 / 16, 16.0);
  const double scale = std::min(1.0, longestEdge / std::max(width, height));
  const auto edge = [&](double length) {
    return std::clamp(static_cast<int>(std::lround(length * scale)), 2, longestEdge);
  };
  return {edge(width), edge(height)};
}

Owned<AVFrame> scaled(const AVFrame& frame, const KeyPictures& pictures, int longestEdge) {
  const auto [width, height] = shownSize(frame, pictures, longestEdge);
  auto small = makeFrame(width, height);
  const Owned<SwsContext> scaler(sws_getContext(frame.width, frame.height, static_cast<AVPixelFormat>(frame.format),
                                                width, height, AV_PIX_FMT_YUVJ420P, SWS_AREA, nullptr, nullptr,
                                                nullptr));
  if (!scaler) throw failure("its pixels are of no known form");
  const int space = frame.colorspace == AVCOL_SPC_UNSPECIFIED && frame.height >= 720 ? SWS_CS_ITU709 : frame.colorspace;
  const int isFullRange = frame.color_range == AVCOL_RANGE_JPEG ? 1 : 0;
  sws_setColorspaceDetails(scaler.get(), sws_getCoefficients(space), isFullRange, sws_getCoefficients(SWS_CS_DEFAULT),
                           1, 0, 1 << 16, 1 << 16);
  const int lines = sws_scale(scaler.get(), frame.data, frame.linesize, 0, frame.height, small->data, small->linesize);
  if (lines <= 0) throw failure("the picture cannot be scaled");
  return small;
}

void turnPlane(const AVFrame& from, AVFrame& to, int plane, const PictureTurn& turn, bool isTransposed) {
  const auto length = [plane](int edge) { return plane == 0 ? edge : (edge + 1) / 2; };
  const int width = length(to.width);
  const int height = length(to.height);
  const bool flipsX = (isTransposed ? turn.down[0] : turn.right[0]) < 0;
  const bool flipsY = (isTransposed ? turn.right[1] : turn.down[1]) < 0;
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) {
      const int alongX = flipsX ? width - 1 - x : x;
      const int alongY = flipsY ? height - 1 - y : y;
      const int fromX = isTransposed ? alongY : alongX;
      const int fromY = isTransposed ? alongX : alongY;
      to.data[plane][ptrdiff_t{y} * to.linesize[plane] + x] =
          from.data[plane][ptrdiff_t{fromY} * from.linesize[plane] + fromX];
    }
  }
}

/// By quarters of a full turn, and mirrored; a turn between them is taken for the nearest.
Owned<AVFrame> turned(Owned<AVFrame> frame, const PictureTurn& turn) {
  const auto size = [](int32_t value) { return std::abs(int64_t{value}); };
  const bool isTransposed = size(turn.right[1]) > size(turn.right[0]);
  const bool isUpright = !isTransposed && turn.right[0] >= 0 && turn.down[1] >= 0;
  if (isUpright) return frame;
  auto result = isTransposed ? makeFrame(frame->height, frame->width) : makeFrame(frame->width, frame->height);
  for (int plane = 0; plane < 3; ++plane) turnPlane(*frame, *result, plane, turn, isTransposed);
  return result;
}

Bytes encoded(AVFrame& frame) {
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  if (!codec) throw failure("no encoder");
  const auto encoder = owned(avcodec_alloc_context3(codec));
  encoder->width = frame.width;
  encoder->height = frame.height;
  encoder->pix_fmt = AV_PIX_FMT_YUVJ420P;
  encoder->time_base = {1, 25};
  encoder->flags |= AV_CODEC_FLAG_QSCALE | AV_CODEC_FLAG_BITEXACT;
  encoder->global_quality = quality * FF_QP2LAMBDA;
  encoder->thread_count = 1;
  if (avcodec_open2(encoder.get(), codec, nullptr) < 0) throw failure("the encoder does not open");
  frame.quality = encoder->global_quality;
  frame.pts = 0;
  const auto packet = owned(av_packet_alloc());
  if (avcodec_send_frame(encoder.get(), &frame) < 0 || avcodec_receive_packet(encoder.get(), packet.get()) < 0) {
    throw failure("the picture cannot be encoded");
  }
  return Bytes(packet->data, packet->data + packet->size);
}

}  // namespace

Bytes jpegOf(const KeyPictures& pictures, int longestEdge) {
  av_log_set_level(AV_LOG_QUIET);
  auto frame = firstPicture(pictures);
  auto small = turned(scaled(*frame, pictures, longestEdge), pictures.turn);
  frame.reset();
  return encoded(*small);
}

}  // namespace tarn
