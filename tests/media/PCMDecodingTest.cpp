#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <set>

#include "media/PCMDecoding.h"
#include "platform/Error.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;
using Samples = std::vector<int16_t>;

/// All that a source gave out: first channel and second one after the other, frame by frame.
struct Decoded {
  Samples samples;
  std::vector<std::pair<int64_t, int64_t>> buffers;  ///< time in output frames, and length
  std::string failure;

  int64_t frames() const { return buffers.empty() ? 0 : buffers.back().first + buffers.back().second; }
};

/// Passes a track's packets on, its bytes as the test wants them.
using Tampering = std::function<void(int64_t, Bytes&)>;
class Tampered : public CompressedSampleSource {
 public:
  Tampered(std::unique_ptr<CompressedSampleSource> samples, Tampering tampering)
      : samples_(std::move(samples)), tampering_(std::move(tampering)) {}
  std::optional<CMSampleBuffer> next() override { return samples_->next(); }
  Bytes data(int64_t sampleIndex) override {
    Bytes bytes = samples_->data(sampleIndex);
    tampering_(sampleIndex, bytes);
    return bytes;
  }

 private:
  std::unique_ptr<CompressedSampleSource> samples_;
  Tampering tampering_;
};

/// One track and, after a gap in the numbers, another, as where an edit jumps to samples of another entry.
class Joined : public CompressedSampleSource {
 public:
  Joined(std::unique_ptr<CompressedSampleSource> first, std::unique_ptr<CompressedSampleSource> second, CMTime start)
      : first_(std::move(first)), second_(std::move(second)), start_(start) {}
  std::optional<CMSampleBuffer> next() override {
    if (auto sample = first_->next()) {
      secondFirst_ = sample->sampleIndex + 1000;
      return sample;
    }
    auto sample = second_->next();
    if (sample) {
      sample->sampleIndex += secondFirst_;
      sample->presentationTimeStamp = sample->presentationTimeStamp + start_;
    }
    return sample;
  }
  Bytes data(int64_t i) override { return i < secondFirst_ ? first_->data(i) : second_->data(i - secondFirst_); }

 private:
  std::unique_ptr<CompressedSampleSource> first_;
  std::unique_ptr<CompressedSampleSource> second_;
  CMTime start_;
  int64_t secondFirst_ = 0;
};

/// The audio track of a file.
struct Track {
  PosixFileManager files{"/nonexistent"};
  AVAsset asset;
  AVAssetTrack track;
  explicit Track(const Path& file) : asset(files, file), track(asset.tracks(AVMediaType::audio).at(0)) {}
  std::unique_ptr<CompressedSampleSource> samples() const { return asset.compressedSamples(track); }
};

Decoded decode(const Path& file, const PCMOutputSettings& settings = {}, const Tampering& tampering = {},
               const Path& followedBy = {}) {
  Track track(file);
  std::unique_ptr<CompressedSampleSource> samples = track.samples();
  std::optional<Track> second;
  if (!followedBy.empty()) {
    second.emplace(followedBy);
    samples = std::make_unique<Joined>(std::move(samples), second->samples(), track.track.timeRange.duration);
  }
  if (tampering) samples = std::make_unique<Tampered>(std::move(samples), tampering);
  auto source = makePCMSource(std::move(samples), track.track, settings);
  Decoded result;
  try {
    while (auto buffer = source->next()) {
      EXPECT_EQ(buffer->presentationTimeStamp.timescale, settings.sampleRate);
      EXPECT_EQ(buffer->duration.value, buffer->numSamples);
      EXPECT_EQ(buffer->formatDescription->streamDescription, interleavedPCM16(settings.sampleRate, settings.channels));
      if (settings.keepsTimeline && !result.buffers.empty()) {
        EXPECT_EQ(buffer->presentationTimeStamp.value, result.frames());
      }
      result.buffers.emplace_back(buffer->presentationTimeStamp.value, buffer->numSamples);
      ByteView bytes = buffer->dataBuffer->bytes();
      EXPECT_EQ(bytes.size(), static_cast<size_t>(buffer->numSamples) * settings.channels * 2);
      size_t before = result.samples.size();
      result.samples.resize(before + bytes.size() / 2);
      std::memcpy(result.samples.data() + before, bytes.data(), bytes.size());
    }
  } catch (const Error& error) {
    result.failure = error.description();
    EXPECT_FALSE(source->next());
  }
  return result;
}

