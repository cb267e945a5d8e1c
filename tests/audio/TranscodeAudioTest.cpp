#include <gtest/gtest.h>

#include <cerrno>

#include "audio/AudioTranscoder.h"
#include "audio/transcode/TranscodeOutput.h"
#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxEditor.h"
#include "support/Eventually.h"
#include "support/FailureOf.h"
#include "support/FaultyFileManager.h"
#include "support/FlashBeep.h"
#include "support/LogCapture.h"
#include "support/PCM.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

constexpr double packet = 1024.0 / 48000;
/// The end of the last picture of a clip of 6 s, as it stands in the file, which another one follows in time.
constexpr double pictures = 5.96;

struct Source {
  Path file;
  double emptyEditDelay = 0;
  std::optional<double> mediaDuration = {};
  double syncOffset = 0;
  std::optional<double> shownMediaEnd = {};
};

class TranscodeAudio : public testing::Test {
 protected:
  void transcode(const Source& source, const CancellationToken* token = nullptr,
                 const AudioTranscoder::ProgressCallback& progress = {}) {
    AudioTranscoder::transcodeAudio(files_, source.file, output_, std::nullopt, source.emptyEditDelay,
                                    source.mediaDuration, source.syncOffset, {}, token, progress, source.shownMediaEnd);
  }
  /// Its first words; there is no file then.
  std::string failure(const Path& file, const CancellationToken* token = nullptr,
                      const AudioTranscoder::ProgressCallback& progress = {}) {
    const std::string description = failureOf([&] { transcode({file}, token, progress); });
    EXPECT_EQ(files_.fileExists(output_), description.empty()) << description;
    return description.substr(0, description.find(':'));
  }
  Path damaged(const Bytes& bytes) {
    writeFileAtomically(disk_, directory_ / "damaged.mp4", bytes);
    return directory_ / "damaged.mp4";
  }

  TempDirectory directory_;
  PosixFileManager disk_{directory_.path()};
  FaultyFileManager files_{disk_};
  Path output_ = directory_ / "out.m4a";
};

