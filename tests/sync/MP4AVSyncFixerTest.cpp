#include <gtest/gtest.h>

#include <filesystem>

#include "platform/host/PosixFileManager.h"
#include "support/BoxEditor.h"
#include "support/FaultyFileManager.h"
#include "support/LogCapture.h"
#include "support/MovieLayout.h"
#include "support/TempDirectory.h"
#include "sync/ErrorTypes.h"
#include "sync/FlashBeep.h"
#include "sync/MP4AVSyncFixer.h"
#include "sync/SyncMovie.h"

namespace tarn::test {
namespace {

constexpr uint32_t rate = 0x10000;
constexpr uint32_t minusOne = 0xFFFFFFFF;

class SyncFixer : public testing::Test {
 protected:
  Path write(const Bytes& bytes) {
    Path file = directory_ / "movie.mp4";
    writeFileAtomically(files_, file, bytes);
    return file;
  }
  Bytes read(const Path& file) { return readFile(files_, file); }
  OriginalSyncInfo capture(const SyncMovie& movie) {
    return MP4AVSyncFixer::readOriginalSyncInfo(files_, write(movie.moov()));
  }
  bool fix(const Path& file, const std::optional<OriginalSyncInfo>& original, bool isReplaced = false) {
    return MP4AVSyncFixer::fix(files_, file, nullptr, nullptr, original, isReplaced);
  }
  template <typename Work>
  std::string failureOf(Work work) {
    try {
      work();
    } catch (const Error& error) {
      return error.description();
    }
    return "none";
  }
  std::string rows(const Path& file, MP4TrackType type) {
    auto handle = files_.open(file, OpenMode::reading);
    std::string text;
    for (const auto& row : MP4AVSyncFixer::parseVideoEditList(
             *handle, *MP4BoxUtils::findBox(*handle, "moov", topLevelSearchLimit), type)) {
      text += std::to_string(row.duration) + "@" + std::to_string(row.mediaTime) + " ";
    }
    return text;
  }

