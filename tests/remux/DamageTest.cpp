#include <functional>

#include "mp4/DataExtensions.h"
#include "mp4/MP4RemuxError.h"
#include "remux/RemuxFixture.h"
#include "support/BoxBuilder.h"
#include "support/FaultyFileManager.h"
#include "support/MovieLayout.h"

namespace tarn {
namespace {

using namespace test;
using Kind = MovieLayout::Piece::Kind;

class Damage : public RemuxTest {
 protected:
  /// A movie with its `moov` ahead that wants the repair, and its twin that does not; all boxes lie at the same places.
  struct Movie {
    Bytes damaged, twin;
    bool changes = false;  ///< in mid-stream, so that the repair writes a new `stsd`
  };
  Movie movie(bool isHEVC) { return movie(isHEVC, encodedVideo(isHEVC ? inBandHEVC : inBandAVC)); }
  /// One whose picture size changes, so that the repair gives it two sample entries.
  Movie changingMovie(bool isHEVC) {
    VideoRecipe first = isHEVC ? inBandHEVC : inBandAVC, second = first;
    second.size = "256x160";
    Movie changing = movie(isHEVC, joinedVideo({first, second}));
    changing.changes = true;
    return changing;
  }
  Movie movie(bool isHEVC, const Path& source) {
    MovieLayout layout(readFile(files_, source));
    const std::vector<MovieLayout::Piece> pieces = {{Kind::raw, layout.ftyp}, {Kind::moov}, {Kind::mdat}};
    Bytes twin = layout.build(pieces);
    layout.moov = withoutParameterSets(layout.moov, isHEVC);
    return {layout.build(pieces), twin};
  }

  /// Damages a movie further and repairs it. Either a reader then finds the samples that it finds in the twin with the
  /// same damage, or the file is as it was.
  void expectSameSamplesOrUntouched(Movie movie, bool isHEVC, const std::string& what,
                                    const std::function<void(Bytes&)>& damage) {
    damage(movie.damaged);
    damage(movie.twin);
    write(movie.damaged);
    try {
      if (isHEVC) {
        remuxHEVC(files_);
      } else {
        remuxAVC(files_);
      }
      TempDirectory elsewhere;
      writeFileAtomically(files_, elsewhere / "twin.mp4", movie.twin);
      EXPECT_EQ(sampleHashes(file_), sampleHashes(elsewhere / "twin.mp4")) << what;
      ++repaired_;
    } catch (const Error&) {
      EXPECT_EQ(written(), movie.damaged) << what;
      ++refused_;
    }
    expectNothingLeftBehind();
  }

  void damageSizesCountsAndTables(const Movie& sound, bool isHEVC) {
    const BoxEditor editor(sound.damaged);
    const std::string stbl = "moov/trak/mdia/minf/stbl";
    const std::string entry = stbl + (isHEVC ? "/stsd/hev1" : "/stsd/avc3");
    std::vector<std::string> boxes = {
        "ftyp", "moov", "moov/trak", "moov/trak/mdia", "moov/trak/mdia/minf", stbl, entry, entry + "/pasp", "mdat"};
    for (std::string table : {"stsd", "stts", "ctts", "stsc", "stsz", "stco", "stss"}) {
      boxes.push_back(stbl + "/" + table);
    }
    for (const std::string& path : boxes) {
      auto at = editor.at(path);
      for (uint32_t size : {0u, 1u, 7u, 15u, 20u, static_cast<uint32_t>(at.size) - 9, UINT32_MAX}) {
        // Media that end ahead of their last samples lose the tail that is too short for a box.
        if (path == "mdat" && size == at.size - 9) continue;
        expectSameSamplesOrUntouched(sound, isHEVC, path + " of " + std::to_string(size),
                                     [&](Bytes& bytes) { writeUInt32(bytes, size, at.offset); });
      }
      for (uint64_t size : {uint64_t{0}, uint64_t{15}, uint64_t{1} << 63, UINT64_MAX}) {
        expectSameSamplesOrUntouched(sound, isHEVC, path + " of long " + std::to_string(size), [&](Bytes& bytes) {
          writeUInt32(bytes, 1, at.offset);
          writeUInt64(bytes, size, at.offset + 8);
        });
      }
    }
    for (std::string table : {"stsd", "stts", "ctts", "stsc", "stsz", "stco", "stss"}) {
      // A new stsd heals a wrong count, which other readers refuse.
      if (table == "stsd" && sound.changes) continue;
      size_t count = editor.at(stbl + "/" + table).offset + (table == "stsz" ? 16 : 12);
      expectSameSamplesOrUntouched(sound, isHEVC, table + " of 2^32-1 entries",
                                   [&](Bytes& bytes) { writeUInt32(bytes, UINT32_MAX, count); });
    }
    expectSameSamplesOrUntouched(sound, isHEVC, "stsz of 2^32-1 entries of one byte", [&](Bytes& bytes) {
      writeUInt64(bytes, uint64_t{1} << 32 | UINT32_MAX, editor.at(stbl + "/stsz").offset + 12);
    });
    for (size_t length = 0; length < editor.at("mdat").offset + 200; length += 61) {
      expectSameSamplesOrUntouched(sound, isHEVC, "cut at " + std::to_string(length),
                                   [&](Bytes& bytes) { bytes.resize(length); });
    }
  }

