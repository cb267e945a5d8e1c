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

/// A chord that swells and fades over some noise, with a click each second; the second channel is softer.
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
    for (size_t c = 0; c < channels; ++c)
      samples[i * channels + c] = static_cast<int16_t>(value * (c == 0 ? 32000 : 20000));
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

  Ending finish(AVAssetWriter& writer) {
    std::promise<void> done;
    writer.finishWritingWithCompletionHandler([&] { done.set_value(); });
    done.get_future().wait();
    return {writer.status(), writer.error()};
  }

  std::shared_ptr<AVAssetWriterInput> startedInput(AVAssetWriter& writer, int channels) {
    auto input = std::make_shared<AVAssetWriterInput>(AACOutputSettings{.channels = channels});
    EXPECT_TRUE(writer.canAddInput(*input));
    writer.addInput(input);
    EXPECT_TRUE(writer.startWriting());
    writer.startSessionAtSourceTime(CMTime::zero());
    return input;
  }

  Ending write(FileManager& files, std::span<const int16_t> samples, int channels, unsigned workers = 0) {
    AVAssetWriter writer(files, path_, AVFileType::appleM4A, workers);
    auto input = startedInput(writer, channels);
    const size_t piece = 8192 * static_cast<size_t>(channels);
    for (size_t at = 0; at < samples.size(); at += piece) {
      input->appendSampleBuffer(
          bufferOf(samples.subspan(at, std::min(piece, samples.size() - at)), static_cast<uint32_t>(channels)));
    }
    input->markAsFinished();
    return finish(writer);
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
  for (size_t i = from; i < std::min({to, sent.size(), heard.size()}); ++i)
    largest = std::max(largest, std::abs(sent[i] - heard[i]));
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
  file.keep();
  const Samples whole = decoded(single, 2);
  EXPECT_GT(signalToNoise(sent, heard), 15) << "each frame has kept its place";
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

  AVAssetWriter mistaken(files_, path_, AVFileType::appleM4A);
  for (const AACOutputSettings& odd :
       {AACOutputSettings{.sampleRate = 47999}, {.sampleRate = 32000}, {.channels = 3}}) {
    EXPECT_FALSE(mistaken.canAddInput(AVAssetWriterInput(odd)));
  }
  auto mono = startedInput(mistaken, 1);
  EXPECT_FALSE(mono->appendSampleBuffer(bufferOf(sent, 2)));
  EXPECT_TRUE(mono->isReadyForMoreMediaData());
  EXPECT_EQ(finish(mistaken).status, AVAssetWriterStatus::failed);
}

TEST_F(AssetWriter, TellsOfAFailureWhileItWrites) {
  const Samples sent = sound(46 * 48000, 1);
  FaultyFileManager faulty(files_);
  faulty.arm({.call = 3, .errnum = ENOSPC, .among = {FileOperation::write}});
  {
    AVAssetWriter writer(faulty, path_, AVFileType::appleM4A, 2);
    auto input = startedInput(writer, 1);
    int appended = 0;
    while (input->appendSampleBuffer(bufferOf(sent, 1))) ++appended;
    EXPECT_LE(appended, 6) << "the second segment was not written, and few were on their way";
    EXPECT_TRUE(input->isReadyForMoreMediaData());
    EXPECT_EQ(writer.status(), AVAssetWriterStatus::failed);
    EXPECT_EQ(writer.error().value().code(), ENOSPC);
    EXPECT_EQ(finish(writer).error.value().code(), ENOSPC);
    writer.cancelWriting();
    EXPECT_EQ(writer.status(), AVAssetWriterStatus::failed);
  }
  EXPECT_FALSE(files_.fileExists(path_));
}

/// A disk whose flushes wait for a test.
class SlowDisk : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;
  std::promise<void> isFlushing;
  std::promise<void> mayGoOn;

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return std::make_unique<Handle>(*this, ForwardingFileManager::open(path, mode));
  }

 private:
  class Handle : public ForwardingFileHandle {
   public:
    Handle(SlowDisk& disk, std::unique_ptr<FileHandle> handle) : ForwardingFileHandle(std::move(handle)), disk_(disk) {}
    void synchronize() override {
      disk_.isFlushing.set_value();
      disk_.mayGoOn.get_future().wait();
    }

   private:
    SlowDisk& disk_;
  };
};

