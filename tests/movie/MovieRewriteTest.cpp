#include <gtest/gtest.h>

#include "movie/MediaLayout.h"
#include "movie/MovieRewrite.h"
#include "support/BoxBuilder.h"
#include "support/FaultyFileManager.h"
#include "support/FileTest.h"

namespace tarn::test {
namespace {

const EditRules* const allRules[] = {&edit::remuxing, &edit::syncing, &edit::stripping, &edit::replacing};

const Bytes newMoov = box("moov", {Bytes(40)});

class MovieRewrite : public FileTest {
 protected:
  MediaLayout scan(const Bytes& movie, const EditRules& rules) { return MediaLayout::scan(*open(movie), rules); }

  /// The file with `newMoov`; the failure where there is none.
  std::string rewritten(const Bytes& movie, const EditRules& rules) {
    const Path target = directory_ / "target.mp4";
    RewriteListener quiet;
    const std::string failure = failureOf([&] {
      const MediaLayout layout = scan(movie, rules);
      auto source = files_.open(file_, OpenMode::reading);
      copied_ = rewriteMovie(*source, *files_.open(target, OpenMode::creating), layout, *layout.moov(rules), newMoov,
                             rules, quiet);
    });
    return failure.empty() ? std::string(textOf(readFile(files_, target))) : failure;
  }