  int repaired_ = 0;
  int refused_ = 0;
};

TEST_F(Damage, OfSizesCountsAndTables) {
  for (bool isHEVC : {true, false}) damageSizesCountsAndTables(movie(isHEVC), isHEVC);
  EXPECT_GT(repaired_, 20);
  EXPECT_GT(refused_, 200);
}

TEST_F(Damage, OfAMovieThatChanges) {
  for (bool isHEVC : {true, false}) damageSizesCountsAndTables(changingMovie(isHEVC), isHEVC);
  EXPECT_GT(repaired_, 20);
  EXPECT_GT(refused_, 200);
}

TEST_F(Damage, CutMediaIsNotSpliced) {
  Bytes damaged = movie(true).damaged;
  damaged.resize(damaged.size() - 1000);
  write(damaged);
  EXPECT_THAT([&] { remuxHEVC(files_); },
              testing::ThrowsMessage<MP4RemuxError>(testing::HasSubstr("Failed to copy mdat")));
  EXPECT_EQ(written(), damaged);
  expectNothingLeftBehind();
}

TEST_F(Damage, ByAFaultOfTheFileSystem) {
  using Operation = FileOperation;
  using Effect = Fault::Effect;
  for (auto [isChanging, effect] : {std::pair(false, Effect::none),
                                    {false, Effect::half},
                                    {false, Effect::whole},
                                    {true, Effect::none},
                                    {true, Effect::half},
                                    {true, Effect::whole}}) {
    const Bytes before = (isChanging ? changingMovie(true) : movie(true)).damaged;
    write(before);
    remuxHEVC(files_);
    const Bytes after = written();
    FaultyFileManager faulty(files_);
    int failures = 0;
    for (uint64_t call = 1;; ++call) {
      write(before);
      faulty.arm(
          {.call = call,
           .errnum = ENOSPC,
           .effect = effect,
           .among = {Operation::open, Operation::write, Operation::flush, Operation::close, Operation::replace}});
      bool hasFailed = false;
      try {
        remuxHEVC(faulty);
      } catch (const Error&) {
        hasFailed = true;
      }
      if (!faulty.fired()) {
        EXPECT_FALSE(hasFailed);
        break;
      }
      failures += hasFailed;
      // A replace that fails when all is done has put the new file in its place.
      Bytes now = written();
      EXPECT_TRUE(now == before || now == after) << "call " << call;
      EXPECT_TRUE(hasFailed || now == after) << "call " << call;
      expectNothingLeftBehind();
    }
    EXPECT_GT(failures, 6);
    EXPECT_EQ(written(), after);
  }
}

TEST_F(Damage, ByAReadThatFails) {
  const Bytes before = movie(true).damaged;
  write(before);
  remuxHEVC(files_);
  const Bytes after = written();
  FaultyFileManager faulty(files_);
  int failures = 0, losses = 0;
  for (uint64_t call = 1;; ++call) {
    write(before);
    log_.clear();
    faulty.arm({.call = call, .among = {FileOperation::read}});
    try {
      remuxHEVC(faulty);
    } catch (const Error&) {
      EXPECT_EQ(written(), before) << "call " << call;
      ++failures;
    }
    expectNothingLeftBehind();
    // One loss is borne: that of a small box that is neither moov nor mdat. The media keep their place.
    Bytes now = written();
    bool hasLostBox = log_.contains("WARNING: Failed to read ftyp box at offset 0");
    EXPECT_TRUE(now == before || now == after || hasLostBox) << "call " << call;
    if (hasLostBox) {
      EXPECT_EQ(decoderComplaints(file_), "");
    }
    losses += hasLostBox;
    if (!faulty.fired()) break;
  }
  EXPECT_GT(failures, 20);
  EXPECT_EQ(losses, 1);
  EXPECT_EQ(written(), after);
}

TEST_F(Damage, OfAMovieThatChangesByAReadThatFails) {
  const Bytes before = changingMovie(true).damaged;
  FaultyFileManager faulty(files_);
  int failures = 0;
  for (uint64_t call = 1; call == 1 || faulty.fired(); ++call) {
    write(before);
    faulty.arm({.call = call, .among = {FileOperation::read}});
    try {
      remuxHEVC(faulty);
    } catch (const Error&) {
      EXPECT_EQ(written(), before) << "call " << call;
      ++failures;
    }
    // A sample that cannot be read counts as one without parameter sets: it may change the entries, never the media.
    EXPECT_EQ(BoxEditor(written()).get("mdat"), BoxEditor(before).get("mdat")) << "call " << call;
    expectNothingLeftBehind();
  }
  EXPECT_GT(failures, 20);
}

}  // namespace
}  // namespace tarn
