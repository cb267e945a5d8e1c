#include <fmt/format.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <future>
#include <numbers>

#include "media/AACEncoder.h"
#include "media/AVAssetWriter.h"
#include "media/AudioConverter.h"
#include "media/M4AFile.h"
#include "media/SegmentedAACEncoder.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultyFileManager.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using Samples = std::vector<int16_t>;

/// A chord that swells and fades over some noise, with a click each second.
Samples sound(size_t frames, size_t channels) {
  Samples samples(frames * channels);
  uint32_t noise = 1;
  for (size_t i = 0; i < frames; ++i) {
    const double time = static_cast<double>(i) / 48000;
    noise = noise * 1664525 + 1013904223;
    double value = 0.02 * (static_cast<double>(noise >> 8) / (1 << 23) - 1);
    for (double tone : {220.0, 277.2, 329.6, 440.0, 1318.5, 3951.1}) {
      value += 0.08 * (1 + 0.5 * std::sin(time * tone / 300)) * std::sin(2 * std::numbers::pi * tone * time);
    }
    if (i % 48000 < 24) value += 0.45;
    for (size_t c = 0; c < channels; ++c) samples[i * channels + c] = static_cast<int16_t>(value * 32000);
  }
  return samples;
}

CMSampleBuffer bufferOf(std::span<const int16_t> samples, uint32_t channels) {
  Bytes bytes(samples.size_bytes());
  if (!bytes.empty()) std::memcpy(bytes.data(), samples.data(), bytes.size());
  CMSampleBuffer buffer;
  buffer.numSamples = static_cast<int64_t>(samples.size() / channels);
  buffer.formatDescription = CMAudioFormatDescriptionCreate(interleavedPCM16(48000, channels));
  buffer.dataBuffer = std::make_shared<CMBlockBuffer>(std::move(bytes));
  return buffer;
}

Samples decoded(const Path& file, size_t channels) {
  const auto pcm = runProcess(
      {"ffmpeg", "-v", "error", "-i", file, "-f", "s16le", "-ac", std::to_string(channels), "-ar", "48000", "-"});
  Samples samples(pcm.output.size() / 2);
  std::memcpy(samples.data(), pcm.output.data(), samples.size() * 2);
  return samples;
}

class AssetWriter : public testing::Test {
 protected:
  struct Ending {
    AVAssetWriterStatus status;
    std::optional<Error> error;
  };

