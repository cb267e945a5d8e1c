#include "media/detail/AudioDecoder.h"

#include <algorithm>
#include <limits>
#include <new>
#include <string_view>

#include "media/AudioSpecificConfig.h"
#include "platform/Error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
}

namespace tarn {
namespace {

/// Rates below or above give no frames: what resampling makes of a packet has to stay small.
constexpr int lowestRate = 4000;
constexpr int highestRate = 768000;

AVCodecID codecOfMPEG4Audio(uint8_t objectTypeIndication) {
  if (indicatesAAC(objectTypeIndication)) return AV_CODEC_ID_AAC;
  if (indicatesMPEGAudio(objectTypeIndication)) return AV_CODEC_ID_MP3;
  switch (objectTypeIndication) {
    case 0xA5:
      return AV_CODEC_ID_AC3;
    case 0xA6:
      return AV_CODEC_ID_EAC3;
    case 0xA9:
      return AV_CODEC_ID_DTS;
    default:
      return AV_CODEC_ID_NONE;
  }
}

AVCodecID codecOf(const CMFormatDescription& format) {
  static constexpr struct {
    std::string_view sampleEntry;
    AVCodecID codec;
  } known[] = {
      {".mp3", AV_CODEC_ID_MP3},       {"Opus", AV_CODEC_ID_OPUS},      {"ac-3", AV_CODEC_ID_AC3},
      {"alac", AV_CODEC_ID_ALAC},      {"alaw", AV_CODEC_ID_PCM_ALAW},  {"dtsc", AV_CODEC_ID_DTS},
      {"ec-3", AV_CODEC_ID_EAC3},      {"fLaC", AV_CODEC_ID_FLAC},      {"mp3 ", AV_CODEC_ID_MP3},
      {"samr", AV_CODEC_ID_AMR_NB},    {"sawb", AV_CODEC_ID_AMR_WB},    {"sowt", AV_CODEC_ID_PCM_S16LE},
      {"twos", AV_CODEC_ID_PCM_S16BE}, {"ulaw", AV_CODEC_ID_PCM_MULAW},
  };
  if (format.codec == "mp4a") return codecOfMPEG4Audio(format.objectTypeIndication);
  const auto* entry =
      std::ranges::find(known, std::string_view(format.codec), [](const auto& k) { return k.sampleEntry; });
  return entry == std::end(known) ? AV_CODEC_ID_NONE : entry->codec;
}

/// A `dOps` as an identification header: the same fields, little-endian (RFC 7845 5.1).
Bytes opusHeader(ByteView dOps) {
  constexpr size_t fixedPart = 11;
  if (dOps.size() < fixedPart) return {};
  Bytes header(bytesOf("OpusHead").begin(), bytesOf("OpusHead").end());
  header.push_back(1);  // version
  header.push_back(dOps[1]);
  for (auto [first, size] : {std::pair<size_t, size_t>{2, 2}, {4, 4}, {8, 2}}) {
    auto field = dOps.subspan(first, size);
    header.insert(header.end(), field.rbegin(), field.rend());
  }
  header.insert(header.end(), dOps.begin() + 10, dOps.end());
  return header;
}

/// The cookie in the shape in which libavcodec expects it.
Bytes extradataOf(const CMFormatDescription& format, AVCodecID codec) {
  ByteView cookie = CMAudioFormatDescriptionGetMagicCookie(format);
  if (cookie.empty()) return {};
  switch (codec) {
    case AV_CODEC_ID_OPUS:
      return opusHeader(cookie);
    case AV_CODEC_ID_FLAC: {
      // Version and flags, then the STREAMINFO block after its own header.
      constexpr size_t streamInfo = 8;
      constexpr size_t streamInfoSize = 34;
      if (cookie.size() < streamInfo + streamInfoSize) return {};
      auto info = cookie.subspan(streamInfo, streamInfoSize);
      return {info.begin(), info.end()};
    }
    case AV_CODEC_ID_ALAC: {
      Bytes box = {0, 0, 0, static_cast<uint8_t>(8 + cookie.size()), 'a', 'l', 'a', 'c'};
      box.insert(box.end(), cookie.begin(), cookie.end());
      return box;
    }
    default:
      return {cookie.begin(), cookie.end()};
  }
}

/// True for AAC that may carry spectral band replication: by its object type (ISO/IEC 14496-3 1.6.5), or silently,
/// which its core rate allows.
bool mayCarrySBR(const CMFormatDescription& format) {
  constexpr double highestCoreRate = 24000;
  const auto objectType = announcedObjectType(CMAudioFormatDescriptionGetMagicCookie(format));
  const auto* stream = CMAudioFormatDescriptionGetStreamBasicDescription(format);
  return objectType == objectTypeSBR || objectType == objectTypePS ||
         (stream != nullptr && stream->mSampleRate <= highestCoreRate);
}

int64_t prerollPacketsOf(const CMFormatDescription& format, AVCodecID codec) {
  // Header and envelopes of SBR may be as far back as the first packet; some 20 s are looked through.
  constexpr int64_t farBack = 500;
  // The 80 ms of Opus in its shortest packets, and all that a bit reservoir reaches back to.
  constexpr int64_t others = 32;
  if (codec != AV_CODEC_ID_AAC) return others;
  return mayCarrySBR(format) ? farBack : 1;
}

template <typename Pointer>
Pointer notNull(Pointer pointer) {
  if (!pointer) throw std::bad_alloc();
  return pointer;
}

void setExtradata(AVCodecContext& context, const Bytes& bytes) {
  if (bytes.empty()) return;
  context.extradata = notNull(static_cast<uint8_t*>(av_mallocz(bytes.size() + AV_INPUT_BUFFER_PADDING_SIZE)));
  context.extradata_size = static_cast<int>(bytes.size());
  std::ranges::copy(bytes, context.extradata);
}

}  // namespace

void AudioDecoder::Deleter::operator()(AVCodecContext* context) const {
  avcodec_free_context(&context);
}
void AudioDecoder::Deleter::operator()(AVFrame* frame) const {
  av_frame_free(&frame);
}
void AudioDecoder::Deleter::operator()(AVPacket* packet) const {
  av_packet_free(&packet);
}

AudioDecoder::AudioDecoder(const CMFormatDescription& format) {
  const AVCodecID codecID = codecOf(format);
  const AVCodec* codec = codecID == AV_CODEC_ID_NONE ? nullptr : avcodec_find_decoder(codecID);
  if (codec == nullptr) throw Error("PCMDecoding", -1, "No decoder for audio of the type " + format.codec);
  context_.reset(notNull(avcodec_alloc_context3(codec)));
  frame_.reset(notNull(av_frame_alloc()));
  packet_.reset(notNull(av_packet_alloc()));
  setExtradata(*context_, extradataOf(format, codecID));
  // What is to be skipped at the start is the edit list's business.
  context_->flags2 |= AV_CODEC_FLAG2_SKIP_MANUAL;
  context_->thread_count = 1;
  context_->log_level_offset = AV_LOG_MAX_OFFSET;  // silent: what does not decode is told by what comes out
  if (const auto* stream = CMAudioFormatDescriptionGetStreamBasicDescription(format)) {
    context_->sample_rate = static_cast<int>(std::clamp(stream->mSampleRate, 0.0, double{highestRate}));
    constexpr uint32_t mostChannels = 64;
    if (stream->mChannelsPerFrame >= 1 && stream->mChannelsPerFrame <= mostChannels) {
      av_channel_layout_default(&context_->ch_layout, static_cast<int>(stream->mChannelsPerFrame));
    }
  }
  if (avcodec_open2(context_.get(), codec, nullptr) < 0) {
    throw Error("PCMDecoding", -1, "The decoder does not take this audio of the type " + format.codec);
  }
  prerollPackets_ = prerollPacketsOf(format, codecID);
}

AudioDecoder::~AudioDecoder() = default;

void AudioDecoder::send(ByteView packet) {
  framesOfPacket_ = 0;
  // An empty packet would end the stream.
  if (packet.empty() || packet.size() > std::numeric_limits<int>::max() - AV_INPUT_BUFFER_PADDING_SIZE) return;
  if (av_new_packet(packet_.get(), static_cast<int>(packet.size())) < 0) throw std::bad_alloc();
  std::ranges::copy(packet, packet_->data);
  // A failure shows in that no frame comes.
  avcodec_send_packet(context_.get(), packet_.get());
  av_packet_unref(packet_.get());
}

const AVFrame* AudioDecoder::receive() {
  while (avcodec_receive_frame(context_.get(), frame_.get()) == 0) {
    if (frame_->nb_samples <= 0 || frame_->sample_rate < lowestRate || frame_->sample_rate > highestRate) continue;
    // A packet of AAC is one frame; what a damaged one has after it is none.
    if (context_->codec_id == AV_CODEC_ID_AAC && framesOfPacket_ > 0) continue;
    ++framesOfPacket_;
    return frame_.get();
  }
  return nullptr;
}

void AudioDecoder::flush() {
  avcodec_flush_buffers(context_.get());
}

}  // namespace tarn
