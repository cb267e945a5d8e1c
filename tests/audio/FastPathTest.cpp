#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "StreamHash.h"
#include "audio/FastPathAudioBuilder.h"
#include "audio/FastPathAudioRepair.h"
#include "audio/FastPathAudioWriter.h"
#include "audio/MP4AudioTrackReplacer.h"
#include "audio/SilentAACSampleCache.h"
#include "download/DownloadTask.h"
#include "mp4/DataExtensions.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FaultyFileManager.h"
#include "support/LogCapture.h"
#include "support/ManualClock.h"
#include "support/MovieLayout.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;
using Builder = FastPathAudioBuilder;
using Kind = MovieLayout::Piece::Kind;
using testing::HasSubstr;

AudioConfigCheck configOf(int64_t rate) {
  AudioConfigCheck config;
  config.isStable = config.matchesPassthroughTarget = true;
  config.sampleRate = rate;
  config.channelCount = 2;
  config.aacObjectType = 2;
  config.audioTimescale = static_cast<int32_t>(rate);
  config.sampleDelta = 1024;
  return config;
}

AudioAction silence(int64_t ahead, double packets, const std::string& reason = "") {
  return {AudioAction::Kind::insertSilence, ahead, static_cast<int64_t>(packets * 1024), reason};
}

/// What ffmpeg says on its standard output.
std::string ffmpeg(const Path& file, const std::string& options) {
  std::vector<std::string> command = words("ffmpeg -v error -ignore_editlist 1 -i");
  command.push_back(file);
  for (const std::string& word : words(options)) command.push_back(word);
  return runProcess(command).output;
}

std::string rawPackets(const Path& file) {
  return ffmpeg(file, "-map 0:a -c copy -f data -");
}

/// Left and right in turn.
std::vector<int16_t> decoded(const Path& file) {
  const std::string pcm = ffmpeg(file, "-map 0:a -f s16le -");
  std::vector<int16_t> samples(pcm.size() / 2);
  std::memcpy(samples.data(), pcm.data(), samples.size() * 2);
  return samples;
}

int largestStep(const std::vector<int16_t>& samples) {
  int largest = 0;
  for (size_t i = 2; i < samples.size(); ++i) largest = std::max(largest, std::abs(samples[i] - samples[i - 2]));
  return largest;
}

class FastPath : public testing::Test, public ProcessingRunListener {
 protected:
  /// A tone beside pictures, or alone.
  static Path tone(int64_t rate, bool hasPictures, const std::string& seconds = "2") {
    const std::string pictures = hasPictures ? "-f lavfi -i testsrc2=size=192x144:rate=25 " : "";
    return madeByFFmpeg(words(pictures + "-f lavfi -i sine=frequency=500:sample_rate=" + std::to_string(rate) +
                              " -c:v libx264 -c:a aac -ac 2 -b:a 128k -movflags faststart -t " + seconds));
  }

  bool saveRecord(const CancellationToken&, const ProcessingState& record) override {
    // What is new in the record is not on the disk yet.
    for (const Path& file : record.tempFiles) {
      const bool isNew = std::ranges::find(record_.tempFiles, file) == record_.tempFiles.end();
      EXPECT_FALSE(isNew && files_.fileExists(file)) << file;
    }
    record_ = record;
    names_.insert(names_.end(), record.tempFiles.begin(), record.tempFiles.end());
    return true;
  }
  void progressUpdated(const std::shared_ptr<DownloadTask>&, double, const std::string&) override {}

  void repair(FileManager& files, const AudioConfigCheck& config, std::span<const AudioAction> actions = {}) {
    record_ = {};
    record_.fileURL = file_;
    ProcessingRun run(files, clock_, namesInTheMaking_, *this, record_, nullptr, token_);
    performFastPathAudioRepair(run, actions, config);
  }

  Builder::BuildResult build(const Path& file, const AudioConfigCheck& config, std::vector<AudioAction> actions = {}) {
    return Builder(files_, file, config).build(actions);
  }

  std::string buildFailure(const Bytes& file, const AudioConfigCheck& config) {
    writeFileAtomically(files_, file_, file);
    try {
      build(file_, config);
    } catch (const Error& error) {
      return error.description();
    }
    return "";
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_ / "home"};
  Path file_ = directory_ / "clip.mp4";
  ManualClock clock_;
  NamesInTheMaking namesInTheMaking_;
  std::shared_ptr<CancellationToken> token_ = std::make_shared<CancellationToken>();
  ProcessingState record_;
  std::vector<Path> names_;  ///< of all temp files that were recorded
  LogCapture log_;
};