Samples decodedByFFmpeg(const Path& file, int rate, int channels) {
  Path raw = madeByFFmpeg(words("-i " + file.string() + " -map 0:a -f s16le -ar " + std::to_string(rate) + " -ac " +
                                std::to_string(channels)),
                          ".raw");
  Samples samples(std::filesystem::file_size(raw) / 2);
  std::ifstream(raw, std::ios::binary)
      .read(reinterpret_cast<char*>(samples.data()), static_cast<std::streamsize>(samples.size() * 2));
  return samples;
}

/// The frames [from, to) of two channels.
Samples part(const Samples& samples, int64_t from, int64_t to) {
  return {samples.begin() + 2 * from, samples.begin() + 2 * to};
}

/// Where two runs of samples differ first; the length of the shorter one where they do not.
size_t firstDifference(const Samples& a, const Samples& b) {
  size_t length = std::min(a.size(), b.size());
  return static_cast<size_t>(
      std::mismatch(a.begin(), a.begin() + static_cast<std::ptrdiff_t>(length), b.begin()).first - a.begin());
}

/// 4 s of a sound that is never the same, so that a shift by one frame shows.
const std::string noise = "-f lavfi -i anoisesrc=d=4:c=pink:a=0.5:seed=7:r=48000,aformat=channel_layouts=";

/// AAC at 24 kHz whose configuration announces SBR, so that it comes out at 48 kHz.
Path announcingSBR(const Path& file) {
  Path result = file;
  result.replace_extension(".sbr.mp4");
  PosixFileManager files("/nonexistent");
  Bytes bytes = readFile(files, file);
  const Bytes plain = {0x13, 0x10, 0x56, 0xE5, 0};
  const Bytes announced = {0x2B, 0x11, 0x88, 0, 0};
  auto config = std::ranges::search(bytes, plain).begin();
  if (config == bytes.end()) throw std::runtime_error("no AudioSpecificConfig of this kind");
  std::ranges::copy(announced, config);
  writeFileAtomically(files, result, bytes);
  return result;
}

/// A click each 0.3 s, 12 s long; the first is at 0.15 s.
Path clicks(int rate, const std::string& more = "") {
  std::string r = std::to_string(rate);
  Path plain = madeByFFmpeg(words("-f lavfi -i aevalsrc=0.9*eq(mod(n-" + std::to_string(rate * 3 / 20) + "\\," +
                                  std::to_string(rate * 3 / 10) + ")\\,0):s=" + r +
                                  ":d=12,aformat=channel_layouts=stereo "
                                  "-c:a aac -b:a 192k"));
  return more.empty() ? plain : madeByFFmpeg(words("-i " + plain.string() + " -c copy " + more));
}

/// Times of the clicks in seconds.
std::vector<double> clickTimes(const Samples& samples, double rate) {
  std::vector<double> times;
  constexpr size_t apart = 2400;
  for (size_t i = 0; i < samples.size() / 2; ++i) {
    if (std::abs(samples[2 * i]) < 3000) continue;
    size_t end = std::min(i + apart, samples.size() / 2);
    size_t peak = i;
    for (size_t j = i; j < end; ++j) {
      if (std::abs(samples[2 * j]) > std::abs(samples[2 * peak])) peak = j;
    }
    times.push_back(static_cast<double>(peak) / rate);
    i = end;
  }
  return times;
}

int largestStep(const Samples& samples) {
  int largest = 0;
  for (size_t i = 2; i < samples.size(); ++i) largest = std::max(largest, std::abs(samples[i] - samples[i - 2]));
  return largest;
}

