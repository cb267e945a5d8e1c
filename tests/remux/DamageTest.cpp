#include <functional>

#include "mp4/DataExtensions.h"
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
  /// One whose picture size changes gets two sample entries.
  struct Movie {
    Bytes damaged, twin;
  };
  Movie movie(bool isHEVC, bool isChanging) {
    VideoRecipe recipe = isHEVC ? inBandHEVC : inBandAVC, other = recipe;
    other.size = "256x160";
    MovieLayout layout(readFile(files_, isChanging ? joinedVideo({recipe, other}) : encodedVideo(recipe)));
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
    if (failureOf([&] { repair(isHEVC); }).empty()) {
      TempDirectory elsewhere;
      writeFileAtomically(files_, elsewhere / "twin.mp4", movie.twin);
      EXPECT_EQ(sampleHashes(file_), sampleHashes(elsewhere / "twin.mp4")) << what;
      ++repaired_;
    } else {
      EXPECT_EQ(written(), movie.damaged) << what;
      ++refused_;
    }
    expectNothingLeftBehind();
  }

  void damageSizesCountsAndTables(bool isHEVC, bool isChanging) {
    const Movie sound = movie(isHEVC, isChanging);
    auto expect = [&](const std::string& what, const std::function<void(Bytes&)>& damage) {
      expectSameSamplesOrUntouched(sound, isHEVC, what, damage);
    };
    const BoxEditor editor(sound.damaged);
    const std::string stbl = "moov/trak/mdia/minf/stbl", entry = stbl + (isHEVC ? "/stsd/hev1" : "/stsd/avc3");
    std::vector<std::string> boxes = {"ftyp", "moov", "moov/trak", "moov/trak/mdia", "moov/trak/mdia/minf",
                                      stbl,   entry,  "mdat",      entry + "/pasp"};
    for (const std::string table : {"stsd", "stts", "ctts", "stsc", "stsz", "stco", "stss"}) {
      boxes.push_back(stbl + "/" + table);
      // A new stsd heals a wrong count, which other readers refuse.
      if (table == "stsd" && isChanging) continue;
      size_t count = editor.at(boxes.back()).offset + (table == "stsz" ? 16 : 12);
      expect(table + " of 2^32-1 entries", [&](Bytes& bytes) { writeUInt32(bytes, UINT32_MAX, count); });
    }
    for (const std::string& path : boxes) {
      auto at = editor.at(path);
      for (uint32_t size : {0u, 1u, 7u, 15u, 20u, static_cast<uint32_t>(at.size) - 9, UINT32_MAX}) {
        // Media that end ahead of their last samples lose the tail that is too short for a box.
        if (path == "mdat" && size == at.size - 9) continue;
        expect(path + " of " + std::to_string(size), [&](Bytes& bytes) { writeUInt32(bytes, size, at.offset); });
      }
      for (uint64_t size : {uint64_t{0}, uint64_t{15}, uint64_t{1} << 63, UINT64_MAX}) {
        expect(path + " of long " + std::to_string(size), [&](Bytes& bytes) {
          writeUInt32(bytes, 1, at.offset);
          writeUInt64(bytes, size, at.offset + 8);
        });
      }
    }
    expect("stsz of 2^32-1 entries of one byte", [&](Bytes& bytes) {
      writeUInt64(bytes, uint64_t{1} << 32 | UINT32_MAX, editor.at(stbl + "/stsz").offset + 12);
    });
    for (size_t length = 0; length < editor.at("mdat").offset + 200; length += 61) {
      expect("cut at " + std::to_string(length), [&](Bytes& bytes) { bytes.resize(length); });
    }
  }

  int repaired_ = 0;
  int refused_ = 0;
};

TEST_F(Damage, OfSizesCountsAndTables) {
  for (bool isChanging : {false, true}) {
    for (bool isHEVC : {true, false}) damageSizesCountsAndTables(isHEVC, isChanging);
    EXPECT_GT(std::exchange(repaired_, 0), 20);
    EXPECT_GT(std::exchange(refused_, 0), 200);
  }
}

TEST_F(Damage, CutMediaIsNotSpliced) {
  Bytes damaged = movie(true, false).damaged;
  damaged.resize(damaged.size() - 1000);
  write(damaged);
  EXPECT_EQ(failureOf([&] { repair(true); }), "Write error: Failed to copy mdat");
  EXPECT_EQ(written(), damaged);
  expectNothingLeftBehind();
}

TEST_F(Damage, ByAFaultOfTheFileSystem) {
  using Operation = FileOperation;
  using Effect = Fault::Effect;
  const std::set among{Operation::open, Operation::write, Operation::flush, Operation::close, Operation::replace};
  for (bool isChanging : {false, true}) {
    const Bytes before = movie(true, isChanging).damaged;
    write(before);
    repair(true);
    const Bytes after = written();
    FaultyFileManager faulty(files_);
    for (Effect effect : {Effect::none, Effect::half, Effect::whole}) {
      int failures = 0;
      for (uint64_t call = 1; call == 1 || faulty.fired(); ++call) {
        write(before);
        faulty.arm({.call = call, .errnum = ENOSPC, .effect = effect, .among = among});
        bool hasFailed = !failureOf([&] { repair(true, faulty); }).empty();
        failures += hasFailed;
        // A replace that fails when all is done has put the new file in its place.
        Bytes now = written();
        EXPECT_TRUE(now == after || (hasFailed && now == before)) << "call " << call;
        EXPECT_TRUE(faulty.fired() || !hasFailed);
        expectNothingLeftBehind();
      }
      EXPECT_GT(failures, 6);
    }
  }
}

TEST_F(Damage, ByAReadThatFails) {
  for (bool isChanging : {false, true}) {
    const Bytes before = movie(true, isChanging).damaged;
    write(before);
    repair(true);
    const Bytes after = written();
    FaultyFileManager faulty(files_);
    int failures = 0, losses = 0;
    for (uint64_t call = 1; call == 1 || faulty.fired(); ++call) {
      write(before);
      log_.clear();
      faulty.arm({.call = call, .among = {FileOperation::read}});
      bool hasFailed = !failureOf([&] { repair(true, faulty); }).empty();
      failures += hasFailed;
      expectNothingLeftBehind();
      Bytes now = written();
      // One loss is borne: that of a small box that is neither moov nor mdat. And a sample that cannot be read counts
      // as one without parameter sets: it may change the entries. The media keep their place.
      bool hasLostBox = log_.contains("WARNING: Failed to read ftyp box at offset 0");
      losses += hasLostBox;
      bool mayDiffer = hasLostBox || (isChanging && faulty.fired());
      EXPECT_TRUE(hasFailed ? now == before : now == after || mayDiffer) << "call " << call;
      EXPECT_EQ(BoxEditor(now).get("mdat"), BoxEditor(before).get("mdat")) << "call " << call;
      EXPECT_TRUE(!hasLostBox || decoderComplaints(file_).empty());
    }
    EXPECT_GT(failures, 20);
    EXPECT_EQ(losses, 1);
  }
}

}  // namespace
}  // namespace tarn
