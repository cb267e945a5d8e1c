#include <gtest/gtest.h>

#include <algorithm>

#include "audio/AudioStep.h"
#include "audio/SilentAACSampleCache.h"
#include "audio/replace/AudioReplacement.h"
#include "platform/ForwardingFileManager.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FailureOf.h"
#include "support/FlashBeep.h"
#include "support/MediaMaker.h"
#include "support/RunRecorder.h"
#include "support/SyntheticMovie.h"
#include "support/TempDirectory.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn::test {
namespace {

struct Recorder : RunRecorder {
  std::string progress;  ///< stages that were told
  std::function<void(const std::string&)> onProgress;
  void progressUpdated(int64_t /*id*/, double, const std::string& stage) override {
    progress += stage + " ";
    if (onProgress) onProgress(stage);
  }
};

class AudioReplacement : public testing::Test {
 protected:
  /// Makes the audio of a copy of `source` anew; true when the new one was taken.
  bool replace(FileManager& files, const Path& source) {
    writeFileAtomically(files_, file_, readFile(files_, source));
    ProcessingRun run = recorder_.runOn(files, file_);
    run.originalSyncInfo = MP4AVSyncFixer::readOriginalSyncInfo(files, file_);
    replaceAudio(run, "mended", 0);
    warnings_ = run.outcome.leftAlone;
    EXPECT_TRUE(run.state.tempFiles.empty());
    EXPECT_EQ(files_.contentsOfDirectory(directory_.path()), std::vector<std::string>{"clip.mp4"});
    return run.audioWasTranscoded;
  }

  TempDirectory directory_, sources_;
  PosixFileManager files_{directory_.path() / "home"};
  const Path file_ = directory_ / "clip.mp4";
  Recorder recorder_;
  std::vector<std::string> warnings_;  ///< of the last run
};

TEST_F(AudioReplacement, PutsEachBeepBackWhereItWas) {
  const Path clip = damagedFlashBeepClip(5, 2, {});
  const auto made = [&](const std::string& inputOptions, const std::string& options) {
    return madeByFFmpeg(words(inputOptions + " -i " + clip.string() + " " + options));
  };
  // The clip with these entries in the list of its audio: duration in ms, media time at 48 kHz.
  const auto edited = [&](const std::string& name, std::initializer_list<std::pair<uint32_t, int32_t>> entries) {
    Bytes list = values({0, static_cast<uint32_t>(entries.size())});
    for (const auto& [duration, mediaTime] : entries) {
      list = joined({list, values({duration, static_cast<uint32_t>(mediaTime), 0x10000})});
    }
    BoxEditor editor(readFile(files_, clip));
    editor.replace(editor.all("moov/trak/edts").at(1), box("edts", {box("elst", {list})}));
    const Path path = sources_ / name;
    writeFileAtomically(files_, path, editor.bytes);
    return path;
  };
  const std::pair<std::string, Path> rows[] = {
      {"priming", clip},
      {"24 kHz", made("", "-c:v copy -c:a aac -ar 24000")},
      {"early", damagedFlashBeepClip(5, 2, {}, -0.3)},
      {"cut", made("-ss 1.3", "-c copy")},
      {"paused", edited("paused.mp4", {{200, -1}, {1500, 1024}, {500, -1}, {2400, 1024 + 96000}})},
  };
  for (const auto& [name, source] : rows) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(replace(files_, source));
    EXPECT_TRUE(warnings_.empty());
    EXPECT_EQ(decoderComplaints(file_), "");
    const auto before = beats(source), after = beats(file_);
    EXPECT_GE(before.size(), 3u);
    ASSERT_EQ(before.size(), after.size());
    for (size_t i = 0; i < before.size(); ++i) {
      // A beep at the very start of the media has no packet ahead of it, from which the encoder would begin.
      if (before[i].flash < 0.5) continue;
      EXPECT_NEAR(after[i].beepAfter, before[i].beepAfter, 0.0001) << before[i].flash;
    }
  }
}

/// Gives out another file where the new audio is read.
class WrongAudio : public ForwardingFileManager {
 public:
  WrongAudio(FileManager& files, Path audio) : ForwardingFileManager(files), audio_(std::move(audio)) {}
  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    const bool isNewAudio = mode == OpenMode::reading && path.extension() == ".m4a";
    return ForwardingFileManager::open(isNewAudio ? audio_ : path, mode);
  }

 private:
  Path audio_;
};