  TempDirectory directory_;
  PosixFileManager files_{directory_.path()};
  LogCapture log_;
};

SyncMovie workedCase() {
  return {.tracks = {{"vide", 90000, 900000, {SyncMovie::elst({10000, 3000, rate})}, {fullBox("ctts", {1, 300, 3000})}},
                     {"soun", 48000, 481024, {SyncMovie::elst({10000, 1024, rate})}}}};
}

TEST_F(SyncFixer, CapturesAndFixesTheWorkedCase) {
  auto original = capture(workedCase());
  EXPECT_EQ(original.syncOffsetMovieTime, -20);
  EXPECT_EQ(original.syncOffsetSeconds, -0.02);
  EXPECT_EQ(original.text(), "OriginalSyncInfo: syncOffset=-20.0ms, videoStart=0, audioStart=0, movieTimescale=1000");

  Path file = write(workedCase().moov());
  AVSyncTimings timings;
  ASSERT_TRUE(MP4AVSyncFixer::fix(files_, file, nullptr, &timings, original, false));
  EXPECT_EQ(rows(file, MP4TrackType::video), "9967@3000 ");
  EXPECT_EQ(rows(file, MP4TrackType::audio), "10000@1024 ");
  EXPECT_EQ(BoxEditor(read(file)).field(BoxEditor(read(file)).at("moov/mvhd").offset + 24), 10000u);
  EXPECT_EQ(BoxEditor(read(file)).field(BoxEditor(read(file)).at("moov/trak/tkhd").offset + 28), 9967u);
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
  auto info = capture(movie);
  EXPECT_EQ(info.videoMediaStartMovieTime, 500);
  EXPECT_EQ(info.audioMediaStartMovieTime, 300);
  EXPECT_EQ(info.syncOffsetMovieTime, 300 - 500);
  EXPECT_EQ(info.audioEncoderDelay, 0) << "without a sample entry the codec is unknown";

  audio.sampleTable = {sampleDescriptionBox({box("mp4a")})};
  EXPECT_EQ(capture(movie).audioEncoderDelay, 2112);
  audio.sampleTable = {sampleDescriptionBox({box("enca")})};
  EXPECT_EQ(capture(movie).audioEncoderDelay, 0);

  video.edits = audio.edits = {};
  EXPECT_EQ(capture(movie).syncOffsetMovieTime, -33) << "3000 ticks of the first composition offset";

  audio.edits = {SyncMovie::elst({1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 5, 5, 5, 6, 6, 6, 7, 7, 7, 8, 8, 8, 9, 9,
                                  9, 1, 1, 1, 2, 2, 2, 3, 3, 3, 4, 4, 4, 5, 5, 5, 6, 6, 6, 7, 7, 7, 8, 8, 8})};
  ASSERT_EQ(capture(movie).audioEditList.size(), 16u);
  EXPECT_EQ(capture(movie).audioEditList.back(), (OriginalEditListEntry{7, 7, 7}));

  audio.timescale = 0;
  EXPECT_EQ(capture(movie).audioTrackTimescale, 48000u);
  EXPECT_FALSE(fix(write(movie.moov()), std::nullopt)) << "audio without a timescale counts as none";
  movie.tracks.pop_back();
  info = capture(movie);
  EXPECT_TRUE(info.audioEditList.empty());
  EXPECT_EQ(info.audioEncoderDelay, 2112);
  EXPECT_FALSE(fix(write(movie.moov()), std::nullopt));
  EXPECT_TRUE(log_.contains("MP4AVSyncFixer: No audio track found, skipping (video-only files not processed)"));
}

TEST_F(SyncFixer, EndsExtremeTimesInAnError) {
  constexpr uint64_t highest = 0x7FFFFFFFFFFFFFFF;
  constexpr uint64_t lowest = 0x8000000000000000;
  const uint64_t emptyEdit = ~uint64_t{0};
  for (const Bytes& list :
       {SyncMovie::elst64({highest, emptyEdit, rate, 1, emptyEdit, rate}, 2), SyncMovie::elst64({1, lowest, rate}, 1),
        SyncMovie::elst64({1, highest - 1, rate}, 1), SyncMovie::elst64({highest, emptyEdit, rate, 1, 0, rate}, 2)}) {
    auto movie = workedCase();
    movie.tracks[1].edits = {list};
    movie.tracks[0].edits = {SyncMovie::elst({10, 900000, rate})};
    movie.timescale = 90000;
    EXPECT_EQ(failureOf([&] { capture(movie); }), "Analysis error: Time value out of range");
  }
}

TEST_F(SyncFixer, SaysWhatIsMissing) {
  EXPECT_EQ(failureOf([&] { fix(directory_ / "none", std::nullopt); }), "MP4 file not found");
  EXPECT_EQ(failureOf([&] { fix(directory_.path(), std::nullopt); }), "I/O error: Cannot open file");
  struct Row {
    const char* path;
    const char* failure;
  };
  for (const Row& row : std::vector<Row>{{"moov", "Corrupted MP4: moov box not found"},
                                         {"moov/mvhd", "Corrupted MP4: mvhd box not found"},
                                         {"moov/trak", "Corrupted MP4: Video trak not found"},
                                         {"moov/trak/mdia/mdhd", "Corrupted MP4: mdhd box not found"},
                                         {"moov/trak/mdia/minf", "Corrupted MP4: minf box not found"},
                                         {"moov/trak/mdia/minf/stbl", "Corrupted MP4: stbl box not found"}}) {
    BoxEditor editor(workedCase().moov());
    editor.rename(row.path, "skip");
    Path file = write(editor.bytes);
    EXPECT_EQ(failureOf([&] { MP4AVSyncFixer::readOriginalSyncInfo(files_, file); }), row.failure);
    EXPECT_EQ(failureOf([&] { fix(file, std::nullopt); }), row.failure);
    EXPECT_EQ(read(file), editor.bytes);
  }
  auto movie = workedCase();
  movie.timescale = 0;
  EXPECT_EQ(failureOf([&] { capture(movie); }), "Analysis error: Invalid movie timescale");
  movie.tracks[0].timescale = 0;
  EXPECT_EQ(failureOf([&] { fix(write(movie.moov()), std::nullopt); }), "Analysis error: Invalid track timescale");
}

TEST_F(SyncFixer, KeepsEveryByteOfTheMediaInEveryLayout) {
  using Kind = MovieLayout::Piece::Kind;
  const Path clip = flashBeepClip(0.3, {}, false, true);
  const std::string hashes = mediaHashes(clip);
  MovieLayout layout(read(clip));
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
      Path file = write(layout.build(pieces));
      ASSERT_EQ(mediaHashes(file), hashes);
      const auto size = std::filesystem::file_size(file);
      ASSERT_TRUE(fix(file, std::nullopt, true));
      EXPECT_EQ(std::filesystem::file_size(file), size - 12) << "the audio's empty edit is gone";
      EXPECT_EQ(mediaHashes(file), hashes);
    }
  }
}

