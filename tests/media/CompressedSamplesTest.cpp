#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <random>
#include <sstream>

#include "media/AVAsset.h"
#include "platform/Error.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/MediaMaker.h"
#include "support/SyntheticMovie.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;

/// One buffer in the track's ticks; a trim of 0 is left out of the failure's text.
struct Shown {
  int64_t index;
  int64_t pts;
  double duration;
  int64_t trimAtStart = 0;
  int64_t trimAtEnd = 0;
  bool operator==(const Shown&) const = default;
};
std::ostream& operator<<(std::ostream& out, const Shown& shown) {
  return out << shown.index << " at " << shown.pts << " for " << shown.duration << " trimmed by " << shown.trimAtStart
             << " and " << shown.trimAtEnd;
}

/// A movie on disk.
class Clip {
 public:
  explicit Clip(const Bytes& bytes) : asset(files_, directory_ / "clip.mp4") {
    writeFileAtomically(files_, asset.url(), bytes);
  }
  AVAssetTrack track() const {
    auto audio = asset.tracks(AVMediaType::audio);
    return audio.empty() ? asset.tracks(AVMediaType::video).at(0) : audio[0];
  }

 private:
  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};

 public:
  AVAsset asset;
};

/// All buffers of the clip's track up to where the stream ends, or breaks off with the failure.
struct Walk {
  std::vector<Shown> shown;
  std::string failure;
};
Walk walk(const AVAsset& asset, const AVAssetTrack& track) {
  Walk result;
  try {
    auto source = asset.compressedSamples(track);
    while (auto buffer = source->next()) {
      int32_t timescale = buffer->presentationTimeStamp.timescale;
      EXPECT_EQ(timescale, static_cast<int32_t>(track.naturalTimeScale));
      result.shown.push_back({buffer->sampleIndex, buffer->presentationTimeStamp.value,
                              buffer->duration.seconds() * timescale, buffer->trimDurationAtStart.value,
                              buffer->trimDurationAtEnd.value});
    }
  } catch (const Error& error) {
    result.failure = error.description();
  }
  return result;
}