TEST_F(AudioReplacement, KeepsTheFileWhereTheNewAudioWouldDoHarm) {
  const Path clip = flashBeepClip(0);
  WrongAudio files(files_, madeByFFmpeg(words("-f lavfi -i sine -t 1 -c:a aac"), ".m4a"));
  recorder_.onSave = [&](const ProcessingState& record) {
    if (record.stage != ProcessingStage::audioReplacing) return;
    // As long as it is there, nobody takes the swap for done.
    const auto isFixed = [](const Path& file) { return file.native().ends_with("_fixed.mp4"); };
    const auto fixed = std::ranges::find_if(record.tempFiles, isFixed);
    ASSERT_NE(fixed, record.tempFiles.end());
    EXPECT_TRUE(files_.fileExists(*fixed));
  };
  EXPECT_FALSE(replace(files, clip));
  EXPECT_EQ(readFile(files_, file_), readFile(files_, clip));
  EXPECT_TRUE(recorder_.stages.ends_with("audioReplacing audioReplaced audioReplaced ")) << recorder_.stages;
  EXPECT_TRUE(recorder_.progress.ends_with("Transcoding complete ")) << recorder_.progress;
  ASSERT_EQ(warnings_.size(), 1u);
  EXPECT_TRUE(warnings_[0].starts_with("The sound is left as it is, for new sound would do harm: "));
}

TEST_F(AudioReplacement, EndsInTheMiddleOfItsWorkWhenItIsCancelled) {
  recorder_.onProgress = [&](const std::string&) { recorder_.token->cancel(); };
  const Path clip = flashBeepClip(0);
  writeFileAtomically(files_, file_, readFile(files_, clip));
  ProcessingRun run = recorder_.runOn(files_, file_);
  EXPECT_THROW(replaceAudio(run, "mended", 0), CancellationError);
  EXPECT_EQ(recorder_.progress.find("complete"), std::string::npos) << "it went on to its end";
  EXPECT_EQ(readFile(files_, file_), readFile(files_, clip));
}

/// Whole packets of silence for so many seconds, and a gap in their middle.
Bytes movieWithGap(uint32_t seconds, uint32_t gapInTicks) {
  const uint32_t half = seconds * 48000 / 1024 / 2;
  const SyntheticTrack pictures{
      .handler = "vide", .timescale = 90000, .stts = {{250, 3600}}, .samples = 250, .mediaDuration = 900000};
  SyntheticTrack audio{.stts = {{half, 1024}, {1, 1024 + gapInTicks}, {half, 1024}}, .samples = 2 * half + 1};
  audio.trackID = 2;
  audio.mediaDuration = uint64_t{audio.samples} * 1024 + gapInTicks;
  audio.sample = SilentAACSampleCache::shared().getSilentFrame(48000);
  return syntheticMovie({pictures, audio});
}

TEST_F(AudioReplacement, IsNotTriedIfTheDriftIsBeyondRepair) {
  const Bytes movie = movieWithGap(10, 61 * 48000);
  writeFileAtomically(files_, file_, movie);
  ProcessingRun run = recorder_.runOn(files_, file_);
  AudioStep().run(run);
  EXPECT_EQ(readFile(files_, file_), movie);
  EXPECT_EQ(recorder_.stages, "audioReplaced ");
  ASSERT_EQ(run.outcome.leftAlone.size(), 1u);
  EXPECT_TRUE(run.outcome.leftAlone[0].starts_with("The sound stays as it is: its drift of 61.0 s"));
}

/// Fails where the packets that were put together are stored.
class WithoutFastPath : public ForwardingFileManager {
 public:
  using ForwardingFileManager::ForwardingFileManager;
  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    if (path.native().ends_with("_fastpath_audio.m4a")) throw Error("Test", -1, "the disk is full");
    return ForwardingFileManager::open(path, mode);
  }
};

TEST_F(AudioReplacement, TakesTheFastPathsPlaceWhenThatFails) {
  const Bytes movie = movieWithGap(420, 3200);
  for (const bool fails : {false, true}) {
    writeFileAtomically(files_, file_, movie);
    recorder_.onProgress = [&](const std::string&) { recorder_.token->cancel(); };  // that it begins is enough
    WithoutFastPath failing(files_);
    ProcessingRun run = recorder_.runOn(fails ? static_cast<FileManager&>(failing) : files_, file_);
    EXPECT_EQ(failureOf([&] { AudioStep().run(run); }).empty(), !fails);
    EXPECT_EQ(recorder_.progress.starts_with("Transcoding "), fails);
    EXPECT_EQ(run.audioWasTranscoded, !fails);
    EXPECT_EQ(readFile(files_, file_) == movie, fails);
  }
}

}  // namespace
}  // namespace tarn::test
