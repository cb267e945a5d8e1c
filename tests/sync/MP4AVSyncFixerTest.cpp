#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FaultyFileManager.h"
#include "support/FileTest.h"
#include "support/FlashBeep.h"
#include "support/SyntheticMovie.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn::test {
namespace {

/// Ten seconds; the sound begins 20 ms before the pictures.
struct WorkedCase {
  SyntheticTrack video{
      .handler = "vide", .timescale = 90000, .ctts = {{300, 3000}}, .edits = {{10000, 3000}}, .mediaDuration = 900000};
  SyntheticTrack audio{.edits = {{10000, 1024}}, .mediaDuration = 481024};
  uint32_t timescale = 1000;

  Bytes moov() const { return BoxEditor(syntheticMovie({video, audio}, timescale)).get("moov"); }
};

class SyncFixer : public FileTest {
 protected:
  OriginalSyncInfo capture() { return MP4AVSyncFixer::readOriginalSyncInfo(files_, file_); }
  OriginalSyncInfo capture(const Bytes& movie) {
    write(movie);
    return capture();
  }
  bool fix(const std::optional<OriginalSyncInfo>& original = {}, bool isReplaced = false) {
    return MP4AVSyncFixer::fix(files_, file_, nullptr, nullptr, original, isReplaced);
  }
  /// The rows of the file's tracks.
  std::string rows() {
    const auto info = capture();
    std::string text = "video ";
    for (const auto& row : info.videoEditList) text += fmt::format("{}@{} ", row.duration, row.mediaTime);
    text += "audio ";
    for (const auto& row : info.audioEditList) text += fmt::format("{}@{} ", row.duration, row.mediaTime);
    return text;
  }
};

/// Captured from another file: the sound so many seconds after the pictures, and the list of the sound.
OriginalSyncInfo captured(double offsetSeconds, int64_t audioMediaTime, std::optional<int64_t> leadingEmptyEdit = {}) {
  OriginalSyncInfo original;
  original.syncOffsetSeconds = offsetSeconds;
  original.audioMediaTime = audioMediaTime;
  if (leadingEmptyEdit) original.audioEditList.push_back({*leadingEmptyEdit, -1, 0x10000});
  original.audioEditList.push_back({10000, audioMediaTime, 0x10000});
  return original;
}

TEST_F(SyncFixer, FollowsTheRulesWhereNothingIsOrdered) {
  const struct {
    uint32_t timescale;  // of the movie
    int32_t firstCts;
    std::optional<OriginalSyncInfo> original;
    const char* rows;
    bool isReplaced = false;
  } cases[] = {
      {1000, 3000, {}, "video 9967@3000 audio 9967@1600 "},
      {1000, 0, captured(0.3, 1024), "video audio 300@-1 9979@1024 "},
      {1000, 3000, captured(-0.3, 1024), "video 300@-1 9967@3000 audio 9979@1024 "},
      {1000, 0, captured(0.05, 0), "video audio 10000@0 "},
      {1000, 0, captured(0.051, 0), "video audio 51@-1 10000@0 "},
      {1000, 0, captured(-0.05, 0), "video 10000@0 audio 10000@0 "},
      {30, 0, captured(1.0 / 30, 0), "video audio 300@0 "},
      {30, 0, captured(2.0 / 30, 0), "video audio 2@-1 300@0 "},
      {1000, 0, captured(0.02, 0, 20), "video audio 20@-1 10000@0 "},
      {1000, 0, {}, "video audio 10000@0 ", true},  // for the encoder's delay
      {1000, 3000, captured(-0.02, 1024), "video 9967@3000 audio 10000@0 ", true},
      {1000, 3000, captured(0.3, 0, 300), "video 9967@3000 audio 300@-1 10000@0 ", true},
  };
  for (const auto& c : cases) {
    WorkedCase movie{.timescale = c.timescale};
    movie.video.ctts[0].second = c.firstCts;
    movie.video.edits = movie.audio.edits = {};
    movie.audio.mediaDuration = 480000;
    write(movie.moov());
    ASSERT_TRUE(fix(c.original, c.isReplaced));
    EXPECT_EQ(rows(), c.rows) << "case " << &c - cases;
  }
}

TEST_F(SyncFixer, CapturesAndFixesTheWorkedCase) {
  auto original = capture(WorkedCase().moov());
  EXPECT_EQ(original.syncOffsetMovieTime, -20);
  BoxEditor longer(WorkedCase().moov());
  for (const std::string path : {"moov/trak/mdia/mdhd", "moov/trak/edts/elst", "moov/mvhd"}) {
    const Bytes old = longer.get(path);
    longer.replace(longer.at(path), longBox(path.substr(path.size() - 4), {Bytes(old.begin() + 8, old.end())}));
  }
  EXPECT_EQ(capture(longer.bytes).text(), original.text()) << "boxes with 64-bit sizes say the same";
  write(WorkedCase().moov());
  ASSERT_TRUE(fix(original));
  EXPECT_EQ(rows(), "video 9967@3000 audio 10000@1024 ");
  BoxEditor fixed(written());
  EXPECT_EQ(fixed.field(fixed.at("moov/mvhd").offset + 24), 10000u);
  EXPECT_EQ(fixed.field(fixed.at("moov/trak/tkhd").offset + 28), 9967u);
}

TEST_F(SyncFixer, WritesTimesOf64Bits) {
  const std::string ticks = "2000000000";
  const Path clip = flashBeepClip(0.3, {"-movie_timescale", ticks, "-video_track_timescale", ticks});
  ASSERT_TRUE(fix(capture(readFile(files_, clip))));
  const BoxEditor fixed(written());
  const auto mvhd = fixed.at("moov/mvhd"), tkhd = fixed.at("moov/trak/tkhd");
  const auto seconds = [&](size_t place) { return static_cast<double>(*readUInt64(fixed.bytes, place)) / 2e9; };
  EXPECT_EQ(fixed.field(tkhd.offset + 28), 1u) << "the track's number";
  EXPECT_NEAR(seconds(tkhd.offset + 36), 3 - 2 / 25.0, 0.001) << "two frames go to the first composition offset";
  EXPECT_NEAR(seconds(mvhd.offset + 32), 3.3, 0.03) << "the sound ends last";
}

TEST_F(SyncFixer, CapturesOddTracks) {
  WorkedCase movie;
  movie.video.edits = {{500, -1}, {9500, 3000}};
  movie.audio.edits = {{100, -1}, {200, -1}};
  EXPECT_EQ(capture(movie.moov()).text().substr(18),
            "syncOffset=-200.0ms, videoStart=500, audioStart=300, movieTimescale=1000");
  movie.video.edits = {};
  movie.audio.edits.assign(20, {7, 0});
  movie.audio.longTimes = true;
  EXPECT_EQ(capture(movie.moov()).audioEditList.size(), 16u);
  EXPECT_EQ(capture().syncOffsetMovieTime, -33) << "3000 ticks of the first composition offset";

  movie.audio.timescale = 0;
  EXPECT_EQ(capture(movie.moov()).audioTrackTimescale, 48000u);
  EXPECT_FALSE(fix()) << "audio without a timescale counts as none";
  EXPECT_TRUE(capture(syntheticMovie({movie.video})).audioEditList.empty());
}

TEST_F(SyncFixer, EndsExtremeTimesInAnError) {
  constexpr int64_t highest = INT64_MAX;
  WorkedCase movie{.timescale = 90000};
  movie.video.edits = {{10, 900000}};
  movie.audio.longTimes = true;
  for (const auto& list : std::vector<decltype(movie.audio.edits)>{
           {{highest, -1}, {1, -1}}, {{1, INT64_MIN}}, {{1, highest - 1}}, {{highest, -1}, {1, 0}}}) {
    movie.audio.edits = list;
    EXPECT_EQ(failureOf([&] { capture(movie.moov()); }), "Analysis error: Time value out of range");
  }
}

TEST_F(SyncFixer, SaysWhatIsMissingAndChangesNothing) {
  EXPECT_EQ(failureOf([&] { fix(); }), "MP4 file not found");
  const Bytes moov = WorkedCase().moov();
  auto without = [&](const char* path) {
    BoxEditor editor(moov);
    editor.rename(path, "skip");
    return editor.bytes;
  };
  WorkedCase clockless;
  clockless.video.timescale = 0;
  BoxEditor holdsMedia(moov);
  const auto mediaPlace = std::to_string(moov.size());
  holdsMedia.insert("moov", moov.size(), box("mdat"));
  const std::pair<Bytes, std::string> cases[] = {
      {without("moov"), "Corrupted MP4: moov box not found"},
      {without("moov/trak"), "Corrupted MP4: Video trak not found"},
      {without("moov/trak/mdia/minf/stbl"), "Corrupted MP4: stbl box not found"},
      {WorkedCase{.timescale = 0}.moov(), "Analysis error: Invalid movie timescale"},
      {clockless.moov(), "Analysis error: Invalid track timescale"},
      {longBox("moov", {Bytes(moov.begin() + 8, moov.end())}), "Fix error: The moov box at 0 has a 64-bit size"},
      {holdsMedia.bytes, "Fix error: The moov box holds media, at " + mediaPlace},
  };
  for (const auto& [movie, failure] : cases) {
    const Bytes file = joined({movie, box("mdat")});
    EXPECT_EQ(failureOf([&] { capture(file); }), failure.starts_with("Fix error") ? "" : failure);
    EXPECT_EQ(failureOf([&] { fix(); }), failure);
    EXPECT_EQ(written(), file);
  }
  // Cancelled before its work, and once it has opened the file.
  const SyncFixOrder order{.tracks = {{1, {}}}, .movieDuration = 1};
  write(moov);
  for (const SyncFixOrder* const given : {static_cast<const SyncFixOrder*>(nullptr), &order}) {
    for (const uint64_t opening : {0u, 1u}) {
      CancellationToken token;
      if (opening == 0) token.cancel();
      FaultyFileManager files(files_);
      files.arm({.call = 1, .errnum = 0, .among = {FileOperation::open}, .strike = [&] { token.cancel(); }});
      EXPECT_THROW(MP4AVSyncFixer::fix(files, file_, &token, nullptr, std::nullopt, false, nullptr, given),
                   CancellationError);
      EXPECT_EQ(files.calls(), opening);
      EXPECT_EQ(written(), moov);
    }
  }
}

TEST_F(SyncFixer, ShowsItsResultToTheCheckAndTakesItsWord) {
  const Bytes source = readFile(files_, flashBeepClip(0.3, {"-movflags", "faststart"}));
  write(source);
  const SyncFixOrder order{.tracks = {{1, {.entries = {{700, -1, 0x10000}, {2000, 0, 0x10000}}, .trackDuration = 2700}},
                                      {2, {.trackDuration = 3000}}},
                           .movieDuration = 3000};
  Bytes result;
  const RewriteCheck refuse = [&](const Path& path, std::span<const CopiedRange>) {
    result = readFile(files_, path);
    throw RefusedResult("it would do harm");
  };
  FaultyFileManager files(files_);
  const auto fixAsOrdered = [&](const RewriteCheck& check) {
    return MP4AVSyncFixer::fix(files, file_, nullptr, nullptr, std::nullopt, false, nullptr, &order, check);
  };
  const uint64_t reads = files.sweep({.among = {FileOperation::read}}, [&](uint64_t call) {
    const std::string failure = failureOf([&] { fixAsOrdered({}); });
    EXPECT_NE(failure.empty(), files.fired()) << call;
    EXPECT_FALSE(failure.starts_with("Fix error")) << "a disk that fails is no fault of the file";
    write(source);
  });
  EXPECT_GT(reads, 3u);
  files.disarm();
  EXPECT_THROW(fixAsOrdered(refuse), RefusedResult);
  EXPECT_EQ(written(), source);
  EXPECT_EQ(files_.contentsOfDirectory(directory_.path()).size(), 1u) << "the temp file is gone";
  EXPECT_TRUE(fixAsOrdered({}));
  EXPECT_EQ(written(), result);
  EXPECT_EQ(rows(), "video 700@-1 2000@0 audio ");
  const BoxEditor after(result);
  EXPECT_EQ(after.field(after.at("moov/mvhd").offset + 24), 3000u);
  EXPECT_FALSE(fixAsOrdered({}));
}

TEST_F(SyncFixer, RefusesAnOrderForATrackThatIsNotThereOnce) {
  const Bytes clip = readFile(files_, flashBeepClip(0.3));
  BoxEditor twins(clip);
  twins.setField(twins.all("moov/trak/tkhd").back().offset + 20, 1);
  for (const auto& [movie, number, words] : {std::tuple(clip, 7u, "Fix error: 0 tracks have the number 7"),
                                             {twins.bytes, 1u, "Fix error: 2 tracks have the number 1"}}) {
    write(movie);
    const SyncFixOrder order{.tracks = {{number, {}}}, .movieDuration = 1};
    EXPECT_EQ(
        failureOf([&] { MP4AVSyncFixer::fix(files_, file_, nullptr, nullptr, std::nullopt, false, nullptr, &order); }),
        words);
    EXPECT_EQ(written(), movie);
  }
}

TEST_F(SyncFixer, ClampsAnOffsetThatDoesNotFit) {
  WorkedCase movie;
  movie.video.edits = {};
  movie.video.samples = 8;
  constexpr const char* stco = "moov/trak/mdia/minf/stbl/stco";
  BoxEditor clip(movie.moov());
  clip.setField(clip.at(stco).offset + 16, 1000);
  clip.setField(clip.at(stco).offset + 20, 0xFFFFFFF0);
  write(joined({clip.bytes, box("mdat")}));
  ASSERT_TRUE(fix({}, true));
  BoxEditor fixed(written());
  EXPECT_EQ(fixed.get(stco), fullBox("stco", {2, 1036, 0xFFFFFFFF}));
  EXPECT_EQ(fixed.at("moov/trak/edts").offset, fixed.at("moov/trak/tkhd").end());
}

}  // namespace
}  // namespace tarn::test
