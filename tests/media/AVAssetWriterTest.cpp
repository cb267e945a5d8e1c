#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <future>

#include "media/AVAssetWriter.h"
#include "media/detail/SegmentedAACEncoder.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultyFileManager.h"
#include "support/PCM.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

/// 76 s of a chord that swells and fades over some noise, with a click each second; the second channel is softer.
Path chord() {
  const std::string left =
      "(0.1+0.05*sin(t))*(sin(1382*t)+sin(2071*t)+sin(2765*t)+sin(8284*t)+sin(24826*t))+0.02*random(0)"
      "+0.4*lt(mod(t\\,1)\\,0.0005)";
  return madeByFFmpeg(words("-f lavfi -i aevalsrc=" + left + "|0.6*(" + left + "):s=48000 -t 76"), ".wav");
}

Samples sound(size_t frames, size_t channels) {
  Samples samples = decodedByFFmpeg(chord(), fmt::format("-ac {} -t {}", channels, frames / 48000 + 1));
  samples.resize(frames * channels);
  return samples;
}

class AssetWriter : public testing::Test {
 protected:
  /// Why it failed; nothing when the file is complete.
  std::optional<Error> write(FileManager& files, std::span<const int16_t> samples, uint32_t channels,
                             unsigned workers = 0) {
    AVAssetWriter writer(files, path_, AVFileType::appleM4A, workers);
    const auto input = std::make_shared<AVAssetWriterInput>(AACOutputSettings{.channels = static_cast<int>(channels)});
    writer.addInput(input);
    EXPECT_TRUE(writer.startWriting());
    writer.startSessionAtSourceTime(CMTime::zero());
    for (; !samples.empty(); samples = samples.subspan(std::min(samples.size(), size_t{8192} * channels))) {
      input->appendSampleBuffer(
          sampleBuffer(samples.first(std::min(samples.size(), size_t{8192} * channels)), channels));
    }
    input->markAsFinished();
    std::promise<void> done;
    writer.finishWritingWithCompletionHandler([&] { done.set_value(); });
    done.get_future().wait();
    EXPECT_EQ(writer.status(), writer.error() ? AVAssetWriterStatus::failed : AVAssetWriterStatus::completed);
    return writer.error();
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  const Path path_ = directory_ / "sound.m4a";
};

double decibelsAboveNoise(const Samples& sent, const Samples& heard, size_t from, size_t to) {
  double signal = 0, noise = 0;
  for (size_t i = from; i < std::min({to, sent.size(), heard.size()}); ++i) {
    signal += std::pow(sent[i], 2);
    noise += std::pow(sent[i] - heard[i], 2);
  }
  return 10 * std::log10(signal / noise);
}

TEST_F(AssetWriter, MakesTheSameFileOnAnyNumberOfWorkersAsGoodAsOneEncoder) {
  const Samples sent = sound(75 * 48000 + 77, 2);
  Bytes first;
  for (unsigned workers : {1U, 2U, 4U}) {
    removeIfExists(files_, path_);
    ASSERT_FALSE(write(files_, sent, 2, workers));
    const Bytes file = readFile(files_, path_);
    if (first.empty()) first = file;
    EXPECT_TRUE(file == first) << workers;
  }
  EXPECT_EQ(decoderComplaints(path_), "");
  const Samples heard = decodedByFFmpeg(path_);
  ASSERT_GE(heard.size(), sent.size());
  const Samples whole = decodedByFFmpeg(madeByFFmpeg({"-i", chord(), "-c:a", "aac", "-b:a", "128k"}, ".m4a"));
  EXPECT_GT(decibelsAboveNoise(sent, heard, 8192, sent.size()),
            decibelsAboveNoise(sent, whole, 8192, sent.size()) - 0.3);
}

TEST_F(AssetWriter, BeginsASegmentAsWellAsItEndsTheOneBefore) {
  const size_t join = SegmentedAACEncoder::packetsPerSegment * 2048, near = 8 * 2048;
  const std::string middle = "0.1*(sin(1382*t)+sin(6264*t)+sin(28274*t)+sin(69115*t))+0.002*random(0)",
                    sides = middle + "+0.2*sin(5027*t-4189*cos(0.6*t))|" + middle + "-0.2*sin(5027*t-4189*cos(0.6*t))";
  const Samples sent = decodedByFFmpeg(madeByFFmpeg(words("-f lavfi -i aevalsrc=" + sides + ":s=48000 -t 60"), ".wav"));
  ASSERT_FALSE(write(files_, sent, 2));
  const Samples heard = decodedByFFmpeg(path_);
  EXPECT_GT(decibelsAboveNoise(sent, heard, join, join + near), decibelsAboveNoise(sent, heard, join - near, join) - 3);
}

TEST_F(AssetWriter, CountsFramesExactly) {
  // Where the shortage could be spread over all packets, the last one stays whole.
  const std::pair<size_t, size_t> rows[] = {{0, 0},       {1, 1024},    {1024, 1024},  {1025, 1025},
                                            {2046, 2048}, {2047, 2047}, {48000, 48000}};
  for (const auto& [frames, heard] : rows) {
    for (uint32_t channels : {1, 2}) {
      ASSERT_FALSE(write(files_, sound(frames, channels), channels));
      const auto probe = runProcess(
          {"ffprobe", "-v", "error", "-show_entries", "stream=duration_ts,channels", "-of", "csv=p=0", path_});
      EXPECT_EQ(probe.exitCode, 0);
      if (frames > 0) {
        EXPECT_EQ(probe.output, fmt::format("{},{}\n", channels, heard)) << frames;
      }
      files_.removeItem(path_);
    }
  }
}

TEST_F(AssetWriter, LeavesNoFileBehindWhateverFails) {
  const Samples sent = sound(40 * 48000, 1);
  FaultyFileManager faulty(files_);
  uint64_t call = 1;
  for (;; ++call) {
    faulty.arm({.call = call, .errnum = ENOSPC, .effect = Fault::Effect::half});
    try {
      const auto failure = write(faulty, sent, 1);
      if (!faulty.fired()) break;
      EXPECT_EQ(failure.value().code(), ENOSPC);
    } catch (const PosixError&) {
      // The file could not be made.
    }
    EXPECT_FALSE(files_.fileExists(path_)) << "call " << call;
  }
  EXPECT_GT(call, 6u);
}

}  // namespace
}  // namespace tarn::test