TEST(PCMDecoding, EqualsFFmpegForEachCodecAndRate) {
  struct {
    const char* encoding;
    const char* layout;
    int64_t frames;  // at the output rate
    const char* ending = ".mp4";
    int rate = 48000;
    int channels = 2;
  } cases[] = {
      {"-c:a aac", "stereo", 192000},
      {"-c:a aac -ar 44100", "stereo", 192000},
      {"-c:a aac -ar 24000", "stereo", 192000},
      {"-c:a aac -ar 24000 ", "stereo", 96000, ".mp4", 24000},
      {"-c:a aac", "stereo", 176400, ".mp4", 44100},
      {"-c:a aac", "mono", 192000},
      {"-c:a aac ", "mono", 192000, ".mp4", 48000, 1},
      {"-c:a aac", "5.1", 192000},
      {"-c:a libmp3lame", "stereo", 192000},
      {"-c:a libopus", "stereo", 192000},
      {"-c:a libopus -b:a 12k -application voip", "mono", 192000},
      {"-c:a flac -strict -2", "stereo", 192000},
      {"-c:a alac", "stereo", 192000},
      {"-c:a ac3", "5.1", 191712},
      {"-c:a eac3", "stereo", 191712},
      {"-c:a pcm_s16le", "stereo", 192000, ".mov"},
      {"-c:a aac -aac_pns 0 -ar 24000", "stereo", 192000, ".sbr.mp4"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.encoding) + " " + c.layout + " to " + std::to_string(c.rate));
    bool announcesSBR = c.ending == std::string(".sbr.mp4");
    Path file = madeByFFmpeg(words(noise + c.layout + " " + c.encoding), announcesSBR ? ".mp4" : c.ending);
    if (announcesSBR) file = announcingSBR(file);
    Samples expected = decodedByFFmpeg(file, c.rate, c.channels);
    for (bool keepsTimeline : {true, false}) {
      Decoded ours = decode(file, {static_cast<double>(c.rate), static_cast<uint32_t>(c.channels), keepsTimeline});
      EXPECT_EQ(ours.failure, "");
      EXPECT_NEAR(static_cast<double>(ours.frames()), static_cast<double>(c.frames), keepsTimeline ? 0 : 2);
      EXPECT_EQ(ours.buffers.front(), (std::pair<int64_t, int64_t>{0, 8192}));
      // Behind the end ffmpeg goes on to the end of the packet, which the last filter taps see.
      size_t tail = 32 * 2;
      EXPECT_GE(firstDifference(ours.samples, expected), ours.samples.size() - tail);
    }
  }
}

TEST(PCMDecoding, ClicksStayInPlace) {
  constexpr double hole = 0.512;
  constexpr double cut = 900.0 / 48000;
  auto shifted = [](double by) { return [by](double t) { return t < 2.58 ? t : t + by; }; };
  struct {
    const char* name;
    int rate;
    const char* filter;
    std::function<double(double)> place;
    double length;
  } cases[] = {
      {"none", 48000, "", [](double t) { return t; }, 12},
      {"none at 44.1 kHz", 44100, "", [](double t) { return t; }, 12},
      {"a hole", 48000, "setts=ts='if(gt(N\\,120)\\,TS+24576\\,TS)'", shifted(hole), 12 + hole},
      {"a hole at 44.1 kHz", 44100, "setts=ts='if(gt(N\\,111)\\,TS+22050\\,TS)'", shifted(0.5), 12.5},
      {"an overlap", 48000, "setts=ts='if(gt(N\\,120)\\,TS-900\\,TS)'", shifted(-cut), 12 - cut},
      {"drift", 48000, "setts=ts='round(TS*1.0005)'", [](double t) { return t * 1.0005; }, 12 * 1.0005},
      {"drift back", 48000, "setts=ts='round(TS*0.9995)'", [](double t) { return t * 0.9995; }, 12 * 0.9995},
      {"drift at 44.1 kHz", 44100, "setts=ts='round(TS*1.0005)'", [](double t) { return t * 1.0005; }, 12 * 1.0005},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Path file = clicks(c.rate, *c.filter == '\0' ? "" : std::string("-bsf:a ") + c.filter);
    Decoded ours = decode(file);
    EXPECT_NEAR(static_cast<double>(ours.frames()) / 48000, c.length, 0.0005);
    auto times = clickTimes(ours.samples, 48000);
    EXPECT_EQ(times.size(), 40u);
    for (size_t i = 0; i < times.size(); ++i) {
      EXPECT_NEAR(times[i], c.place(0.15 + 0.3 * static_cast<double>(i)), 0.001) << "click " << i;
    }
    // Without the timeline nothing is filled or cut, and the buffers' times tell what was there.
    Decoded packets = decode(file, {.keepsTimeline = false});
    EXPECT_NEAR(static_cast<double>(packets.samples.size()) / 2, 12 * 48000, 48);
    EXPECT_NEAR(static_cast<double>(packets.frames()) / 48000, c.length, 0.011);
  }
}