  Ending write(FileManager& files, std::span<const int16_t> samples, int channels, unsigned workers = 0) {
    AVAssetWriter writer(files, path_, AVFileType::appleM4A, workers);
    auto input = std::make_shared<AVAssetWriterInput>(AACOutputSettings{.channels = channels});
    EXPECT_TRUE(writer.canAddInput(*input));
    writer.addInput(input);
    EXPECT_TRUE(writer.startWriting());
    writer.startSessionAtSourceTime(CMTime::zero());
    const size_t piece = 8192 * static_cast<size_t>(channels);
    for (size_t at = 0; at < samples.size(); at += piece) {
      input->appendSampleBuffer(
          bufferOf(samples.subspan(at, std::min(piece, samples.size() - at)), static_cast<uint32_t>(channels)));
    }
    input->markAsFinished();
    std::promise<void> done;
    writer.finishWritingWithCompletionHandler([&] { done.set_value(); });
    done.get_future().wait();
    return {writer.status(), writer.error()};
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  const Path path_ = directory_ / "sound.m4a";
};

/// Signal to noise in dB, and the largest error near a frame.
double signalToNoise(const Samples& sent, const Samples& heard) {
  double signal = 0, noise = 0;
  for (size_t i = 8192; i < std::min(sent.size(), heard.size()); ++i) {
    signal += std::pow(sent[i], 2);
    noise += std::pow(sent[i] - heard[i], 2);
  }
  return 10 * std::log10(signal / noise);
}
int largestError(const Samples& sent, const Samples& heard, size_t from, size_t to) {
  int largest = 0;
  for (size_t i = from; i < std::min(to, heard.size()); ++i) largest = std::max(largest, std::abs(sent[i] - heard[i]));
  return largest;
}

TEST_F(AssetWriter, MakesTheSameFileOnAnyNumberOfWorkersAsGoodAsOneEncoder) {
  const size_t frames = 75 * 48000 + 77;
  const Samples sent = sound(frames, 2);
  Bytes first;
  for (unsigned workers : {1U, 2U, 4U}) {
    ASSERT_EQ(write(files_, sent, 2, workers).status, AVAssetWriterStatus::completed);
    const Bytes file = readFile(files_, path_);
    if (first.empty()) first = file;
    EXPECT_TRUE(file == first) << workers;
    if (workers < 4) files_.removeItem(path_);
  }
  EXPECT_EQ(decoderComplaints(path_), "");
  const Samples heard = decoded(path_, 2);
  ASSERT_GE(heard.size(), sent.size());

  const Path single = directory_ / "single.m4a";
  AACEncoder encoder({});
  std::vector<Bytes> packets;
  for (size_t at = 0; at < sent.size(); at += 2048) {
    encoder.send(std::span(sent).subspan(at, std::min<size_t>(2048, sent.size() - at)));
    while (auto packet = encoder.receive()) packets.push_back(*packet);
  }
  encoder.finish();
  while (auto packet = encoder.receive()) packets.push_back(*packet);
  packets.erase(packets.begin());
  M4AFile file(files_, single);
  file.append(packets);
  file.finish({}, static_cast<int64_t>(frames));
  const Samples whole = decoded(single, 2);
  EXPECT_NEAR(signalToNoise(sent, heard), signalToNoise(sent, whole), 0.3);
  const size_t join = SegmentedAACEncoder::packetsPerSegment * 2048, around = 8 * 2048;
  EXPECT_LE(largestError(sent, heard, join - around, join + around), largestError(sent, whole, 8192, whole.size()));
}

TEST_F(AssetWriter, CountsFramesExactly) {
  struct Row {
    size_t frames;
    size_t heard;
  };
  // Where the shortage could be spread over all packets, the last one stays whole.
  for (const Row& row : {Row{0, 0}, Row{1, 1024}, Row{1024, 1024}, Row{1025, 1025}, Row{2046, 2048}, Row{2047, 2047},
                         Row{48000, 48000}}) {
    for (int channels : {1, 2}) {
      const auto count = static_cast<size_t>(channels);
      ASSERT_EQ(write(files_, sound(row.frames, count), channels).status, AVAssetWriterStatus::completed);
      const auto probe = runProcess(
          {"ffprobe", "-v", "error", "-show_entries", "stream=duration_ts,channels", "-of", "csv=p=0", path_});
      if (row.frames > 0) {
        EXPECT_EQ(probe.output, fmt::format("{},{}\n", channels, row.heard)) << row.frames;
      }
      EXPECT_EQ(probe.exitCode, 0);
      files_.removeItem(path_);
    }
  }
}

TEST_F(AssetWriter, LeavesNoFileBehindWhateverFails) {
  const Samples sent = sound(40 * 48000, 1);
  FaultyFileManager faulty(files_);
  int failures = 0;
  for (uint64_t call = 1;; ++call) {
    faulty.arm({.call = call, .errnum = ENOSPC, .effect = Fault::Effect::half});
    try {
      const Ending ending = write(faulty, sent, 1);
      if (!faulty.fired()) break;
      EXPECT_EQ(ending.status, AVAssetWriterStatus::failed);
      EXPECT_EQ(ending.error.value().code(), ENOSPC);
    } catch (const PosixError&) {
      // The file could not be made.
    }
    EXPECT_FALSE(files_.fileExists(path_)) << "call " << call;
    ++failures;
  }
  EXPECT_GT(failures, 5);
  EXPECT_TRUE(files_.fileExists(path_));
  files_.removeItem(path_);

  AVAssetWriter writer(files_, path_, AVFileType::appleM4A);
  auto input = std::make_shared<AVAssetWriterInput>(AACOutputSettings{.channels = 1});
  EXPECT_FALSE(writer.canAddInput(AVAssetWriterInput({.sampleRate = 47999})));
  writer.addInput(input);
  writer.startWriting();
  EXPECT_TRUE(input->appendSampleBuffer(bufferOf(sent, 1)));
  const auto begin = std::chrono::steady_clock::now();
  writer.cancelWriting();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
  EXPECT_EQ(writer.status(), AVAssetWriterStatus::cancelled);
  EXPECT_FALSE(files_.fileExists(path_));

  AVAssetWriter mistaken(files_, path_, AVFileType::appleM4A);
  auto mono = std::make_shared<AVAssetWriterInput>(AACOutputSettings{.channels = 1});
  mistaken.addInput(mono);
  mistaken.startWriting();
  EXPECT_FALSE(mono->appendSampleBuffer(bufferOf(sent, 2)));
  EXPECT_TRUE(mono->isReadyForMoreMediaData());
  std::promise<void> done;
  mistaken.finishWritingWithCompletionHandler([&] { done.set_value(); });
  done.get_future().wait();
  EXPECT_EQ(mistaken.status(), AVAssetWriterStatus::failed);
}

class OnePacketOfSilence : public AudioConverter::InputSource {
 public:
  AudioConverterInput provide(uint32_t) override {
    if (isGiven_) return {.status = -1};
    isGiven_ = true;
    return {.packets = 1024, .data = silence_};
  }

 private:
  const Bytes silence_ = Bytes(4096);
  bool isGiven_ = false;
};

TEST_F(AssetWriter, AConverterMakesSilence) {
  std::optional<Bytes> first;
  for (double rate : {24000.0, 44100.0, 48000.0}) {
    AudioStreamBasicDescription aac{
        .mSampleRate = rate, .mFormatID = kAudioFormatMPEG4AAC, .mFramesPerPacket = 1024, .mChannelsPerFrame = 2};
    auto made = AudioConverter::create(interleavedPCM16(rate, 2), aac);
    ASSERT_EQ(made.status, noErr);
    EXPECT_EQ(made.converter->setEncodeBitRate(128000), noErr);
    OnePacketOfSilence input;
    const auto output = made.converter->fillComplexBuffer(input, 1, 2048);
    EXPECT_EQ(output.status, -1);
    EXPECT_EQ(output.packets, 1U);
    EXPECT_EQ(output.data.size(), 6U);
    EXPECT_EQ(output.data, first.value_or(output.data));
    first = output.data;
    aac.mChannelsPerFrame = 1;
    EXPECT_NE(AudioConverter::create(interleavedPCM16(rate, 2), aac).status, noErr);
  }
  M4AFile file(files_, path_);
  file.append(std::vector<Bytes>(20, *first));
  file.finish({}, int64_t{20} * 1024);
  EXPECT_EQ(decoderComplaints(path_), "");
  EXPECT_EQ(decoded(path_, 2), Samples(size_t{20} * 2048));
}

}  // namespace
}  // namespace tarn::test