TEST_F(FastPath, KeepsPicturesAndPacketsAndPlays) {
  for (int64_t rate : {24000, 44100, 48000}) {
    const Path source = tone(rate, true);
    std::filesystem::copy_file(source, file_, std::filesystem::copy_options::overwrite_existing);
    repair(files_, configOf(rate));
    EXPECT_EQ(streamHash(file_, "v:0"), streamHash(source, "v:0")) << rate;
    EXPECT_EQ(rawPackets(file_), rawPackets(source)) << rate;
    EXPECT_EQ(decoded(file_), decoded(source)) << rate;
    EXPECT_EQ(decoderComplaints(file_), "") << rate;
    EXPECT_THAT(names_.at(0).filename().string(), testing::MatchesRegex("[0-9A-F-]{36}_fastpath.mp4"));
    EXPECT_THAT(names_.at(2).filename().string(), testing::MatchesRegex("[0-9A-F-]{36}_fastpath_audio.m4a"));
    EXPECT_TRUE(record_.tempFiles.empty());
    EXPECT_EQ(files_.contentsOfDirectory(directory_.path()), std::vector<std::string>{"clip.mp4"});
  }
  EXPECT_TRUE(log_.contains("FastPath: Audio repair completed successfully"));
}

TEST_F(FastPath, LeavesTheSourceWholeAndNoTempFileWhateverFails) {
  const Bytes source = readFile(files_, tone(48000, true));
  FaultyFileManager faulty(files_);
  uint64_t call = 0;
  do {
    const bool isKill = call++ % 2 == 0;  // nothing works from there on
    writeFileAtomically(files_, file_, source);
    faulty.arm({.call = (call + 1) / 2, .errnum = ENOSPC, .lasting = isKill});
    bool failed = false;
    try {
      repair(faulty, configOf(48000));
    } catch (const Error&) {
      failed = true;
    }
    EXPECT_EQ(readFile(files_, file_) == source, failed) << call;
    // What could not be deleted is in the record.
    for (const std::string& name : files_.contentsOfDirectory(directory_.path())) {
      const bool isListed = std::ranges::find(record_.tempFiles, directory_ / name) != record_.tempFiles.end();
      EXPECT_TRUE(name == "clip.mp4" || isListed) << name << " after " << call;
      if (name != "clip.mp4") files_.removeItem(directory_ / name);
    }
  } while (faulty.fired());
  EXPECT_GT(call, 40u);
}

TEST_F(FastPath, InsertsWholeSilentPacketsAndCarriesTheRest) {
  const Path source = tone(48000, false, "0.08");  // five packets and the encoder's first
  const auto plain = build(source, configOf(48000));
  EXPECT_EQ(textOf(plain.audioData), rawPackets(source));
  ASSERT_EQ(plain.sampleCount, 5);
  const Bytes silent = SilentAACSampleCache::shared().getSilentFrame(48000);
  AudioAction drop = silence(1, 9);
  drop.kind = AudioAction::Kind::dropSamples;
  struct Row {
    std::vector<AudioAction> actions;
    std::string packets;  ///< S is a silent one
  };
  const Row rows[] = {
      {{}, "....."},
      {{silence(1, 1.5), silence(3, 0.5)}, ".S..S.."},
      {{silence(3, 0.5), silence(1, 1.5)}, ".S..S.."},
      {{silence(2, 0.5), silence(2, 0.5)}, "..S..."},
      {{silence(5, 1), silence(12, 1)}, ".....SS"},
      {{silence(0, 1.75), silence(5, 0.25), silence(6, 1.9)}, "S.....SS"},
      {{drop, silence(-1, 3)}, "....."},
  };
  for (const Row& row : rows) {
    const auto result = build(source, configOf(48000), row.actions);
    Bytes expected;
    std::vector<uint32_t> sizes;
    size_t next = 0, at = 0;
    for (char packet : row.packets) {
      const size_t size = packet == 'S' ? silent.size() : plain.sampleSizes.at(next++);
      const auto begin = packet == 'S' ? silent.begin() : plain.audioData.begin() + static_cast<ptrdiff_t>(at);
      expected.insert(expected.end(), begin, begin + static_cast<ptrdiff_t>(size));
      at += packet == 'S' ? 0 : size;
      sizes.push_back(static_cast<uint32_t>(size));
    }
    EXPECT_EQ(result.audioData, expected) << row.packets;
    EXPECT_EQ(result.sampleSizes, sizes) << row.packets;
    EXPECT_EQ(result.silentSamplesInserted, std::ranges::count(row.packets, 'S'));
    EXPECT_EQ(result.durationTicks, static_cast<int64_t>(row.packets.size() * 1024));
    EXPECT_NO_THROW(Builder::validate(result));
  }
  const auto map =
      Builder::prepareActionMap(std::vector{silence(2, 1, "a"), silence(2, 2, "b"), silence(9, 1)}, 5, 1024);
  EXPECT_EQ(map.insertions.at(2), silence(2, 3, "a; b"));
  EXPECT_EQ(map.silentSampleCount, 4);
  for (int64_t ticks : {INT64_MAX, int64_t{1024} << 30}) {
    const std::vector<AudioAction> endless(2, {AudioAction::Kind::insertSilence, 1, ticks, ""});
    EXPECT_THROW(build(source, configOf(48000), endless), FastPathError);
  }
}

