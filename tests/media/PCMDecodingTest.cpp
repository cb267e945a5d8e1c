#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>

#include "media/PCMDecoding.h"
#include "support/Clip.h"
#include "support/FailureOf.h"
#include "support/PCM.h"

namespace tarn::test {
namespace {

/// Compressed samples as a test has them.
class ScriptedSource : public CompressedSampleSource {
 public:
  ScriptedSource(std::function<std::optional<CMSampleBuffer>()> next, std::function<Bytes(int64_t)> data)
      : next_(std::move(next)), data_(std::move(data)) {}

  std::optional<CMSampleBuffer> next() override { return next_(); }
  Bytes data(int64_t sampleIndex) override { return data_(sampleIndex); }

 private:
  std::function<std::optional<CMSampleBuffer>()> next_;
  std::function<Bytes(int64_t)> data_;
};

/// All that a source gave out.
struct Decoded {
  Samples samples;
  std::vector<std::pair<int64_t, int64_t>> buffers;  ///< time in output frames, and length
  std::string failure;

  int64_t frames() const { return buffers.empty() ? 0 : buffers.back().first + buffers.back().second; }
};

/// The source, or else the clip's own samples.
Decoded decode(const Clip& clip, const PCMOutputSettings& settings = {},
               std::unique_ptr<CompressedSampleSource> samples = nullptr) {
  const auto source = makePCMSource(samples ? std::move(samples) : clip.samples(), clip.track(), settings);
  Decoded result;
  result.failure = failureOf([&] {
    while (const auto buffer = source->next()) {
      EXPECT_EQ(buffer->presentationTimeStamp.timescale, settings.sampleRate);
      EXPECT_EQ(buffer->duration.value, buffer->numSamples);
      EXPECT_EQ(buffer->formatDescription->streamDescription, interleavedPCM16(settings.sampleRate, settings.channels));
      if (settings.keepsTimeline && !result.buffers.empty()) {
        EXPECT_EQ(buffer->presentationTimeStamp.value, result.frames());
      }
      result.buffers.emplace_back(buffer->presentationTimeStamp.value, buffer->numSamples);
      const Samples more = samplesOf(*buffer);
      EXPECT_EQ(more.size(), static_cast<size_t>(buffer->numSamples) * settings.channels);
      result.samples.insert(result.samples.end(), more.begin(), more.end());
    }
  });
  EXPECT_FALSE(source->next()) << "nothing comes after the end";
  return result;
}

/// The frames [from, to) of two channels.
Samples part(const Samples& samples, int64_t from, int64_t to) {
  return {samples.begin() + 2 * from, samples.begin() + 2 * to};
}

/// Where two runs of samples differ first; the length of the shorter one where they do not.
size_t firstDifference(const Samples& a, const Samples& b) {
  return static_cast<size_t>(std::ranges::mismatch(a, b).in1 - a.begin());
}

/// 4 s of a sound that is never the same, so that a shift by one frame shows.
const std::string noise = "-f lavfi -i anoisesrc=d=4:c=pink:a=0.5:seed=7:r=48000,aformat=channel_layouts=";

/// AAC at 24 kHz whose configuration announces SBR, so that it comes out at 48 kHz.
Path announcingSBR(const Path& file) {
  PosixFileManager files("/nonexistent");
  Bytes bytes = readFile(files, file);
  const Bytes sbr{0x13, 0x10, 0x56, 0xE5, 0};
  const auto config = std::search(bytes.begin(), bytes.end(), sbr.begin(), sbr.end());
  if (config == bytes.end()) throw std::runtime_error("no AudioSpecificConfig of this kind");
  std::ranges::copy(Bytes{0x2B, 0x11, 0x88, 0, 0}, config);
  const Path result = file.string() + ".sbr.mp4";
  writeFileAtomically(files, result, bytes);
  return result;
}

TEST(PCMDecoding, EqualsFFmpegForEachCodecAndRate) {
  const struct {
    const char* encoding;  // behind the layout
    int64_t frames;        // at the output rate
    const char* ending = ".mp4";
    PCMOutputSettings output = {};
    bool announcesSBR = false;
  } cases[] = {
      {"stereo -c:a aac", 192000},
      {"stereo -c:a aac -ar 44100", 192000},
      {"stereo -c:a aac -ar 24000", 192000},
      {"stereo -c:a aac -ar 24000", 96000, ".mov", {.sampleRate = 24000}},
      {"stereo -c:a aac", 176400, ".mp4", {.sampleRate = 44100}},
      {"mono -c:a aac", 192000},
      {"mono -c:a aac", 192000, ".mp4", {.channels = 1}},
      {"5.1 -c:a aac", 192000},
      {"stereo -c:a libmp3lame", 192000},
      {"stereo -c:a libopus", 192000},
      {"mono -c:a libopus -b:a 12k -application voip", 192000},
      {"stereo -c:a flac -strict -2", 192000},
      {"stereo -c:a alac", 192000},
      {"5.1 -c:a ac3", 191712},
      {"stereo -c:a eac3", 191712},
      {"stereo -c:a pcm_s16le", 192000, ".mov"},
      {"stereo -c:a aac -aac_pns 0 -ar 24000", 192000, ".mp4", {}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(fmt::format("{} to {}", c.encoding, c.output.sampleRate));
    Path file = madeByFFmpeg(words(noise + c.encoding), c.ending);
    if (c.announcesSBR) file = announcingSBR(file);
    const Samples expected =
        decodedByFFmpeg(file, fmt::format("-ar {} -ac {}", c.output.sampleRate, c.output.channels));
    const Decoded ours = decode(Clip(file), c.output);
    EXPECT_EQ(ours.failure, "");
    EXPECT_EQ(ours.frames(), c.frames);
    EXPECT_EQ(ours.buffers.front(), (std::pair<int64_t, int64_t>{0, 8192}));
    // Behind the end ffmpeg goes on to the end of the packet, which the last filter taps see.
    EXPECT_GE(firstDifference(ours.samples, expected), ours.samples.size() - size_t{32} * 2);
  }
}

TEST(PCMDecoding, DriftAndJitterAreFollowedWithoutAStep) {
  const Path plain = madeByFFmpeg(words("-f lavfi -i sine=f=500:r=48000:d=6,aformat=channel_layouts=stereo -c:a aac"));
  const int step = largestStep(decode(Clip(plain)).samples, 2);
  for (const char* times : {"round(TS*1.005)", "round(TS*0.995)", "TS+if(mod(N,3),0,300)"}) {
    const Path moved = madeByFFmpeg({"-i", plain, "-c", "copy", "-bsf:a", fmt::format("setts=ts='{}'", times)});
    const Samples samples = decode(Clip(moved)).samples;
    EXPECT_LE(largestStep(samples, 2), step * 21 / 20) << times;
    // A tone of 500 Hz is never silent for a millisecond.
    const auto isQuiet = [](int16_t value, bool wanted) { return (std::abs(value) < 100) == wanted; };
    const auto middle = std::span(samples).subspan(48000, samples.size() - 96000);
    EXPECT_EQ(std::search_n(middle.begin(), middle.end(), 96, true, isQuiet), middle.end()) << times;
  }
}

TEST(PCMDecoding, FollowsAFormatThatChanges) {
  const Clip mono(madeByFFmpeg(words(noise + "mono -c:a aac -ar 44100")));
  const Clip stereo(madeByFFmpeg(words(noise + "stereo -c:a flac -strict -2")));
  // One track and, after a gap in the numbers, another, as where an edit jumps to samples of another entry.
  const auto ahead = mono.samples(), behind = stereo.samples();
  const CMTime end = mono.track().timeRange.duration;
  int64_t firstBehind = 0;
  const auto next = [&] {
    auto sample = ahead->next();
    if (sample) {
      firstBehind = sample->sampleIndex + 1000;
    } else if ((sample = behind->next())) {
      sample->sampleIndex += firstBehind;
      sample->presentationTimeStamp = sample->presentationTimeStamp + end;
    }
    return sample;
  };
  const auto data = [&](int64_t i) { return i < firstBehind ? ahead->data(i) : behind->data(i - firstBehind); };
  const Decoded both = decode(mono, {}, std::make_unique<ScriptedSource>(next, data));
  const Decoded first = decode(mono), second = decode(stereo);
  ASSERT_EQ(both.frames(), first.frames() + second.frames());
  EXPECT_GE(firstDifference(both.samples, first.samples), first.samples.size() - 64);
  EXPECT_EQ(part(both.samples, first.frames(), both.frames()), second.samples);
}

TEST(PCMDecoding, APacketThatDoesNotDecodeLeavesItsLengthAsSilence) {
  const Clip clip(
      madeByFFmpeg(words("-f lavfi -i sine=f=300:r=48000:d=2,aformat=channel_layouts=stereo -c:a aac -aac_pns 0")));
  const Decoded whole = decode(clip);
  // A packet of no bytes, and packets that hold an end and no more: in the middle, at the start, and at the end.
  const struct {
    int64_t first, last;
    Bytes contents;
  } cases[] = {{40, 40, {}}, {40, 42, {0xE0}}, {1, 2, {0xE0}}, {91, 93, {0xE0}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(fmt::format("{} to {}", c.first, c.last));
    const auto source = clip.samples();
    const auto data = [&](int64_t i) { return i >= c.first && i <= c.last ? c.contents : source->data(i); };
    const Decoded ours = decode(clip, {}, std::make_unique<ScriptedSource>([&] { return source->next(); }, data));
    ASSERT_EQ(ours.frames(), whole.frames());
    // Packet 0 lies ahead of the edit.
    const int64_t from = (c.first - 1) * 1024, to = std::min(c.last * 1024, whole.frames());
    EXPECT_EQ(part(ours.samples, from, to), Samples(static_cast<size_t>(to - from) * 2));
    // A fade begins so gently that its first frames may keep their values.
    const size_t frame = firstDifference(ours.samples, whole.samples) / 2;
    EXPECT_NEAR(static_cast<double>(frame), static_cast<double>(std::max<int64_t>(from - 240, 0)), 8);
    // The packet behind the hole overlaps with what is not there.
    const int64_t good = std::min(to + 1024, whole.frames());
    EXPECT_EQ(part(ours.samples, good, whole.frames()), part(whole.samples, good, whole.frames()));
    EXPECT_LE(largestStep(ours.samples, 2), largestStep(whole.samples, 2) * 3 / 2);
  }
}

TEST(PCMDecoding, AGapOfAnHourTakesNoMemory) {
  const Path plain = madeByFFmpeg(words(noise + "stereo -c:a aac"));
  const Clip clip(
      madeByFFmpeg(words("-i " + plain.string() + " -c copy -bsf:a setts=ts='if(gt(N\\,120)\\,TS+172800000\\,TS)'")));
  const auto source = makePCMSource(clip.samples(), clip.track(), {});
  int64_t frames = 0;
  std::set<CMBlockBufferPointer> blocks;
  while (const auto buffer = source->next()) {
    EXPECT_LE(buffer->numSamples, 8192);
    frames += buffer->numSamples;
    blocks.insert(buffer->dataBuffer);
  }
  EXPECT_EQ(frames, 4 * 48000 + 172800000);
  EXPECT_LT(blocks.size(), 80u) << "pieces of silence share their memory";
}

}  // namespace
}  // namespace tarn::test
