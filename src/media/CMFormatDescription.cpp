#include "media/CMFormatDescription.h"

#include "mp4/DataExtensions.h"
#include "platform/Error.h"

namespace tarn {
namespace {

constexpr int kCMFormatDescriptionErrorInvalidParameter = -12710;

}  // namespace

AudioStreamBasicDescription interleavedPCM16(double sampleRate, uint32_t channels) {
  constexpr uint32_t sampleBytes = 2;
  return {.mSampleRate = sampleRate,
          .mFormatID = kAudioFormatLinearPCM,
          .mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked,
          .mBytesPerPacket = sampleBytes * channels,
          .mFramesPerPacket = 1,
          .mBytesPerFrame = sampleBytes * channels,
          .mChannelsPerFrame = channels,
          .mBitsPerChannel = 8 * sampleBytes};
}

CMFormatDescriptionPointer CMAudioFormatDescriptionCreate(const AudioStreamBasicDescription& streamDescription,
                                                          ByteView magicCookie) {
  if (!(streamDescription.mSampleRate > 0) || streamDescription.mChannelsPerFrame == 0) {
    throw Error("CMFormatDescription", kCMFormatDescriptionErrorInvalidParameter,
                "an audio format needs a sample rate and channels");
  }
  bool isAAC = streamDescription.mFormatID == kAudioFormatMPEG4AAC;
  auto description = std::make_shared<CMFormatDescription>();
  description->codec = isAAC ? "mp4a" : decodeASCII(bigEndianBytes(streamDescription.mFormatID)).value_or("");
  description->streamDescription = streamDescription;
  description->magicCookie.assign(magicCookie.begin(), magicCookie.end());
  if (isAAC) description->objectTypeIndication = 0x40;
  return description;
}

}  // namespace tarn