TEST_F(FastPath, SilentPacketsDecodeToSilenceAndJoinWithoutAClick) {
  for (int64_t rate : {24000, 44100, 48000}) {
    const Path source = tone(rate, false);
    writeFastPathAudioToM4A(files_, build(source, configOf(rate), {silence(20, 10)}), file_);
    EXPECT_EQ(decoderComplaints(file_), "") << rate;
    const auto before = decoded(source), after = decoded(file_);
    ASSERT_EQ(after.size(), before.size() + 10 * 2048) << rate;
    // A packet overlaps the next by half, so the first silent one carries the end of the tone.
    const auto begin = after.begin() + 21 * 2048, end = after.begin() + 30 * 2048;
    EXPECT_TRUE(std::all_of(begin, end, [](int16_t sample) { return sample == 0; })) << rate;
    EXPECT_TRUE(std::equal(after.begin(), after.begin() + 20 * 2048, before.begin())) << rate;
    EXPECT_LE(largestStep(after), largestStep(before) * 5 / 4) << rate;
    const auto line = fmt::format("SilentAACSampleCache: Generated {}Hz silent frame", rate);
    SilentAACSampleCache::shared().getSilentFrame(rate);
    EXPECT_LE(std::ranges::count_if(log_.lines(), [&](auto& said) { return said.starts_with(line); }), 1);
  }
  EXPECT_THROW(SilentAACSampleCache::shared().getSilentFrame(22050), SilentFrameError);
}

TEST_F(FastPath, RefusesASourceThatItCannotRead) {
  const AudioConfigCheck config = configOf(48000);
  MovieLayout layout(readFile(files_, tone(48000, false)));
  Bytes whole = layout.build({{Kind::raw, layout.ftyp}, {Kind::moov}, {Kind::mdat}});
  const BoxEditor editor(whole);
  const auto stsz = editor.at("moov/trak/mdia/minf/stbl/stsz");
  const uint32_t last = editor.field(stsz.offset + 16) - 1;

  EXPECT_EQ(buildFailure(whole, config), "");
  Bytes cut(whole.begin(), whole.end() - 1);
  const uint32_t lastSize = editor.field(stsz.end() - 4);
  EXPECT_EQ(buildFailure(cut, config),
            fmt::format("Failed to read sample {}: Could not read {} bytes", last, lastSize));

  const Bytes soundWithoutTable = box("trak", {box("mdia", {box("minf", {fullBox("smhd", {0})})})});
  BoxEditor second(whole);
  second.rename("ftyp", "free");
  EXPECT_EQ(buildFailure(joined({box("moov", {soundWithoutTable})}), config), "No audio track found in source file");
  EXPECT_EQ(buildFailure(box("mdat"), config), "Cannot parse moov box");
  EXPECT_EQ(buildFailure(whole, configOf(22050)), "Failed to generate silent AAC frame");
  Bytes swollen = whole;
  writeUInt32(swollen, 0x7FFFFFFF, stsz.offset + 20);
  EXPECT_EQ(buildFailure(swollen, config), "Validation failed: The samples are larger than the file");

  layout.moov = second.get("moov");
  BoxEditor ahead(layout.moov);
  ahead.insert("moov", 8, soundWithoutTable);
  layout.moov = ahead.bytes;
  EXPECT_EQ(buildFailure(layout.build({{Kind::moov}, {Kind::mdat}}), config), "");

  // A packet's length that is none would make the sound run away from the pictures.
  for (auto [timescale, delta, isGood] : {std::tuple{48000, 1025, false},
                                          {48000, 960, false},
                                          {1000, 21, false},
                                          {90000, 1920, true},
                                          {600000, 12801, true}}) {
    AudioConfigCheck odd = config;
    odd.audioTimescale = timescale;
    odd.sampleDelta = delta;
    EXPECT_EQ(buildFailure(whole, odd).empty(), isGood) << delta;
  }
}