  std::vector<CopiedRange> copied_;
};

TEST_F(MovieRewrite, CopiesEverythingAroundTheMoov) {
  const Bytes ahead = joined({box("ftyp", {Bytes(8)}), longBox("mdat", {Bytes(30, 'a')})});
  const Bytes behind = joined({box("free"), boxClaiming(0, "mdat", {Bytes(50, 'b')})}), moov = box("moov", {Bytes(3)});
  const Bytes expected = joined({ahead, newMoov, behind});
  for (const EditRules* rules : allRules) {
    EXPECT_EQ(rewritten(joined({ahead, moov, behind}), *rules), textOf(expected));
    EXPECT_EQ(copied_,
              (std::vector<CopiedRange>{{0, 0, ahead.size()},
                                        {ahead.size() + moov.size(), ahead.size() + newMoov.size(), behind.size()}}));
  }
}

TEST_F(MovieRewrite, MovesTheChunksThatLieBehindTheMoov) {
  const Bytes mdat = box("mdat", {Bytes(20)}), moov = box("moov"), tail = Bytes(5, 'x');
  const std::tuple<Bytes, int64_t, uint64_t> rows[] = {{joined({moov, mdat}), 9, 0},
                                                       {joined({mdat, moov}), 0, 0},
                                                       {joined({mdat, moov, mdat}), 9, 36},
                                                       {joined({mdat, moov, box("free")}), 0, 0}};
  for (const EditRules* rules : allRules) {
    for (const auto& [movie, delta, from] : rows) {
      const MediaLayout layout = scan(movie, *rules);
      const ChunkOffsetShift shift = layout.shift(*layout.moov(*rules), 9, *rules);
      EXPECT_EQ(std::pair(shift.delta, shift.movesFrom), std::pair(delta, from));
    }
    const MediaLayout layout = scan(joined({mdat, moov, tail}), *rules);
    EXPECT_EQ(layout.shift(*layout.moov(*rules), 9, *rules).delta, rules == &edit::remuxing ? 9 : 0)
        << "a tail is media for the remux alone";
  }
  const auto moves = scan(joined({mdat, moov, mdat}), edit::replacing).moves(1000);
  ASSERT_EQ(moves.size(), 2u);
  EXPECT_EQ(newPlace(36, moves), 1028u);
}

TEST_F(MovieRewrite, OnlyTheStripperTakesTheLastMoov) {
  const Bytes movie = joined({box("moov"), box("moov", {Bytes(1)})});
  for (const EditRules* rules : allRules) {
    EXPECT_EQ(scan(movie, *rules).moov(*rules)->offset, rules == &edit::stripping ? 8u : 0u);
  }
}

TEST_F(MovieRewrite, OnlyTheStripperDropsBytesThatAreNoBox) {
  for (const Bytes& tail : {Bytes(7, 'x'), values({5, 6, 7, 8, 9}), values({1, 0x66726565, 7})}) {
    const Bytes movie = joined({box("mdat"), box("moov"), tail});
    const Bytes whole = joined({box("mdat"), newMoov, tail}), cut = joined({box("mdat"), newMoov});
    for (const EditRules* rules : {&edit::remuxing, &edit::stripping, &edit::replacing}) {
      EXPECT_EQ(rewritten(movie, *rules), textOf(rules == &edit::stripping ? cut : whole));
    }
    EXPECT_EQ(rewritten(movie, edit::syncing), textOf(whole));
  }
  const Bytes cutBox = boxClaiming(90, "free", {Bytes(9)}), expected = joined({newMoov, cutBox});
  for (const EditRules* rules : allRules) EXPECT_EQ(rewritten(joined({box("moov"), cutBox}), *rules), textOf(expected));
}

TEST_F(MovieRewrite, RemuxAndStripperRefuseACutMdat) {
  const Bytes cut = boxClaiming(90, "mdat", {Bytes(9)}), expected = joined({newMoov, cut});
  const std::string refused = "Failed to read chunk during copy";
  const std::string results[] = {refused, std::string(textOf(expected)), refused, std::string(textOf(expected))};
  for (size_t i = 0; i < std::size(allRules); ++i) {
    EXPECT_EQ(rewritten(joined({box("moov"), cut}), *allRules[i]), results[i]);
  }
}

TEST_F(MovieRewrite, AHeaderThatCannotBeReadIsAFailureAndNotTheEnd) {
  write(joined({box("moov"), box("free"), box("mdat", {Bytes(30)}), longBox("free")}));
  FaultyFileManager faulty(files_);
  for (const EditRules* rules : allRules) {
    const uint64_t reads = faulty.sweep({.among = {FileOperation::read}}, [&](uint64_t call) {
      const std::string failure = failureOf([&] { MediaLayout::scan(*faulty.open(file_, OpenMode::reading), *rules); });
      EXPECT_EQ(failure.starts_with("Cannot read the box"), faulty.fired()) << "call " << call << ": " << failure;
    });
    EXPECT_EQ(reads, 5u);
  }
}

TEST_F(MovieRewrite, FreeSpaceStandsForASmallBoxThatCannotBeReadIfTheListenerSaysSo) {
  struct Giving : RewriteListener {
    bool becomesFree(const BoxHeader&) override { return true; }
  } giving;
  RewriteListener strict;
  const Bytes mdat = box("mdat", {Bytes(30, 'm')});
  write(joined({box("moov"), box("uuid", {Bytes(30, 'u')}), mdat}));
  auto source = files_.open(file_, OpenMode::reading);
  const MediaLayout layout = MediaLayout::scan(*source, edit::remuxing);
  FaultyFileManager faulty(files_);
  const auto rewrite = [&](RewriteListener& listener) {
    auto target = files_.open(directory_ / "target.mp4", OpenMode::creating);
    auto failing = faulty.open(file_, OpenMode::reading);
    faulty.arm({.among = {FileOperation::read}});
    copied_ = rewriteMovie(*failing, *target, layout, *layout.first("moov"), newMoov, edit::remuxing, listener);
  };
  EXPECT_EQ(failureOf([&] { rewrite(strict); }), "Failed to read chunk during copy");
  rewrite(giving);
  EXPECT_EQ(readFile(files_, directory_ / "target.mp4"), joined({newMoov, box("free", {Bytes(30)}), mdat}));
  EXPECT_EQ(copied_, (std::vector<CopiedRange>{{46, newMoov.size() + 38, 38}}));
}

}  // namespace
}  // namespace tarn::test