TEST(CompressedSamples, LieOnTheTimelineThatTheEditsMake) {
  // Pictures of 100 ticks at 1000 ticks a second; the movie's clock has 500.
  SyntheticTrack plain{.handler = "vide", .timescale = 1000, .stts = {{5, 100}}, .samples = 5, .mediaDuration = 500};
  auto with = [&](std::vector<std::pair<uint64_t, int64_t>> edits, bool longTimes = false) {
    SyntheticTrack track = plain;
    track.edits = std::move(edits);
    track.longTimes = longTimes;
    return track;
  };
  SyntheticTrack reordered = plain;
  reordered.ctts = {{1, 100}, {1, 300}, {2, 0}, {1, 100}};
  SyntheticTrack reorderedAndCut = reordered;
  reorderedAndCut.edits = {{50, 400}};
  SyntheticTrack negative = plain;
  negative.ctts = {{2, -150}};
  SyntheticTrack negativeAndCut = negative;
  negativeAndCut.edits = {{50, -150}};
  struct {
    const char* name;
    SyntheticTrack track;
    double start, duration;  // of the time range, in seconds
    std::vector<Shown> shown;
  } cases[] = {
      {"no edits", plain, 0, 0.5, {{0, 0, 100}, {1, 100, 100}, {2, 200, 100}, {3, 300, 100}, {4, 400, 100}}},
      {"empty edits ahead", with({{10, -1}, {20, -1}, {100, 300}}), 0.06, 0.2, {{3, 60, 100}, {4, 160, 100}}},
      {"duration 0", with({{0, 300}}), 0, 0.2, {{3, 0, 100}, {4, 100, 100}}},
      {"samples that straddle", with({{60, 150}}), 0, 0.12, {{1, -50, 100, 50, 0}, {2, 50, 100, 0, 30}}},
      {"one back", with({{50, 300}, {25, -1}, {75, 0}}), 0, 0.25, {{3, 0, 100}, {0, 150, 100}, {1, 250, 100, 0, 50}}},
      {"an edit of duration 0 between", with({{0, 400}, {50, 0}}), 0, 0.2, {{4, 0, 100}, {0, 100, 100}}},
      {"version 1", with({{uint64_t{1} << 33, -1}, {50, 400}}, true), 17179869.184, 0.1, {{4, 17179869184, 100}}},
      {"media time below -1", with({{100, -50}}), 0, 0.2, {{0, 50, 100}, {1, 150, 100, 0, 50}}},
      {"an edit beyond the media", with({{100, 500}}), 0, 0.2, {}},
      {"empty edits alone", with({{100, -1}}), 0.2, 0, {}},
      {"reordered", reordered, 0, 0.5, {{0, 100, 100}, {1, 400, 100}, {2, 200, 100}, {3, 300, 100}, {4, 500, 100}}},
      {"reordered and cut", reorderedAndCut, 0, 0.1, {{1, 0, 100}}},
      {"negative and cut", negativeAndCut, 0, 0.1, {{0, 0, 100}}},
      {"negative", negative, 0, 0.5, {{0, -150, 100}, {1, -50, 100}, {2, 200, 100}, {3, 300, 100}, {4, 400, 100}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Clip clip(syntheticMovie({c.track}, 500));
    AVAssetTrack track = clip.track();
    EXPECT_DOUBLE_EQ(track.timeRange.start.seconds(), c.start);
    EXPECT_DOUBLE_EQ(track.timeRange.duration.seconds(), c.duration);
    EXPECT_DOUBLE_EQ(clip.asset.duration().seconds(), c.start + c.duration);
    Walk result = walk(clip.asset, track);
    EXPECT_EQ(result.failure, "");
    EXPECT_EQ(result.shown, c.shown);
  }
}

TEST(CompressedSamples, PacketsOfAACHaveTheirNominalLength) {
  const Bytes lc48 = aacSampleEntry(48000, 2, {0x11, 0x90});
  const Bytes lc24 = aacSampleEntry(24000, 2, {0x13, 0x10});
  const Bytes he24 = aacSampleEntry(48000, 2, {0x2B, 0x11, 0x88, 0x00});
  constexpr double coarse = 1024.0 / 48;
  struct {
    const char* name;
    Bytes entry;
    uint32_t timescale;
    std::vector<std::pair<uint32_t, uint32_t>> stts;
    std::vector<Shown> shown;
  } cases[] = {
      {"a hole", lc48, 48000, {{1, 1024}, {1, 5000}, {1, 1024}}, {{0, 0, 1024}, {1, 1024, 1024}, {2, 6024, 1024}}},
      {"an overlap", lc48, 48000, {{1, 500}, {2, 1024}}, {{0, 0, 1024}, {1, 500, 1024}, {2, 1524, 1024}}},
      {"the last is shorter", lc48, 48000, {{1, 1024}, {1, 100}}, {{0, 0, 1024}, {1, 1024, 100}}},
      {"the last is no longer", lc48, 48000, {{1, 1024}, {1, 9000}}, {{0, 0, 1024}, {1, 1024, 1024}}},
      {"a coarse clock", lc48, 1000, {{1, 21}, {1, 22}}, {{0, 0, coarse}, {1, 21, coarse}}},
      // 2048 samples at twice the rate, whether SBR or not: what the packet really lasts.
      {"24 kHz LC", lc24, 24000, {{2, 1024}}, {{0, 0, 1024}, {1, 1024, 1024}}},
      {"24 kHz HE", he24, 48000, {{2, 2048}}, {{0, 0, 2048}, {1, 2048, 2048}}},
      {"no AAC", audioSampleEntry("Opus", 48000, 2), 48000, {{1, 960}, {1, 480}}, {{0, 0, 960}, {1, 960, 480}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    uint32_t samples = 0;
    for (auto [count, delta] : c.stts) samples += count;
    Clip clip(syntheticMovie({{.timescale = c.timescale, .sampleEntry = c.entry, .stts = c.stts, .samples = samples}}));
    EXPECT_EQ(walk(clip.asset, clip.track()).shown, c.shown);
  }
  // An edit that ends in the hole behind a packet takes nothing of the packet.
  Clip clip(syntheticMovie({{.stts = {{1, 1024}, {1, 5000}}, .edits = {{3000, 500}}, .samples = 2}}, 48000));
  EXPECT_EQ(walk(clip.asset, clip.track()).shown, (std::vector<Shown>{{0, -500, 1024, 500, 0}, {1, 524, 1024, 0, 0}}));
}

/// A field of each packet of a stream, as ffprobe has it.
std::vector<int64_t> probePackets(const Path& file, const std::string& stream, const std::string& field) {
  auto probe = runProcess({"ffprobe", "-v", "error", "-select_streams", stream, "-show_entries", "packet=" + field,
                           "-of", "csv=p=0", file.string()});
  std::istringstream lines(probe.output);
  std::vector<int64_t> result;
  for (std::string line; std::getline(lines, line);) result.push_back(std::stoll(line));
  return result;
}

TEST(CompressedSamples, AgreeWithFFprobeOnRealFiles) {
  PosixFileManager files("/nonexistent");
  const std::string recipe =
      "-f lavfi -i testsrc2=size=64x64:rate=30000/1001 -itsoffset 0.35 -f lavfi -i sine=r=44100 -t 3 -c:v libx264 "
      "-bf 3 -c:a aac -pix_fmt yuv420p";
  for (const char* muxing : {"", " -movflags +faststart", " -movflags negative_cts_offsets", " -use_editlist 0"}) {
    SCOPED_TRACE(muxing);
    Path file = madeByFFmpeg(words(recipe + muxing));
    Bytes bytes = readFile(files, file);
    AVAsset asset(files, file);
    for (auto [type, stream] : {std::pair(AVMediaType::video, "v:0"), std::pair(AVMediaType::audio, "a:0")}) {
      SCOPED_TRACE(stream);
      auto track = asset.tracks(type).at(0);
      auto pts = probePackets(file, stream, "pts");
      auto places = probePackets(file, stream, "pos");
      auto sizes = probePackets(file, stream, "size");
      auto source = asset.compressedSamples(track);
      size_t count = 0;
      while (auto buffer = source->next()) {
        ++count;
        auto index = static_cast<size_t>(buffer->sampleIndex);
        ASSERT_LT(index, pts.size());
        EXPECT_EQ(buffer->presentationTimeStamp.value, pts[index]);
        auto place = bytes.begin() + places[index];
        EXPECT_EQ(source->data(buffer->sampleIndex), Bytes(place, place + sizes[index]));
      }
      EXPECT_GE(count + 2, pts.size()) << "all but priming and a sample behind the edit's end";
      EXPECT_GT(count, 80u);
    }
  }
}

TEST(CompressedSamples, AreReadInAnyOrder) {
  for (uint32_t samplesPerChunk : {1, 4, 100}) {
    Clip clip(syntheticMovie({{.stts = {{30, 1024}}, .samples = 30, .samplesPerChunk = samplesPerChunk}}));
    auto source = clip.asset.compressedSamples(clip.track());
    for (int64_t index : {0, 1, 5, 29, 3, 4, 0, 17}) {
      EXPECT_EQ(source->data(index), Bytes(static_cast<size_t>(index % 7 + 1), static_cast<uint8_t>(index)));
    }
    for (int64_t index : {int64_t{-1}, int64_t{30}, INT64_MAX, int64_t{1} << 32}) {
      EXPECT_THROW(source->data(index), Error) << index;
    }
  }
}

TEST(CompressedSamples, DamageEndsTheStreamOrIsRefused) {
  const std::string stbl = "moov/trak/mdia/minf/stbl/";
  const char* cut = "the data end before what they must hold";
  SyntheticTrack sound{.stts = {{10, 1024}}, .ctts = {{10, 0}}, .edits = {{0, 0}}, .samples = 10};
  auto field = [](const std::string& path, size_t at, uint32_t value) {
    return [=](BoxEditor& file) { file.setField(file.at(path).offset + at, value); };
  };
  struct {
    const char* name;
    std::function<void(BoxEditor&)> damage;
    size_t buffers;
    const char* failure;
  } cases[] = {
      {"none", [](BoxEditor&) {}, 10, ""},
      {"stts promises rows", field(stbl + "stts", 12, UINT32_MAX), 0, cut},
      {"ctts promises rows", field(stbl + "ctts", 12, 3), 0, cut},
      {"elst promises rows", field("moov/trak/edts/elst", 12, UINT32_MAX), 0, cut},
      {"stsz promises samples", field(stbl + "stsz", 16, UINT32_MAX), 0, cut},
      {"stsz promises equal samples", field(stbl + "stsz", 12, 1 << 20), 0, "Sample 0 does not lie in the file"},
      {"stsz promises equal samples without end",
       [&](BoxEditor& file) {
         field(stbl + "stsz", 12, 1)(file);
         field(stbl + "stsz", 16, UINT32_MAX)(file);
       },
       12, "Sample 12 does not lie in the file"},
      {"stts is short", field(stbl + "stts", 16, 4), 10, ""},
      {"stts is empty", field(stbl + "stts", 16, 0), 0, "stts names no sample"},
      {"stts is long", field(stbl + "stts", 16, UINT32_MAX), 10, ""},
      {"ctts is short", field(stbl + "ctts", 16, 4), 10, ""},
      {"chunks are few", field(stbl + "stco", 12, 2), 8, "Sample 8 does not lie in the file"},
      {"chunks are empty", field(stbl + "stsc", 20, 0), 0, "Sample 0 does not lie in the file"},
      {"a chunk lies outside", field(stbl + "stco", 20, UINT32_MAX), 4, "Sample 4 does not lie in the file"},
      {"a description that is not there", field(stbl + "stsc", 24, 7), 10, ""},
      {"no track timescale", field("moov/trak/mdia/mdhd", 20, 0), 0, "The track has no timescale"},
      {"a timescale beyond 31 bits", field("moov/trak/mdia/mdhd", 20, UINT32_MAX), 0, "The track has no timescale"},
      {"no movie timescale", field("moov/mvhd", 20, 0), 0, "elst without a timescale"},
      {"no stsz", [&](BoxEditor& file) { file.rename(stbl + "stsz", "free"); }, 0, "stsz box not found"},
      {"no stbl", [&](BoxEditor& file) { file.rename("moov/trak/mdia/minf/stbl", "free"); }, 0, "stbl box not found"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    BoxEditor editor(syntheticMovie({sound}));
    c.damage(editor);
    Clip clip(editor.bytes);
    Walk result = walk(clip.asset, clip.track());
    EXPECT_EQ(result.shown.size(), c.buffers);
    EXPECT_EQ(result.failure, c.failure);
  }
}

TEST(CompressedSamples, EditsThatRepeatWithoutEndAreRefused) {
  SyntheticTrack sound{.stts = {{100'000, 1024}}, .samples = 100'000};
  sound.edits.assign(1000, {0, 0});
  Clip clip(syntheticMovie({sound}));
  EXPECT_EQ(walk(clip.asset, clip.track()).failure, "elst shows the media too often");
  sound.edits.assign(3, {0, 0});
  Clip loop(syntheticMovie({sound}));
  EXPECT_EQ(walk(loop.asset, loop.track()).shown.size(), 300'000u);
}

TEST(CompressedSamples, NoDamageToTheMovieBoxCrashes) {
  SyntheticTrack sound{
      .stts = {{3, 1024}, {7, 1000}}, .ctts = {{4, 0}, {6, 10}}, .edits = {{10, -1}, {200, 5}}, .samples = 10};
  const Bytes movie = syntheticMovie({sound});
  const size_t moov = BoxEditor(movie).at("moov").offset;
  std::mt19937 random(8);
  TempDirectory directory;
  PosixFileManager files(directory.path());
  AVAsset asset(files, directory / "clip.mp4");
  size_t walked = 0;
  for (int round = 0; round < 1000; ++round) {
    Bytes damaged = movie;
    for (int i = 0; i < 3; ++i) {
      damaged[moov + 8 + random() % (movie.size() - moov - 8)] = static_cast<uint8_t>(round % 2 == 0 ? 0xFF : random());
    }
    if (round % 10 == 0) damaged.resize(moov + random() % (movie.size() - moov));
    std::ofstream(asset.url(), std::ios::binary) << textOf(damaged);
    asset.duration();
    for (const AVAssetTrack& track : asset.tracks(AVMediaType::audio)) {
      auto shown = walk(asset, track).shown;
      walked += shown.size();
      ASSERT_LT(shown.size(), 100u);
    }
  }
  EXPECT_GT(walked, 1000u) << "or the damage leaves nothing to walk";
}

}  // namespace
}  // namespace tarn
