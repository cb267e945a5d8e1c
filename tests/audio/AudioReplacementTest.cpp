#include <gtest/gtest.h>

#include <algorithm>

#include "audio/AudioReplacement.h"
#include "platform/ForwardingFileManager.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FlashBeep.h"
#include "support/MediaMaker.h"
#include "support/RunRecorder.h"
#include "support/TempDirectory.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn::test {
namespace {

struct Recorder : RunRecorder {
  std::vector<std::string> warnings;
  void warned(const std::string& words) override { warnings.push_back(words); }
};

class AudioReplacement : public testing::Test {
 protected:
  /// Makes the audio of a copy of `source` anew; true when the new one was taken.
  bool replace(FileManager& files, const Path& source) {
    writeFileAtomically(files_, file_, readFile(files_, source));
    ProcessingRun run = recorder_.runOn(files, file_);
    run.originalSyncInfo = MP4AVSyncFixer::readOriginalSyncInfo(files, file_);
    replaceAudio(run);
    EXPECT_TRUE(run.state.tempFiles.empty());
    EXPECT_EQ(files_.contentsOfDirectory(directory_.path()), std::vector<std::string>{"clip.mp4"});
    return run.audioWasTranscoded;
  }

  TempDirectory directory_, sources_;
  PosixFileManager files_{directory_.path() / "home"};
  const Path file_ = directory_ / "clip.mp4";
  Recorder recorder_;
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
      {"44.1 kHz", made("", "-c:v copy -c:a aac -ar 44100")},
      {"24 kHz", made("", "-c:v copy -c:a aac -ar 24000")},
      {"AC-3", made("", "-c:v copy -c:a ac3")},
      {"late", damagedFlashBeepClip(5, 2, {}, 0.3)},
      {"early", damagedFlashBeepClip(5, 2, {}, -0.3)},
      {"cut", made("-ss 1.3", "-c copy")},
      {"trimmed", edited("trimmed.mp4", {{3000, 1024 + 24000}})},
      {"paused", edited("paused.mp4", {{200, -1}, {1500, 1024}, {500, -1}, {2400, 1024 + 96000}})},
  };
  for (const auto& [name, source] : rows) {
    SCOPED_TRACE(name);
    EXPECT_TRUE(replace(files_, source));
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
  EXPECT_TRUE(recorder_.warnings.empty());
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
  ASSERT_EQ(recorder_.warnings.size(), 1u);
  EXPECT_TRUE(recorder_.warnings[0].starts_with("The sound is left as it is, for new sound would do harm: "));
}

}  // namespace
}  // namespace tarn::test
