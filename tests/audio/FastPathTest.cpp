#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "audio/FastPathAudioBuilder.h"
#include "audio/SilentAACSampleCache.h"
#include "audio/fastpath/FastPathAudioRepair.h"
#include "mp4/DataExtensions.h"
#include "platform/host/PosixFileManager.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FailureOf.h"
#include "support/FaultyFileManager.h"
#include "support/FlashBeep.h"
#include "support/LogCapture.h"
#include "support/PCM.h"
#include "support/RunRecorder.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using Builder = FastPathAudioBuilder;
using Kind = MovieLayout::Piece::Kind;

class FastPath : public testing::Test {
 protected:
  static AudioConfigCheck configOf(int64_t rate) {
    return {.sampleRate = rate, .reason = {}, .audioTimescale = static_cast<int32_t>(rate), .sampleDelta = 1024};
  }
  static AudioAction silence(int64_t before, double packets) {
    return {AudioAction::Kind::insertSilence, before, static_cast<int64_t>(packets * 1024), ""};
  }
  static Samples decoded(const Path& file) { return decodedByFFmpeg(file, "", "-ignore_editlist 1"); }

  /// A tone beside pictures, or alone.
  static Path tone(int64_t rate, bool hasPictures, const std::string& seconds = "2") {
    const std::string pictures = hasPictures ? "-f lavfi -i testsrc2=size=192x144:rate=25 " : "";
    return madeByFFmpeg(words(pictures + "-f lavfi -i sine=frequency=500:sample_rate=" + std::to_string(rate) +
                              " -c:v libx264 -c:a aac -ac 2 -b:a 128k -movflags faststart -t " + seconds));
  }

  void repair(FileManager& files, int64_t rate, const std::vector<AudioAction>& actions = {}) {
    recorder_.onSave = [&](const ProcessingState& record) {
      for (const Path& file : record.tempFiles) {
        if (std::ranges::count(recorder_.record.tempFiles, file) > 0) continue;
        EXPECT_FALSE(files_.fileExists(file)) << "what is new in the record is not on the disk yet";
        names_.push_back(file.filename().string());
      }
    };
    ProcessingRun run = recorder_.runOn(files, file_);
    performFastPathAudioRepair(run, actions, configOf(rate));
  }

  Builder::BuildResult build(const Path& file, const std::vector<AudioAction>& actions = {}) {
    return Builder(files_, file, configOf(48000)).build(actions);
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_ / "home"};
  Path file_ = directory_ / "clip.mp4";
  RunRecorder recorder_;
  std::vector<std::string> names_;  ///< of all temp files that were recorded
  LogCapture log_;
};

TEST_F(FastPath, KeepsPicturesAndPacketsAndJoinsSilenceWithoutAClick) {
  for (int64_t rate : {24000, 44100, 48000}) {
    SCOPED_TRACE(rate);
    const Path source = tone(rate, true);
    std::filesystem::copy_file(source, file_, std::filesystem::copy_options::overwrite_existing);
    repair(files_, rate);
    EXPECT_EQ(mediaHashes(file_), mediaHashes(source));
    EXPECT_EQ(names_.at(0).substr(36), "_fastpath.mp4");
    EXPECT_EQ(names_.at(1).substr(36), "_fastpath_audio.m4a");
    EXPECT_TRUE(recorder_.record.tempFiles.empty());
    EXPECT_EQ(files_.contentsOfDirectory(directory_.path()), std::vector<std::string>{"clip.mp4"});

    repair(files_, rate, {silence(20, 10)});
    EXPECT_EQ(decoderComplaints(file_), "");
    const auto before = decoded(source), after = decoded(file_);
    ASSERT_EQ(after.size(), before.size() + 10 * 2048);
    // A packet overlaps the next by half, so the first silent one carries the end of the tone.
    EXPECT_EQ(Samples(after.begin() + 21 * 2048, after.begin() + 30 * 2048), Samples(9 * 2048));
    EXPECT_TRUE(std::equal(after.begin(), after.begin() + 20 * 2048, before.begin()));
    EXPECT_LE(largestStep(after, 2), largestStep(before, 2) * 5 / 4);
    EXPECT_EQ(SilentAACSampleCache::shared().getSilentFrame(rate).size(), 6u);
  }
  EXPECT_THROW(SilentAACSampleCache::shared().getSilentFrame(22050), SilentFrameError);
}