TEST_F(FastPath, ValidatesInOrder) {
  auto verdict = [](size_t bytes, std::vector<uint32_t> sizes, int64_t count, int64_t ticks) -> std::string {
    Builder::BuildResult result;
    result.audioData = Bytes(bytes);
    result.sampleSizes = std::move(sizes);
    result.sampleCount = count;
    result.durationTicks = ticks;
    try {
      Builder::validate(result);
    } catch (const FastPathError& error) {
      return error.description().substr(19);
    }
    return "";
  };
  EXPECT_EQ(verdict(20001, {10000, 10001}, 2, 2048), "");
  EXPECT_EQ(verdict(9, {0, 8}, 3, 0), "Sample count mismatch: 3 != 2");
  EXPECT_EQ(verdict(9, {0, 8}, 2, 0), "Data size mismatch: 9 != 8");
  EXPECT_EQ(verdict(8, {0, 8}, 2, 0), "Duration must be positive");
  EXPECT_EQ(verdict(8, {8, 0}, 2, 1), "Sample 1 has zero size");
  EXPECT_EQ(std::ranges::count_if(log_.lines(), [](auto& line) { return line.find("large") != line.npos; }), 1);
}

TEST_F(FastPath, WritesTheM4AByteForByte) {
  Builder::BuildResult result;
  result.audioData = Bytes(1000, 7);
  result.sampleSizes.assign(10, 100);
  result.sampleCount = 10;
  result.timescale = 48000;
  result.sampleDelta = 1024;
  result.durationTicks = 10240;
  result.sampleRate = 48000;
  const Bytes matrix = values({0x10000, 0, 0, 0, 0x10000, 0, 0, 0, 0x40000000});
  const Bytes descriptors{3,    25, 0, 0, 0,    4, 17, 0x40, 0x15, 0,    0, 0, 0, 1,
                          0xF4, 0,  0, 1, 0xF4, 0, 5,  2,    0x11, 0x90, 6, 1, 2};
  const Bytes esds = box("esds", {values({0}), descriptors});
  const Bytes mp4a = box("mp4a", {values({0, 1, 0, 0, 0x00020010, 0, 0xBB800000}), esds});
  EXPECT_EQ(mp4a.size(), 75u);
  auto moov = [&](uint32_t firstOffset) {
    Bytes offsets = values({0, 10});
    for (uint32_t i = 0; i < 10; ++i) ByteWriter(offsets).uint32(firstOffset + 100 * i);
    const Bytes stbl = box("stbl", {sampleDescriptionBox({mp4a}), fullBox("stts", {1, 10, 1024}),
                                    fullBox("stsc", {1, 1, 1, 1}), fullBox("stsz", {100, 10}), box("stco", {offsets})});
    const Bytes dinf = box("dinf", {box("dref", {values({0, 1}), box("url ", {values({1})})})});
    const Bytes hdlr =
        box("hdlr", {values({0, 0, 0x736F756E, 0, 0, 0}), values({0x536F756E, 0x6448616E, 0x646C6572}), Bytes(1)});
    const Bytes mdia = box("mdia", {fullBox("mdhd", {0, 0, 48000, 10240, 0x55C40000}), hdlr,
                                    box("minf", {fullBox("smhd", {0}), dinf, stbl})});
    const Bytes tkhd = box("tkhd", {values({3, 0, 0, 1, 0, 10240, 0, 0, 0, 0x01000000}), matrix, values({0, 0})});
    const Bytes mvhd = box(
        "mvhd", {values({0, 0, 0, 48000, 10240, 0x10000, 0x01000000, 0, 0}), matrix, values({0, 0, 0, 0, 0, 0, 2})});
    return box("moov", {mvhd, box("trak", {tkhd, mdia})});
  };
  const Bytes ftyp = box("ftyp", {values({0x4D344120, 0, 0x4D344120, 0x69736F6D, 0x6D703432})});
  const auto firstOffset = static_cast<uint32_t>(ftyp.size() + moov(0).size() + 8);
  writeFastPathAudioToM4A(files_, result, file_);
  EXPECT_EQ(readFile(files_, file_), joined({ftyp, moov(firstOffset), box("mdat", {result.audioData})}));

  for (auto damage : {+[](Builder::BuildResult& r) { r.timescale = -1; },
                      +[](Builder::BuildResult& r) { r.durationTicks = int64_t{1} << 32; },
                      +[](Builder::BuildResult& r) { r.durationTicks = -1; },
                      +[](Builder::BuildResult& r) { r.sampleDelta = int64_t{1} << 32; }}) {
    auto odd = result;
    damage(odd);
    EXPECT_THROW(writeFastPathAudioToM4A(files_, odd, file_), Error);
  }
}

}  // namespace
}  // namespace tarn