TEST_F(SyncFixer, ClampsAnOffsetThatDoesNotFit) {
  auto movie = workedCase();
  movie.tracks[0].edits = {};
  movie.tracks[0].chunks = {1000, 0xFFFFFFF0};
  Path file = write(joined({movie.moov(), box("mdat")}));
  ASSERT_TRUE(fix(file, std::nullopt, true));
  BoxEditor fixed(read(file));
  size_t stco = fixed.at("moov/trak/mdia/minf/stbl/stco").offset;
  EXPECT_EQ(fixed.field(stco + 16), 1036u);
  EXPECT_EQ(fixed.field(stco + 20), 0xFFFFFFFFu);
  EXPECT_TRUE(log_.contains("WARNING: stco offset overflow at entry 1: 4294967280 + 36 = 4294967316, clamping"));
  EXPECT_EQ(fixed.at("moov/trak/edts").offset, fixed.at("moov/trak/tkhd").end());
}

TEST_F(SyncFixer, RefusesWhatItCannotEditAndChangesNothing) {
  const Bytes moov = workedCase().moov();
  BoxEditor longChild(moov);
  longChild.insert("moov/trak", longChild.at("moov/trak/edts").offset, longBox("free"));
  BoxEditor hidden(moov);
  hidden.rename("moov/trak/edts", "skip");
  hidden.insert("moov/trak", hidden.at("moov/trak/mdia").end(), longBox("free"));
  for (const Bytes& bytes : {longBox("moov", {Bytes(moov.begin() + 8, moov.end())}), longChild.bytes, hidden.bytes}) {
    Path file = write(joined({bytes, box("mdat")}));
    EXPECT_EQ(failureOf([&] { fix(file, std::nullopt); }).substr(0, 11), "Fix error: ");
    EXPECT_EQ(read(file), joined({bytes, box("mdat")}));
  }
  Path file = write(moov);
  CancellationToken token;
  token.cancel();
  EXPECT_THROW(MP4AVSyncFixer::fix(files_, file, &token, nullptr, std::nullopt, false), CancellationError);
  EXPECT_EQ(read(file), moov);
}

TEST_F(SyncFixer, PutsAConvertedCttsAheadOfTheEditLists) {
  auto movie = workedCase();
  std::swap(movie.tracks[0], movie.tracks[1]);
  Path file = write(movie.moov());
  auto handle = files_.open(file, OpenMode::reading);
  auto moov = *MP4BoxUtils::findBox(*handle, "moov", topLevelSearchLimit);
  auto video = MP4BoxUtils::findTrack(*handle, moov, MP4TrackType::video);
  auto audio = MP4BoxUtils::findTrack(*handle, moov, MP4TrackType::audio);
  auto ctts = MP4AVSyncFixer::parseVideoTrackInfo(*handle, moov);
  const Bytes list = box("edts", {SyncMovie::elst({1, minusOne, rate, 2, 3, rate})});
  MP4AVSyncFixer::rewriteMoovWithBothEdts(files_, file, moov, *video, audio,
                                          {.videoEdtsData = list,
                                           .audioEdtsData = list,
                                           .convertedCttsData = fullBox("ctts", {2, 1, 7, 299, 9}),
                                           .originalCttsOffset = ctts.cttsOffset,
                                           .originalCttsSize = ctts.cttsSize});
  EXPECT_EQ(rows(file, MP4TrackType::video), "1@-1 2@3 ");
  EXPECT_EQ(rows(file, MP4TrackType::audio), "1@-1 2@3 ");
  auto after = files_.open(file, OpenMode::reading);
  auto newMoov = *MP4BoxUtils::findBox(*after, "moov", topLevelSearchLimit);
  EXPECT_EQ(newMoov.size, std::filesystem::file_size(file));
  EXPECT_EQ(MP4AVSyncFixer::parseVideoTrackInfo(*after, newMoov).firstCts, 7);
}

TEST_F(SyncFixer, LeavesTheFileWholeWhenTheDiskFails) {
  const Bytes source = readFile(files_, flashBeepClip(0.3, {"-movflags", "faststart"}));
  FaultyFileManager faulty(files_);
  for (int errnum : {ENOSPC, EIO}) {
    uint64_t call = 1;
    for (bool fired = true; fired; ++call) {
      Path file = write(source);
      Fault fault{.call = call, .errnum = errnum, .effect = Fault::Effect::half};
      if (errnum == ENOSPC) fault.among = {FileOperation::write, FileOperation::flush, FileOperation::replace};
      faulty.arm(fault);
      bool isDone = false;
      try {
        isDone = MP4AVSyncFixer::fix(faulty, file, nullptr, nullptr, std::nullopt, true);
      } catch (const Error&) {
        EXPECT_EQ(read(file), source);
      }
      fired = faulty.fired();
      EXPECT_TRUE(fired || isDone);
      EXPECT_EQ(files_.contentsOfDirectory(directory_.path()).size(), 1u) << "call " << call;
    }
    EXPECT_GT(call, 4u);
  }
}

}  // namespace
}  // namespace tarn::test