TEST_F(TranscodeAudio, PutsBeepsWhereTheRulesSay) {
  const Path clean = damagedFlashBeepClip(6, 2, {});
  const Path late = damagedFlashBeepClip(6, 2, {}, 0.3);
  // No picture, and the packets from number 134 on moved, that is from sample 136192 on, one packet being hidden.
  // That sample is in the buffer that begins at 2.73 s.
  const auto moved = [](const std::string& ticks, const std::string& more = "") {
    return damagedFlashBeepClip(6, 1, words("-vn -bsf:a setts=ts='if(gte(N,134),TS" + ticks + ",TS)' " + more));
  };
  Bytes corrupt = readFile(disk_, clean);
  const auto mdat = BoxEditor(corrupt).at("mdat");
  std::fill_n(corrupt.begin() + static_cast<ptrdiff_t>(mdat.offset + mdat.size / 2), 1500, uint8_t{0xFF});
  const struct {
    const char* what;
    Source source;
    std::vector<double> beeps;
    double seconds;
  } cases[] = {
      {"whole", {clean}, {1, 2, 3, 4, 5}, pictures},
      {"a hole", {damagedFlashBeepClip(6, 2, {"-bsf:a", "noise=drop='between(n,120,160)'"})}, {1, 2, 4, 5}, pictures},
      {"a corrupt beep", {damaged(corrupt)}, {1, 2, 4, 5}, pictures},
      {"a late start", {late}, {1.3, 2.3, 3.3, 4.3, 5.3}, pictures},
      // Its priming is not hidden by an edit.
      {"kept by the edit list", {late, 0.3, {}, 0.3}, {1.021, 2.021, 3.021, 4.021, 5.021}, pictures - 0.3},
      {"a gap", {moved("+48000")}, {1, 2, 4, 5, 6}, 7},
      // The pad makes up for what is cut.
      {"an overlap", {moved("-480")}, {1, 2, 2.99, 3.99, 4.99}, 6},
      // The media with its priming, whatever the edit list and the pictures say.
      {"all media of a late start", {late, 0.3, 5.7, 0.3, 9}, {1.021, 2.021, 3.021, 4.021, 5.021}, 6.021},
      {"as much as is shown", {late, 0.3, 3.3, 0.3, 3.3}, {1.021, 2.021, 3.021}, 3.33},
      {"silence after the last packet",
       {moved("", "-t 3.01 -bsf:a setts=duration='if(gt(N,139),48000,1024)'"), 0, {}, 0, 9},
       {1.021, 2.021, 3.021},
       4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    transcode(c.source);
    const auto samples = heardSamples(output_);
    const auto found = onsets(samples, 1, 6000, 0.3, 0.6);  // without the first, to which an encoder is not yet awake
    ASSERT_EQ(found.size(), c.beeps.size()) << testing::PrintToString(found);
    for (size_t i = 0; i < found.size(); ++i) EXPECT_NEAR(found[i], c.beeps[i], 0.002);
    EXPECT_NEAR(static_cast<double>(samples.size()) / 48000, c.seconds, 2 * packet);
    EXPECT_EQ(decoderComplaints(output_), "");
  }
}

TEST_F(TranscodeAudio, WholeMediaStayLoudToTheEndOfWhatIsShownWithTheChannelsThatAreThere) {
  // The sample entry of AC-3 says two channels whatever there are. A beep is heard from 3.005 s to 3.045 s.
  transcode({.file = damagedFlashBeepClip(6, 1, words("-c:a ac3 -ac 1")), .shownMediaEnd = 3.03});
  EXPECT_EQ(
      runProcess({"ffprobe", "-v", "error", "-show_entries", "stream=channels", "-of", "csv=p=0", output_}).output,
      "1\n");
  const auto samples = heardSamples(output_);
  ASSERT_NEAR(static_cast<double>(samples.size()), 3.06 * 48000, 2048);
  const auto last = std::span(samples).subspan(3 * 48000 + 960, 480);
  EXPECT_GT(*std::ranges::max_element(last), 20000);
}

TEST_F(TranscodeAudio, CancelledAtAnyMomentLeavesNoFile) {
  const Path clip = damagedFlashBeepClip(2, 2, {});
  int moment = 0, ofAnalysis = 0;  // counted by lines of the log, of which each buffer writes two
  for (bool wasCancelled = true; wasCancelled; ++moment) {
    CancellationToken token;
    int line = 0;
    bool isOver = false, isAnalysed = false, hasStarted = false;
    setLogSink([&](std::string_view text) {
      isOver = isOver || text == "AudioTranscoder: Completed successfully";
      if (line++ == moment && !isOver) token.cancel();
      if (text == "AudioTranscoder: No overlaps detected") isAnalysed = !token.isCancelled();
      hasStarted = hasStarted || text.starts_with("AudioTranscoder: Session started");
    });
    const std::string why = failure(clip, &token);
    setLogSink({});
    wasCancelled = !why.empty();
    EXPECT_EQ(why, token.isCancelled() ? "Operation was cancelled" : "") << moment;
    EXPECT_EQ(hasStarted, isAnalysed) << "cancelled while it is analysed, nothing is decoded, " << moment;
    ofAnalysis += isAnalysed ? 0 : 1;
  }
  EXPECT_GT(ofAnalysis, 20);
  EXPECT_GT(moment, ofAnalysis + 20);
}

TEST_F(TranscodeAudio, WaitingForTheWriterItReportsAndEndsWhenCancelled) {
  const Path clip = madeByFFmpeg(words("-f lavfi -i anoisesrc=r=48000:d=2 -ac 2 -c:a aac -b:a 128k"), ".m4a");
  CancellationToken token;
  // The first packets of so short a clip are written when all is decoded; their way to the disk takes until the end.
  const auto hold = [&] { EXPECT_TRUE(eventually([&] { return token.isCancelled(); })); };
  files_.arm({.call = 2, .errnum = 0, .among = {FileOperation::write}, .strike = hold});
  const auto cancel = [&](double, const std::string&) {
    if (files_.fired()) token.cancel();
  };
  EXPECT_EQ(failure(clip, &token, cancel), "Operation was cancelled");
}

TEST(TranscodePulse, TellsNothingOfNothingAndNeverMoreThanAll) {
  for (const auto& [expected, progress] : {std::pair{0, 0.0}, {1000, 1.0}}) {
    double told = -1;
    const TranscodeProgress tell = [&](double done, const std::string&) { told = done; };
    TranscodePulse pulse(nullptr, tell, expected);
    pulse.addWrittenSamples(1024);
    pulse.beat();
    EXPECT_EQ(told, progress);
  }
}

TEST_F(TranscodeAudio, FailuresAreToldAndLeaveNoFile) {
  const Path clip = damagedFlashBeepClip(6, 2, {"-movflags", "faststart"});
  EXPECT_EQ(failure(directory_ / "missing.mp4"), "No audio track found in input file");
  EXPECT_EQ(failure(encodedVideo({})), "No audio track found in input file");
  Bytes half = readFile(disk_, clip);
  half.resize(half.size() / 2);
  EXPECT_EQ(failure(damaged(half)), "Asset read failed");

  uint64_t call = 0;
  do {
    files_.arm({.call = ++call, .errnum = ENOSPC, .lasting = true, .among = {FileOperation::write}});
    const std::string why = failure(clip);
    EXPECT_EQ(why, files_.fired() ? "Asset write failed" : "") << call;
  } while (files_.fired());
  EXPECT_GT(call, 3u);

  // A full disk ends the run before the source is decoded.
  const Path quarterOfAnHour = madeByFFmpeg(words("-f lavfi -i anullsrc=r=48000:d=900 -c:a aac"), ".m4a");
  files_.arm({.call = 2, .errnum = ENOSPC, .lasting = true, .among = {FileOperation::write}});
  const LogCapture log;
  EXPECT_EQ(failure(quarterOfAnHour), "Asset write failed");
  EXPECT_TRUE(std::ranges::none_of(log.lines(), [](auto& line) { return line.starts_with("  Source samples read"); }));
}

}  // namespace
}  // namespace tarn::test
