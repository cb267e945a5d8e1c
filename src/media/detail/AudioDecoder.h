#pragma once

#include <memory>

#include "media/CMFormatDescription.h"
#include "platform/Bytes.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace tarn {

/// Decodes packets of one format with libavcodec. Only the PCM decoding sees this class.
class AudioDecoder {
 public:
  /// Throws an Error of the domain "PCMDecoding" for a format that cannot be decoded.
  explicit AudioDecoder(const CMFormatDescription& format);
  ~AudioDecoder();
  AudioDecoder(const AudioDecoder&) = delete;
  AudioDecoder& operator=(const AudioDecoder&) = delete;

  /// Takes one packet. A packet that does not decode gives no frames.
  void send(ByteView packet);

  /// The next frame of the packet sent last; null if there is none left. Valid until the next call.
  const AVFrame* receive();

  /// Forgets what came before: the next packet comes from elsewhere.
  void flush();

  /// How many packets before one have to be decoded so that it comes out right.
  int64_t prerollPackets() const { return prerollPackets_; }

 private:
  struct Deleter {
    void operator()(AVCodecContext* context) const;
    void operator()(AVFrame* frame) const;
    void operator()(AVPacket* packet) const;
  };

  std::unique_ptr<AVCodecContext, Deleter> context_;
  std::unique_ptr<AVFrame, Deleter> frame_;
  std::unique_ptr<AVPacket, Deleter> packet_;
  int64_t prerollPackets_;
  int framesOfPacket_ = 0;  ///< given out
};

}  // namespace tarn