TEST_F(AssetWriter, IsCancelledAtAnyTime) {
  const Samples sent = sound(50 * 48000, 1);
  AVAssetWriter busy(files_, path_, AVFileType::appleM4A);
  EXPECT_TRUE(startedInput(busy, 1)->appendSampleBuffer(bufferOf(sent, 1)));
  const auto begin = std::chrono::steady_clock::now();
  busy.cancelWriting();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
  EXPECT_EQ(busy.status(), AVAssetWriterStatus::cancelled);
  EXPECT_FALSE(files_.fileExists(path_));

  // The last bytes are on their way to the disk.
  SlowDisk disk(files_);
  AVAssetWriter finishing(disk, path_, AVFileType::appleM4A);
  EXPECT_TRUE(startedInput(finishing, 1)->appendSampleBuffer(bufferOf(std::span(sent).first(5000), 1)));
  finishing.finishWritingWithCompletionHandler([] {});
  disk.isFlushing.get_future().wait();
  std::thread canceller([&] { finishing.cancelWriting(); });
  while (finishing.status() != AVAssetWriterStatus::cancelled) std::this_thread::yield();
  disk.mayGoOn.set_value();
  canceller.join();
  EXPECT_EQ(finishing.status(), AVAssetWriterStatus::cancelled);
  EXPECT_FALSE(files_.fileExists(path_));
}

/// PCM in pieces, and then a status of the test's own.
class Pieces : public AudioConverter::InputSource {
 public:
  Pieces(Bytes pcm, uint32_t frames) : pcm_(std::move(pcm)), frames_(frames) {}

  AudioConverterInput provide(uint32_t) override {
    const auto left = static_cast<uint32_t>((pcm_.size() - at_) / 4);
    if (left == 0) return {.status = -1};
    const uint32_t frames = std::min(frames_, left);
    const auto piece = ByteView(pcm_).subspan(at_, size_t{frames} * 4);
    at_ += piece.size();
    return {.packets = frames, .data = piece};
  }

 private:
  const Bytes pcm_;
  const uint32_t frames_;
  size_t at_ = 0;
};

AudioConverter::Creation stereoConverter(double rate) {
  return AudioConverter::create(
      interleavedPCM16(rate, 2),
      {.mSampleRate = rate, .mFormatID = kAudioFormatMPEG4AAC, .mFramesPerPacket = 1024, .mChannelsPerFrame = 2});
}

TEST_F(AssetWriter, AConverterMakesSilence) {
  std::optional<Bytes> first;
  for (double rate : {24000.0, 44100.0, 48000.0}) {
    auto made = stereoConverter(rate);
    ASSERT_EQ(made.status, noErr);
    EXPECT_EQ(made.converter->setEncodeBitRate(128000), noErr);
    Pieces input(Bytes(4096), 1024);
    const auto output = made.converter->fillComplexBuffer(input, 1, 2048);
    EXPECT_EQ(output.status, -1);
    EXPECT_EQ(output.packets, 1U);
    EXPECT_EQ(output.data.size(), 6U);
    EXPECT_EQ(output.data, first.value_or(output.data));
    first = output.data;
  }
  M4AFile file(files_, path_);
  file.append(std::vector<Bytes>(20, *first));
  file.finish({}, int64_t{20} * 1024);
  file.keep();
  EXPECT_EQ(decoderComplaints(path_), "");
  EXPECT_EQ(decoded(path_, 2), Samples(size_t{20} * 2048));
}

TEST_F(AssetWriter, AConverterTakesPiecesOfAnyLength) {
  const auto sent = bufferOf(sound(5000, 2), 2);
  std::vector<Bytes> results;
  for (uint32_t frames : {1024U, 1U, 700U, 5000U}) {
    Pieces input(Bytes(sent.dataBuffer->bytes().begin(), sent.dataBuffer->bytes().end()), frames);
    auto made = stereoConverter(48000);
    Bytes all;
    uint32_t packets = 0;
    for (auto output = made.converter->fillComplexBuffer(input, 2, 4096); output.packets > 0;
         output = made.converter->fillComplexBuffer(input, 2, 4096)) {
      all.insert(all.end(), output.data.begin(), output.data.end());
      packets += output.packets;
    }
    EXPECT_GE(packets, 5U);
    results.push_back(all);
    EXPECT_TRUE(results.back() == results.front()) << frames;
  }
  EXPECT_NE(stereoConverter(47999).status, noErr);
  EXPECT_NE(stereoConverter(-1e300).status, noErr);
}

}  // namespace
}  // namespace tarn::test
