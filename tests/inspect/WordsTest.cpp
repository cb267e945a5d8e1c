#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <tuple>

#include "audio/AudioTranscoderError.h"
#include "audio/SilentAACSampleCache.h"
#include "audio/SoundWords.h"
#include "inspect/FailureAdvice.h"
#include "inspect/SoundText.h"
#include "inspect/detail/SoundForecast.h"
#include "mp4/MP4RemuxError.h"
#include "platform/PhotoAuthorization.h"
#include "platform/host/SQLite.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

constexpr uint32_t packet = 1024;
constexpr uint32_t tenSeconds = 470;  // packets

/// Sound at 48 kHz with gaps of so many milliseconds, each after another hundred packets.
SyntheticTrack sound(uint32_t packets, const std::vector<uint32_t>& gaps = {}) {
  SyntheticTrack track{.samples = packets, .mediaDuration = uint64_t{packets} * packet};
  track.sample = SilentAACSampleCache::shared().getSilentFrame(48000);
  for (uint32_t milliseconds : gaps) {
    track.stts.insert(track.stts.end(), {{99, packet}, {1, packet + milliseconds * 48}});
    track.mediaDuration += uint64_t{milliseconds} * 48;
  }
  track.stts.emplace_back(packets - 100 * static_cast<uint32_t>(gaps.size()), packet);
  return track;
}

class SoundInspect : public FileTest {
 protected:
  /// How the sound is, what is done about it and what that does, what counts as a problem, and what the step warns of.
  std::string told() {
    const AudioForecast audio = forecastAudioStep(files_, file_, true);
    if (!audio.findings) return audioStepText(audio);
    auto lines = soundLines(audio);
    lines.push_back(audioStepText(audio));
    std::ranges::copy(wrongWithSound(*audio.findings), std::back_inserter(lines));
    if (audio.replacesSound()) lines.push_back("done: " + doneToSound(audio));
    for (const std::string& warning : soundWarnings(audio)) lines.push_back("warning: " + warning);
    return fmt::format("{}", fmt::join(lines, "\n"));
  }
  std::string told(const SyntheticTrack& audio) {
    const SyntheticTrack pictures{
        .handler = "vide", .timescale = 90000, .stts = {{250, 3600}}, .samples = 250, .mediaDuration = 900000};
    write(syntheticMovie({pictures, audio}));
    return told();
  }
};

TEST_F(SoundInspect, TellsWhatIsWrongAndWhatIsDone) {
  SyntheticTrack drifting = sound(tenSeconds), overlapping = drifting, foreign = drifting;
  foreign.sampleEntry = audioSampleEntry("mp4a", 48000, 2, esdsBox(0x6B, {}));
  drifting.stts = {{tenSeconds, packet + 11}};
  overlapping.ctts = {{200, 0}, {tenSeconds - 200, -4800}};
  const std::string usable = "AAC-LC, 48000 Hz, 2 channels: its packets can be used as they are\n";
  const std::string left = "\nstays as it is";
  const std::string undecodable = "The sound stays as it is: its packets cannot be decoded";
  const std::string decoded = "\nis decoded and encoded anew";
  const std::pair<SyntheticTrack, std::string> rows[] = {
      {sound(tenSeconds, {65}),
       usable + "a gap of 65.0 ms at 2.133 s" + decoded +
           "\nthe sound has a gap of 65 ms at 0:02\ndone: filled the gap with silence and encoded the sound anew"},
      {sound(200'000, {100, 40, 250}), usable + R"(a gap of 100.0 ms at 2.133 s
a gap of 250.0 ms at 6.540 s
gets silent packets in its gaps, and each packet stays within its own length of where it was
the sound has 2 gaps, 350 ms in all, the first at 0:02
done: filled the gaps with silence)"},
      {overlapping,
       usable + "an overlap of 100.0 ms at 4.167 s" + left + "\nthe sound has an overlap of 100 ms at 0:04"},
      {drifting, usable + "its track and its packets differ in length by 107.3 ms" + decoded +
                     "\nthe sound drifts: its track and what it holds differ in length by 107 ms"
                     "\ndone: took the drift out and encoded the sound anew"},
      {foreign, "MP3, 48000 Hz, 2 channels\nit is whole" + left + "\n" + undecodable + "\nwarning: " + undecodable},
  };
  for (const auto& [audio, expected] : rows) EXPECT_EQ(told(audio), expected);
}

TEST_F(SoundInspect, SeesTracksThatAreMissingForeignOrWide) {
  const std::string inputs = "-f lavfi -i sine=r=44100 -f lavfi -i testsrc2=s=64x48:r=25 -c:v libx264 -ac 2 -t 2 ";
  const auto make = [&](const std::string& more) { write(readFile(files_, madeByFFmpeg(words(inputs + more)))); };
  make("-an");
  EXPECT_EQ(told(), "is not looked at");
  make("-vn -c:a libopus");
  EXPECT_TRUE(told().ends_with("it is whole\nstays as it is")) << told();
  make("-c:a ac3 -ac 6");
  EXPECT_TRUE(told().ends_with(R"(is decoded and encoded anew
the sound is AC-3, which many players do not take
done: converted the sound to AAC
warning: of the sound's 6 channels two remain)"))
      << told();
  Bytes cut = readFile(files_, madeByFFmpeg(words(inputs + "-c:a ac3")));
  cut.resize(cut.size() - 14);
  write(cut);
  EXPECT_TRUE(told().ends_with("the end of the file's index (moov) is missing, so no track can be put into it"))
      << told();
}

using Where = RunOutcome::Where;

TEST(FailureAdvice, IsThatOfTheKindOnWhicheverWayTheFailureCame) {
  const std::string full = "again The disk is full: make room, then try again.";
  const auto of = [](const auto& failure) { return std::make_exception_ptr(failure); };
  const std::tuple<Where, std::exception_ptr, std::string> rows[] = {
      {Where::transfer, of(PosixError(ENOSPC, "write")), full},
      {Where::transfer, of(Error(PosixError(EDQUOT, "write"))), full},  // its type is lost, as in a transfer
      {Where::saving, of(SQLiteError(SQLITE_FULL, "insert")), full},
      {Where::repair, of(MP4RemuxError::writeError("no room", ENOSPC)), full},
      {Where::saving, of(PHPhotosError(PHPhotosError::invalidResource, "a page: log in")), ""},
      {Where::repair, of(AudioTranscoderError::assetReadFailed("no packet")), "as it came .*--skip-audio-fix.*"},
      {Where::repair, of(MP4RemuxError::writeError("copy")), "as it came .*--skip-video-fix.*"},
      {Where::repair, of(PosixError(EFBIG, "write")), "as it came .*"},
      {Where::transfer, of(PosixError(EFBIG, "write")), "The file system .*"},
      {Where::transfer, of(std::runtime_error("?")), ""},
      {Where::start, of(Error("Home", EWOULDBLOCK, "in use")), "again .*"},
  };
  for (const auto& [where, failure, expected] : rows) {
    const FailureAdvice advice = adviceFor(RunOutcome::failed(1, where, failure));
    EXPECT_THAT(
        (advice.mayTryAgain ? "again " : "") + std::string(advice.maySaveAsItCame ? "as it came " : "") + advice.words,
        testing::MatchesRegex(expected));
  }
  auto noticed = RunOutcome::failed(1, Where::repair, of(MP4RemuxError::writeError("copy")));
  noticed.isDiskFull = true;
  EXPECT_TRUE(adviceFor(noticed).mayTryAgain);
}

}  // namespace
}  // namespace tarn::test