TEST_F(FastPath, LeavesTheSourceWholeAndNoTempFileWhateverFails) {
  const Bytes source = readFile(files_, tone(48000, true));
  InMemoryFileManager disk;
  FaultyFileManager faulty(disk);
  disk.createDirectory("/home");
  file_ = "/home/clip.mp4";
  uint64_t call = 0;
  do {
    const bool isKill = call++ % 2 == 0;  // nothing works from there on
    writeFileAtomically(disk, file_, source);
    faulty.arm({.call = (call + 1) / 2, .errnum = ENOSPC, .lasting = isKill});
    const bool failed = !failureOf([&] { repair(faulty, 48000); }).empty();
    EXPECT_EQ(readFile(disk, file_) == source, failed) << call;
    // What could not be deleted is in the record.
    for (const std::string& name : disk.contentsOfDirectory("/home")) {
      if (name == "clip.mp4") continue;
      EXPECT_EQ(std::ranges::count(recorder_.record.tempFiles, file_.parent_path() / name), 1)
          << name << " after " << call;
      disk.removeItem(file_.parent_path() / name);
    }
  } while (faulty.fired());
  EXPECT_GT(call, 40u);
}

TEST_F(FastPath, InsertsWholeSilentPacketsAndCarriesTheRest) {
  const Path source = tone(48000, false, "0.08");  // five packets and the encoder's first
  const auto plain = build(source);
  ASSERT_EQ(plain.sampleCount, 5);
  const std::string silent(textOf(SilentAACSampleCache::shared().getSilentFrame(48000)));
  AudioAction drop = silence(1, 9);
  drop.kind = AudioAction::Kind::dropSamples;
  const std::pair<std::vector<AudioAction>, std::string> rows[] = {
      // S is a silent packet.
      {{}, "....."},
      {{silence(1, 1.5), silence(3, 0.5)}, ".S..S.."},
      {{silence(3, 0.5), silence(1, 1.5)}, ".S..S.."},
      {{silence(2, 0.5), silence(2, 0.5)}, "..S..."},
      {{silence(5, 1), silence(12, 1)}, ".....SS"},
      {{silence(0, 1.75), silence(5, 0.25), silence(6, 1.9)}, "S.....SS"},
      {{drop, silence(-1, 3)}, "....."},
  };
  for (const auto& [actions, packets] : rows) {
    const auto result = build(source, actions);
    EXPECT_EQ(result.silentSamplesInserted, std::ranges::count(packets, 'S'));
    EXPECT_EQ(result.durationTicks, static_cast<int64_t>(packets.size() * 1024));
    EXPECT_NO_THROW(Builder::validate(result));
    std::string pattern, own;
    std::string_view left = textOf(result.audioData);
    for (uint32_t size : result.sampleSizes) {
      const std::string packet(left.substr(0, size));
      left.remove_prefix(packet.size());
      pattern += packet == silent ? 'S' : '.';
      if (packet != silent) own += packet;
    }
    EXPECT_EQ(pattern, packets);
    EXPECT_EQ(own, textOf(plain.audioData)) << packets;
  }
}

TEST_F(FastPath, RefusesASourceThatItCannotRead) {
  MovieLayout layout(readFile(files_, tone(48000, false)));
  const Bytes whole = layout.build({{Kind::raw, layout.ftyp}, {Kind::moov}, {Kind::mdat}});
  const BoxEditor editor(whole);
  const auto stsz = editor.at("moov/trak/mdia/minf/stbl/stsz");
  const Bytes cut(whole.begin(), whole.end() - 1);
  Bytes swollen = whole;
  writeUInt32(swollen, 0x7FFFFFFF, stsz.offset + 20);
  const Bytes soundWithoutTable = box("trak", {box("mdia", {box("minf", {fullBox("smhd", {0})})})});
  BoxEditor ahead(layout.moov);
  ahead.insert("moov", 8, soundWithoutTable);
  layout.moov = ahead.bytes;
  const std::pair<Bytes, std::string> rows[] = {
      {whole, ""},
      {cut, fmt::format("Failed to read sample {}: Could not read {} bytes", editor.field(stsz.offset + 16) - 1,
                        editor.field(stsz.end() - 4))},
      {box("moov", {soundWithoutTable}), "No audio track found in source file"},
      {swollen, "Validation failed: The samples are larger than the file"},
  };
  for (const auto& [file, why] : rows) {
    writeFileAtomically(files_, file_, file);
    EXPECT_EQ(failureOf([&] { build(file_); }), why);
  }
}

}  // namespace
}  // namespace tarn::test
