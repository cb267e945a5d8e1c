#include <filesystem>

#include "support/BoxEditor.h"
#include "support/FaultyFileManager.h"
#include "support/FileTest.h"
#include "support/FlashBeep.h"
#include "support/MovieLayout.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/SyncMovie.h"

namespace tarn::test {
namespace {

constexpr uint32_t rate = 0x10000;
constexpr uint32_t minusOne = 0xFFFFFFFF;

class SyncFixer : public FileTest {
 protected:
  OriginalSyncInfo capture() { return MP4AVSyncFixer::readOriginalSyncInfo(files_, file_); }
  OriginalSyncInfo capture(const SyncMovie& movie) {
    write(movie.moov());
    return capture();
  }
  bool fix(const std::optional<OriginalSyncInfo>& original = {}, bool isReplaced = false) {
    return MP4AVSyncFixer::fix(files_, file_, nullptr, nullptr, original, isReplaced);
  }
  /// The rows of a file's video and audio track.
  std::string rows() {
    auto handle = files_.open(file_, OpenMode::reading);
    auto moov = MP4BoxUtils::findBox(*handle, "moov", topLevelSearchLimit);
    std::string text;
    for (MP4TrackType type : {MP4TrackType::video, MP4TrackType::audio}) {
      text += type == MP4TrackType::video ? "video " : "audio ";
      for (const auto& row : MP4AVSyncFixer::parseVideoEditList(*handle, moov.value(), type)) {
        text += fmt::format("{}@{} ", row.duration, row.mediaTime);
      }
    }
    return text;
  }
};

SyncMovie workedCase() {
  return {.tracks = {{"vide", 90000, 900000, {SyncMovie::elst({10000, 3000, rate})}, {fullBox("ctts", {1, 300, 3000})}},
                     {"soun", 48000, 481024, {SyncMovie::elst({10000, 1024, rate})}}}};
}

TEST_F(SyncFixer, CapturesAndFixesTheWorkedCase) {
  auto original = capture(workedCase());
  EXPECT_EQ(original.syncOffsetMovieTime, -20);
  EXPECT_EQ(original.text(), "OriginalSyncInfo: syncOffset=-20.0ms, videoStart=0, audioStart=0, movieTimescale=1000");
  AVSyncTimings timings;
  ASSERT_TRUE(MP4AVSyncFixer::fix(files_, file_, nullptr, &timings, original, false));
  EXPECT_EQ(rows(), "video 9967@3000 audio 10000@1024 ");
  BoxEditor fixed(written());
  EXPECT_EQ(fixed.field(fixed.at("moov/mvhd").offset + 24), 10000u);
  EXPECT_EQ(fixed.field(fixed.at("moov/trak/tkhd").offset + 28), 9967u);
  EXPECT_GT(timings.readMoov * timings.writeMoov, 0);
  EXPECT_TRUE(log_.contains("MP4AVSyncFixer: Sync offset -20.0ms within ±50.0ms tolerance, no empty edit needed"));
  EXPECT_TRUE(log_.contains("MP4AVSyncFixer: Fix applied (video edts: updated, audio edts: updated, ctts: unchanged)"));
}

TEST_F(SyncFixer, CapturesOddTracks) {
  auto movie = workedCase();
  auto& video = movie.tracks[0];
  auto& audio = movie.tracks[1];
  video.edits = {SyncMovie::elst({500, minusOne, rate, 9500, 3000, rate})};
  audio.edits = {SyncMovie::elst({100, minusOne, rate, 200, minusOne, rate})};
  EXPECT_EQ(capture(movie).text().substr(18),
            "syncOffset=-200.0ms, videoStart=500, audioStart=300, movieTimescale=1000");

  EXPECT_EQ(capture(movie).audioEncoderDelay, 0) << "without a sample entry the codec is unknown";
  for (auto [codec, delay] : {std::pair("mp4a", 2112), {"enca", 0}}) {
    audio.sampleTable = {sampleDescriptionBox({box(codec)})};
    EXPECT_EQ(capture(movie).audioEncoderDelay, delay);
  }

  video.edits = {};
  audio.edits = {SyncMovie::elst64(std::vector<std::array<uint64_t, 2>>(20, {7, 0}))};
  EXPECT_EQ(capture(movie).audioEditList.size(), 16u);
  EXPECT_EQ(capture(movie).syncOffsetMovieTime, -33) << "3000 ticks of the first composition offset";

  audio.timescale = 0;
  EXPECT_EQ(capture(movie).audioTrackTimescale, 48000u);
  EXPECT_FALSE(fix()) << "audio without a timescale counts as none";
  movie.tracks.pop_back();
  EXPECT_TRUE(capture(movie).audioEditList.empty());
  EXPECT_EQ(capture(movie).audioEncoderDelay, 2112);
  EXPECT_FALSE(fix());
  EXPECT_TRUE(log_.contains("MP4AVSyncFixer: No audio track found, skipping (video-only files not processed)"));
}

TEST_F(SyncFixer, EndsExtremeTimesInAnError) {
  constexpr uint64_t highest = 0x7FFFFFFFFFFFFFFF, lowest = highest + 1, emptyEdit = ~uint64_t{0};
  for (const auto& list : std::vector<std::vector<std::array<uint64_t, 2>>>{
           {{highest, emptyEdit}, {1, emptyEdit}}, {{1, lowest}}, {{1, highest - 1}}, {{highest, emptyEdit}, {1, 0}}}) {
    auto movie = workedCase();
    movie.tracks[1].edits = {SyncMovie::elst64(list)};
    movie.tracks[0].edits = {SyncMovie::elst({10, 900000, rate})};
    movie.timescale = 90000;
    EXPECT_EQ(failureOf([&] { capture(movie); }), "Analysis error: Time value out of range");
  }
}

TEST_F(SyncFixer, SaysWhatIsMissingAndChangesNothing) {
  EXPECT_EQ(failureOf([&] { fix(); }), "MP4 file not found");
  const Bytes moov = workedCase().moov();
  auto without = [&](const char* path) {
    BoxEditor editor(moov);
    editor.rename(path, "skip");
    return editor.bytes;
  };
  SyncMovie noMovieScale = workedCase(), noTrackScale = workedCase();
  noMovieScale.timescale = noTrackScale.tracks[0].timescale = 0;
  BoxEditor longChild(moov), hidden(without("moov/trak/edts"));
  longChild.insert("moov/trak", longChild.at("moov/trak/edts").offset, longBox("free"));
  hidden.insert("moov/trak", hidden.at("moov/trak/mdia").end(), longBox("free"));
  const std::pair<Bytes, std::string> cases[] = {
      {without("moov"), "Corrupted MP4: moov box not found"},
      {without("moov/mvhd"), "Corrupted MP4: mvhd box not found"},
      {without("moov/trak"), "Corrupted MP4: Video trak not found"},
      {without("moov/trak/mdia/mdhd"), "Corrupted MP4: mdhd box not found"},
      {without("moov/trak/mdia/minf"), "Corrupted MP4: minf box not found"},
      {without("moov/trak/mdia/minf/stbl"), "Corrupted MP4: stbl box not found"},
      {noMovieScale.moov(), "Analysis error: Invalid movie timescale"},
      {noTrackScale.moov(), "Analysis error: Invalid track timescale"},
      {longBox("moov", {Bytes(moov.begin() + 8, moov.end())}), "Fix error: moov box has a 64-bit size field"},
      {longChild.bytes, "Fix error: mdia box lies at or behind a box without a plain 32-bit size or type"},
      {hidden.bytes, "Fix error: A box with a 64-bit size may hide the track's edit list"},
  };
  for (const auto& [movie, failure] : cases) {
    write(joined({movie, box("mdat")}));
    EXPECT_EQ(failureOf([&] { fix(); }), failure);
    EXPECT_EQ(failureOf([&] { capture(); }), failure.starts_with("Fix error") ? "none" : failure);
    EXPECT_EQ(written(), joined({movie, box("mdat")}));
  }
  CancellationToken token;
  token.cancel();
  write(moov);
  EXPECT_THROW(MP4AVSyncFixer::fix(files_, file_, &token, nullptr, std::nullopt, false), CancellationError);
  EXPECT_EQ(written(), moov);
}

TEST_F(SyncFixer, KeepsEveryByteOfTheMediaInEveryLayout) {
  using Kind = MovieLayout::Piece::Kind;
  const Path clip = flashBeepClip(0.3, {}, "-map 0:v -map 1:a -map 1:a");
  const std::string hashes = mediaHashes(clip);
  MovieLayout layout(readFile(files_, clip));
  const uint64_t middle = layout.chunks()[layout.chunks().size() / 2];
  const MovieLayout::Piece ftyp{.kind = Kind::raw, .bytes = layout.ftyp}, moov{.kind = Kind::moov};
  const MovieLayout::Piece unknown{.kind = Kind::raw, .bytes = box("uuid", {Bytes(300)})};
  for (bool hasLongOffsets : {false, true}) {
    if (hasLongOffsets) layout.useLongOffsets();
    for (const auto& pieces : std::vector<std::vector<MovieLayout::Piece>>{
             {ftyp, moov, unknown, {.kind = Kind::mdat}},
             {ftyp, moov, {.kind = Kind::longMdat}, unknown},
             {ftyp, moov, {.kind = Kind::openMdat}},
             {ftyp, {.kind = Kind::mdat}, unknown, {.kind = Kind::openMoov}},
             {ftyp, {.kind = Kind::mdat, .end = middle}, moov, {.kind = Kind::longMdat, .begin = middle}}}) {
      const Bytes before = layout.build(pieces);
      write(before);
      ASSERT_TRUE(fix({}, true));
      EXPECT_EQ(written().size(), before.size() - 12) << "the audio's empty edit is gone";
      EXPECT_EQ(mediaHashes(file_), hashes);
    }
  }
}

TEST_F(SyncFixer, ClampsAnOffsetThatDoesNotFit) {
  auto movie = workedCase();
  movie.tracks[0].edits = {};
  movie.tracks[0].chunks = {1000, 0xFFFFFFF0};
  write(joined({movie.moov(), box("mdat")}));
  ASSERT_TRUE(fix({}, true));
  BoxEditor fixed(written());
  EXPECT_EQ(fixed.get("moov/trak/mdia/minf/stbl/stco"), fullBox("stco", {2, 1036, 0xFFFFFFFF}));
  EXPECT_TRUE(log_.contains("WARNING: stco offset overflow at entry 1: 4294967280 + 36 = 4294967316, clamping"));
  EXPECT_EQ(fixed.at("moov/trak/edts").offset, fixed.at("moov/trak/tkhd").end());
}

TEST_F(SyncFixer, PutsAConvertedCttsAheadOfTheEditLists) {
  auto movie = workedCase();
  std::swap(movie.tracks[0], movie.tracks[1]);
  auto handle = open(movie.moov());
  auto moov = *MP4BoxUtils::findBox(*handle, "moov", topLevelSearchLimit);
  auto ctts = MP4AVSyncFixer::parseVideoTrackInfo(*handle, moov);
  const Bytes list = box("edts", {SyncMovie::elst({1, minusOne, rate, 2, 3, rate})});
  MP4AVSyncFixer::rewriteMoovWithBothEdts(files_, file_, moov,
                                          *MP4BoxUtils::findTrack(*handle, moov, MP4TrackType::video),
                                          MP4BoxUtils::findTrack(*handle, moov, MP4TrackType::audio),
                                          {.videoEdtsData = list,
                                           .audioEdtsData = list,
                                           .convertedCttsData = fullBox("ctts", {2, 1, 7, 299, 9}),
                                           .originalCttsOffset = ctts.cttsOffset,
                                           .originalCttsSize = ctts.cttsSize});
  EXPECT_EQ(rows(), "video 1@-1 2@3 audio 1@-1 2@3 ");
  EXPECT_EQ(capture().videoFirstCts, 7);
  EXPECT_EQ(BoxEditor(written()).at("moov").size, written().size());
}

TEST_F(SyncFixer, LeavesTheFileWholeWhenTheDiskFails) {
  const Bytes source = readFile(files_, flashBeepClip(0.3, {"-movflags", "faststart"}));
  FaultyFileManager faulty(files_);
  for (int errnum : {ENOSPC, EIO}) {
    uint64_t call = 1;
    for (bool fired = true; fired; ++call) {
      write(source);
      Fault fault{.call = call, .errnum = errnum, .effect = Fault::Effect::half};
      if (errnum == ENOSPC) fault.among = {FileOperation::write, FileOperation::flush, FileOperation::replace};
      faulty.arm(fault);
      bool isDone = false;
      failureOf([&] { isDone = MP4AVSyncFixer::fix(faulty, file_, nullptr, nullptr, std::nullopt, true); });
      fired = faulty.fired();
      EXPECT_TRUE(fired || isDone);
      EXPECT_TRUE(isDone || written() == source) << "call " << call;
      EXPECT_EQ(files_.contentsOfDirectory(directory_.path()).size(), 1u) << "call " << call;
    }
    EXPECT_GT(call, 4u);
  }
}

}  // namespace
}  // namespace tarn::test