TEST(PCMDecoding, EditsAreExact) {
  TempDirectory directory;
  PosixFileManager files(directory.path());
  Path file = directory / "edited.mp4";
  const std::string plain = noise + "stereo -c:a aac -aac_pns 0 -use_editlist 0";
  for (bool hasSBR : {false, true}) {
    SCOPED_TRACE(hasSBR);
    Path source = madeByFFmpeg(words(plain + (hasSBR ? " -ar 24000" : "")));
    if (hasSBR) source = announcingSBR(source);
    Decoded whole = decode(source);
    auto edit = [&](const std::vector<std::pair<uint32_t, uint32_t>>& edits) {
      BoxEditor editor(readFile(files, source));
      Bytes list = values({0, static_cast<uint32_t>(edits.size())});
      for (auto [milliseconds, start] : edits) {
        Bytes row = values({milliseconds, start == UINT32_MAX || !hasSBR ? start : start / 2, 0x10000});
        list.insert(list.end(), row.begin(), row.end());
      }
      editor.insert("moov/trak", editor.at("moov/trak").end(), box("edts", {box("elst", {list})}));
      writeFileAtomically(files, file, editor.bytes);
    };
    // One that begins and ends within packets; behind an empty one, two that jump ahead and back.
    edit({{1300, 24100}});
    EXPECT_EQ(decode(file).samples, part(whole.samples, 24100, 24100 + 62400));
    edit({{250, UINT32_MAX}, {1000, 100002}, {500, 20480}});
    Samples expected = part(whole.samples, 100002, 148002);
    Samples second = part(whole.samples, 20480, 44480);
    expected.insert(expected.end(), second.begin(), second.end());
    for (bool keepsTimeline : {true, false}) {
      Decoded ours = decode(file, {.keepsTimeline = keepsTimeline});
      EXPECT_EQ(ours.buffers.front().first, 12000);
      EXPECT_EQ(ours.samples, expected);
    }
  }
}

TEST(PCMDecoding, FollowsAFormatThatChanges) {
  Path mono = madeByFFmpeg(words(noise + "mono -c:a aac -ar 44100"));
  Path stereo = madeByFFmpeg(words(noise + "stereo -c:a flac -strict -2"));
  Decoded first = decode(mono);
  Decoded second = decode(stereo);
  Decoded both = decode(mono, {}, {}, stereo);
  ASSERT_EQ(both.frames(), first.frames() + second.frames());
  EXPECT_GE(firstDifference(both.samples, first.samples), first.samples.size() - 64);
  EXPECT_EQ(part(both.samples, first.frames(), both.frames()), second.samples);
}

TEST(PCMDecoding, APacketThatDoesNotDecodeLeavesItsLengthAsSilence) {
  Path file =
      madeByFFmpeg(words("-f lavfi -i sine=f=300:r=48000:d=2,aformat=channel_layouts=stereo -c:a aac -aac_pns 0"));
  Decoded whole = decode(file);
  struct {
    const char* name;
    int64_t first, last;
    Bytes contents;
  } cases[] = {
      {"nothing", 40, 40, {}},
      {"an end and no more", 40, 42, {0xE0}},
      {"the first", 1, 2, {0xE0}},
      {"the last", 91, 93, {0xE0}},
  };
  for (const auto& c : cases) {
    for (bool keepsTimeline : {true, false}) {
      SCOPED_TRACE(std::string(c.name) + (keepsTimeline ? " on the timeline" : ""));
      Decoded ours = decode(file, {.keepsTimeline = keepsTimeline}, [&](int64_t index, Bytes& bytes) {
        if (index >= c.first && index <= c.last) bytes = c.contents;
      });
      ASSERT_EQ(ours.frames(), whole.frames());
      // Packet 0 lies ahead of the edit.
      int64_t from = (c.first - 1) * 1024;
      int64_t to = std::min(c.last * 1024, whole.frames());
      Samples hole = part(ours.samples, from, to);
      EXPECT_TRUE(std::ranges::all_of(hole, [](int16_t s) { return s == 0; }));
      // A fade begins so gently that its first frames may keep their values.
      EXPECT_NEAR(static_cast<double>(firstDifference(ours.samples, whole.samples) / 2),
                  static_cast<double>(std::max<int64_t>(from - 240, 0)), 8);
      // The packet behind the hole overlaps with what is not there.
      int64_t whole2 = std::min(to + 1024, whole.frames());
      EXPECT_EQ(part(ours.samples, whole2, whole.frames()), part(whole.samples, whole2, whole.frames()));
      EXPECT_LE(largestStep(ours.samples), largestStep(whole.samples) * 3 / 2);
    }
  }
}

