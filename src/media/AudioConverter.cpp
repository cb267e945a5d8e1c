#include "media/AudioConverter.h"

#include <cstring>
#include <deque>
#include <vector>

#include "media/AACEncoder.h"
#include "platform/Error.h"

namespace tarn {
namespace {

constexpr OSStatus unsupportedFormat = 0x666D743F;  // 'fmt?'
constexpr OSStatus invalidOutputSize = 0x6F74737A;  // 'otsz'
constexpr OSStatus unspecifiedError = 0x77686174;   // 'what'

bool isSupported(const AudioStreamBasicDescription& from, const AudioStreamBasicDescription& to) {
  return from == interleavedPCM16(from.mSampleRate, from.mChannelsPerFrame) && to.mFormatID == kAudioFormatMPEG4AAC &&
         to.mSampleRate == from.mSampleRate && to.mChannelsPerFrame == from.mChannelsPerFrame &&
         (from.mChannelsPerFrame == 1 || from.mChannelsPerFrame == 2);
}

}  // namespace

struct AudioConverter::State {
  AACOutputSettings settings;
  std::optional<AACEncoder> encoder;
  std::deque<Bytes> packets;  // encoded and not yet given out
  bool hasPassedPriming = false;
  std::optional<OSStatus> ending;  // of an input that has ended

  void collect() {
    while (auto packet = encoder->receive()) {
      if (hasPassedPriming) packets.push_back(std::move(*packet));
      hasPassedPriming = true;
    }
  }

  void take(InputSource& input) {
    const AudioConverterInput given = input.provide(framesPerAACPacket);
    if (given.packets == 0 || given.status != noErr) {
      ending = given.status;
      encoder->finish();
    } else {
      const size_t count = size_t{given.packets} * static_cast<size_t>(settings.channels);
      std::vector<int16_t> samples(std::min(count, given.data.size() / sizeof(int16_t)));
      std::memcpy(samples.data(), given.data.data(), samples.size() * sizeof(int16_t));
      const size_t perPacket = size_t{framesPerAACPacket} * static_cast<size_t>(settings.channels);
      for (size_t at = 0; at < samples.size(); at += perPacket) {
        encoder->send(std::span(samples).subspan(at, std::min(perPacket, samples.size() - at)));
      }
    }
    collect();
  }
};

AudioConverter::AudioConverter() : state_(std::make_unique<State>()) {}
AudioConverter::~AudioConverter() = default;

AudioConverter::Creation AudioConverter::create(const AudioStreamBasicDescription& from,
                                                const AudioStreamBasicDescription& to) {
  if (!isSupported(from, to)) return {unsupportedFormat, nullptr};
  std::unique_ptr<AudioConverter> converter(new AudioConverter());
  converter->state_->settings.sampleRate = static_cast<int>(from.mSampleRate);
  converter->state_->settings.channels = static_cast<int>(from.mChannelsPerFrame);
  return {noErr, std::move(converter)};
}

OSStatus AudioConverter::setEncodeBitRate(uint32_t bitRate) {
  if (state_->encoder || bitRate == 0 || bitRate > 1'000'000) return unsupportedFormat;
  state_->settings.bitRate = static_cast<int>(bitRate);
  return noErr;
}

AudioConverter::Output AudioConverter::fillComplexBuffer(InputSource& input, uint32_t packets, size_t capacity) {
  Output output;
  try {
    if (!state_->encoder) state_->encoder.emplace(state_->settings);
    while (output.packets < packets) {
      while (state_->packets.empty() && !state_->ending) state_->take(input);
      if (state_->packets.empty()) break;
      const Bytes& packet = state_->packets.front();
      if (output.data.size() + packet.size() > capacity) {
        output.status = invalidOutputSize;
        return output;
      }
      output.data.insert(output.data.end(), packet.begin(), packet.end());
      state_->packets.pop_front();
      ++output.packets;
    }
  } catch (const Error&) {
    output.status = unspecifiedError;
    return output;
  }
  output.status = state_->ending.value_or(noErr);
  return output;
}

}  // namespace tarn
