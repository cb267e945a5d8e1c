#include "media/AudioConverter.h"

#include <algorithm>
#include <cstring>
#include <deque>
#include <span>
#include <vector>

#include "media/detail/AACEncoder.h"
#include "platform/Error.h"

namespace tarn {
namespace {

constexpr OSStatus unsupportedFormat = 0x666D743F;  // 'fmt?'
constexpr OSStatus invalidOutputSize = 0x6F74737A;  // 'otsz'
constexpr OSStatus unspecifiedError = 0x77686174;   // 'what'

constexpr double highestSampleRate = 96000;     // Hz, of AAC (ISO/IEC 14496-3 1.6.3.4)
constexpr uint32_t highestBitRate = 1'000'000;  // bits per second

bool isSupported(const AudioStreamBasicDescription& from, const AudioStreamBasicDescription& to) {
  return from.mSampleRate > 0 && from.mSampleRate <= highestSampleRate &&
         from == interleavedPCM16(from.mSampleRate, from.mChannelsPerFrame) && to.mFormatID == kAudioFormatMPEG4AAC &&
         to.mSampleRate == from.mSampleRate && to.mChannelsPerFrame == from.mChannelsPerFrame &&
         (from.mChannelsPerFrame == 1 || from.mChannelsPerFrame == 2);
}

}  // namespace

struct AudioConverter::State {
  AACOutputSettings settings;
  std::unique_ptr<AACEncoder> encoder;
  bool hasStarted = false;
  std::vector<int16_t> samples;  // taken and not yet encoded: less than a packet
  std::deque<Bytes> packets;     // encoded and not yet given out
  bool hasPassedPriming = false;
  std::optional<OSStatus> ending;  // of an input that has ended

  void take(InputSource& input) {
    hasStarted = true;
    const AudioConverterInput given = input.provide(framesPerAACPacket);
    if (given.packets == 0 || given.status != noErr) {
      ending = given.status;
      encode(true);
      encoder->finish();
      collect();
    } else {
      keep(given);
      encode(false);
    }
  }

 private:
  void keep(const AudioConverterInput& given) {
    const size_t count = size_t{given.packets} * static_cast<size_t>(settings.channels);
    if (given.data.size() / sizeof(int16_t) < count) throw Error("AudioConverter", -1, "the input is short of samples");
    const size_t before = samples.size();
    samples.resize(before + count);
    std::memcpy(samples.data() + before, given.data.data(), count * sizeof(int16_t));
  }

  /// Sends whole packets; at the end what is left too, which silence fills up.
  void encode(bool isEnd) {
    const size_t perPacket = size_t{framesPerAACPacket} * static_cast<size_t>(settings.channels);
    std::span<const int16_t> left = samples;
    while (left.size() >= perPacket || (isEnd && !left.empty())) {
      const auto packet = left.first(std::min(perPacket, left.size()));
      encoder->send(packet);
      collect();
      left = left.subspan(packet.size());
    }
    samples.erase(samples.begin(), samples.end() - static_cast<ptrdiff_t>(left.size()));
  }

  void collect() {
    while (auto packet = encoder->receive()) {
      if (hasPassedPriming) packets.push_back(std::move(*packet));
      hasPassedPriming = true;
    }
  }
};

AudioConverter::AudioConverter() : state_(std::make_unique<State>()) {}
AudioConverter::AudioConverter(AudioConverter&&) noexcept = default;
AudioConverter::~AudioConverter() = default;

AudioConverter::Creation AudioConverter::create(const AudioStreamBasicDescription& from,
                                                const AudioStreamBasicDescription& to) {
  if (!isSupported(from, to)) return {unsupportedFormat, std::nullopt};
  AudioConverter converter;
  AACOutputSettings& settings = converter.state_->settings;
  settings.sampleRate = static_cast<int>(from.mSampleRate);
  settings.channels = static_cast<int>(from.mChannelsPerFrame);
  try {
    converter.state_->encoder = std::make_unique<AACEncoder>(settings);
  } catch (const Error&) {
    return {unsupportedFormat, std::nullopt};
  }
  return {noErr, std::move(converter)};
}

OSStatus AudioConverter::setEncodeBitRate(uint32_t bitRate) {
  if (state_->hasStarted || bitRate == 0 || bitRate > highestBitRate) return unsupportedFormat;
  AACOutputSettings settings = state_->settings;
  settings.bitRate = static_cast<int>(bitRate);
  try {
    state_->encoder = std::make_unique<AACEncoder>(settings);
  } catch (const Error&) {
    return unsupportedFormat;
  }
  state_->settings = settings;
  return noErr;
}

AudioConverter::Output AudioConverter::fillComplexBuffer(InputSource& input, uint32_t packets, size_t capacity) {
  Output output;
  try {
    while (output.packets < packets) {
      while (state_->packets.empty() && !state_->ending) state_->take(input);
      if (state_->packets.empty()) break;
      const Bytes& packet = state_->packets.front();
      if (output.data.size() + packet.size() > capacity) {
        if (output.packets == 0) output.status = invalidOutputSize;
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