TEST(PCMDecoding, BreaksOffWhereTheFileDoes) {
  TempDirectory directory;
  PosixFileManager files(directory.path());
  for (const char* encoding : {"-c:a aac", "-c:a aac -ar 44100"}) {
    Path whole = madeByFFmpeg(words(noise + "stereo " + encoding + " -movflags +faststart"));
    Bytes bytes = readFile(files, whole);
    bytes.resize(bytes.size() / 2);
    Path file = directory / "cut.mp4";
    writeFileAtomically(files, file, bytes);
    Decoded ours = decode(file);
    EXPECT_NE(ours.failure, "");
    EXPECT_GT(ours.frames(), 192000 / 3);
    EXPECT_LT(ours.frames(), 192000 * 2 / 3);
    EXPECT_GE(firstDifference(ours.samples, decode(whole).samples), ours.samples.size() - 64);
  }
}

TEST(PCMDecoding, AHoleOfAnHourTakesNoMemory) {
  Track track(clicks(48000, "-bsf:a setts=ts='if(gt(N\\,120)\\,TS+172800000\\,TS)'"));
  auto source = makePCMSource(track.samples(), track.track, {});
  int64_t frames = 0;
  std::set<CMBlockBufferPointer> blocks;
  while (auto buffer = source->next()) {
    EXPECT_LE(buffer->numSamples, 8192);
    frames += buffer->numSamples;
    blocks.insert(buffer->dataBuffer);
  }
  EXPECT_EQ(frames, 12 * 48000 + 172800000);
  EXPECT_LT(blocks.size(), 80u) << "pieces of silence share their memory";
}

TEST(PCMDecoding, TakesOnlyWhatItCanDecode) {
  auto canDecode = [](const char* codec, uint8_t objectTypeIndication, Bytes cookie) {
    CMFormatDescription format;
    format.codec = codec;
    format.objectTypeIndication = objectTypeIndication;
    format.magicCookie = std::move(cookie);
    format.streamDescription = {.mSampleRate = 48000, .mFormatID = kAudioFormatMPEG4AAC, .mChannelsPerFrame = 2};
    return tarn::canDecode(format);
  };
  EXPECT_TRUE(canDecode("mp4a", 0x40, {0x11, 0x90}));
  EXPECT_TRUE(canDecode("mp4a", 0x40, {})) << "without a cookie the sample entry tells";
  EXPECT_FALSE(canDecode("mp4a", 0x20, {0x11, 0x90})) << "MPEG-4 video";
  EXPECT_FALSE(canDecode("drmI", 0, {}));
  EXPECT_FALSE(canDecode("alac", 0, {0}));
  AVAssetTrack track;
  EXPECT_THROW(makePCMSource(nullptr, track, {}), Error);
  auto pcm = std::make_shared<CMFormatDescription>();
  pcm->codec = "sowt";
  pcm->streamDescription = interleavedPCM16(48000, 2);
  track.formatDescriptions = {pcm};
  for (PCMOutputSettings settings : {PCMOutputSettings{.sampleRate = 0}, {.channels = 0}, {.channels = 3}}) {
    EXPECT_THROW(makePCMSource(nullptr, track, settings), Error);
  }
}

}  // namespace
}  // namespace tarn
