#include <gtest/gtest.h>

#include "movie/MoovCheck.h"
#include "movie/MovieTree.h"
#include "movie/TrackFields.h"
#include "support/BoxBuilder.h"
#include "support/FileTest.h"

namespace tarn::test {
namespace {

const EditRules* const allRules[] = {&edit::remuxing, &edit::syncing, &edit::stripping, &edit::replacing};

const Bytes oddBox = boxClaiming(12, "\xFF\xFE\x01\x02", {Bytes(4)});

/// What each worker says, in the order of allRules.
std::vector<std::string> answers(const std::function<std::string(const EditRules&)>& ask) {
  std::vector<std::string> said;
  for (const EditRules* rules : allRules) said.push_back(ask(*rules));
  return said;
}

TEST(MovieTree, LosesNothingOfAMoovThatItWritesAgain) {
  const Bytes stco = fullBox("stco", {1, 5}), junk = values({3, 7});
  const Bytes moovs[] = {
      box("moov"),
      box("moov", {oddBox, trackBox("vide", {oddBox, stco}), longBox("udta", {Bytes(9)})}),
      box("moov", {longBox("trak", {longBox("mdia", {stco})}), junk}),
      box("moov", {box("trak", {box("edts", {junk}), boxClaiming(900, "free", {Bytes(5)})}), Bytes(7, 'x')}),
  };
  for (const Bytes& moov : moovs) {
    for (const EditRules* rules : allRules) EXPECT_EQ(MovieBox::parse(moov, *rules).bytes(), moov);
  }
}

TEST(MovieTree, GivesTheBoxesAroundAnEditTheirNewSizes) {
  const Bytes oldList = fullBox("elst", {1, 2, 3, 4}), newList = fullBox("elst", {0}), tail = values({3, 7});
  const auto moov = [&](const Bytes& list) {
    return box("moov", {oddBox, longBox("trak", {box("edts", {list}), tail}), box("udta")});
  };
  MovieBox tree = MovieBox::parse(moov(oldList), edit::syncing);
  tree.find({"trak", "edts"})->put(MovieBox::of(newList));
  EXPECT_EQ(tree.bytes(), moov(newList));
  tree.find({"trak"})->removeAll("edts");
  EXPECT_EQ(tree.bytes(), box("moov", {oddBox, longBox("trak", {tail}), box("udta")}));
  EXPECT_EQ(tree.find({"trak", "edts", "elst"}), nullptr);
}

TEST(MovieTree, RefusesMoreBoxesThanAnyMovieHas) {
  Bytes boxes;
  for (int i = 0; i < 70000; ++i) {
    const Bytes empty = box("free");
    boxes.insert(boxes.end(), empty.begin(), empty.end());
  }
  EXPECT_EQ(failureOf([&] { MovieBox::parse(box("moov", {boxes}), edit::syncing); }), "The moov holds too many boxes");
}

TEST(MovieTree, ReadsAndWritesTheFieldThatTheVersionNames) {
  MovieBox narrow = MovieBox::of(fullBox("tkhd", {0, 0, 7, 0, 100}));
  MovieBox wide = MovieBox::of(box("tkhd", {values({0x01000000, 0, 0, 0, 0, 7, 0, 1, 100})}));
  MovieBox cut = MovieBox::of(fullBox("tkhd", {0, 0, 7}));
  EXPECT_EQ(trackIDField.load(&narrow), 7u);
  EXPECT_EQ(trackIDField.load(&wide), 7u);
  EXPECT_EQ(tkhdDurationField.load(&cut), std::nullopt);
  EXPECT_EQ(tkhdDurationField.load(nullptr), std::nullopt);
  EXPECT_FALSE(tkhdDurationField.store(&cut, 1));
  EXPECT_EQ(tkhdDurationField.store(&narrow, 0x100000009)->after, 0xFFFFFFFFu);
  EXPECT_EQ(tkhdDurationField.store(&wide, 0x100000009)->before, 0x100000064u);
  EXPECT_EQ(tkhdDurationField.load(&wide), 0x100000009u);
}

TEST(MovieTree, MakesAnStcoACo64OnlyIfItMust) {
  MovieBox moov = MovieBox::parse(box("moov", {trackBox("soun", {fullBox("stco", {2, 100, 150})})}), edit::replacing);
  moveChunks(moov.children.front(), std::vector<MediaMove>{{100, 200, 300}});
  EXPECT_EQ(moov.bytes(), box("moov", {trackBox("soun", {fullBox("stco", {2, 300, 350})})}));
  moveChunks(moov.children.front(), std::vector<MediaMove>{{300, 400, 0xFFFFFFFF}});
  EXPECT_EQ(moov.bytes(), box("moov", {trackBox("soun", {fullBox("co64", {2, 0, 0xFFFFFFFF, 1, 49})})}));
  EXPECT_EQ(failureOf([&] {
              moveChunks(moov.children.front(), std::vector<MediaMove>{{1, 2, 3}});
            }),
            "A chunk lies in no mdat box");
}

// --- What differs between the workers ---

class EditRulesTest : public FileTest {
 protected:
  std::vector<std::string> readings(const Bytes& movie, const BoxHeader& moov) {
    return answers([&](const EditRules& rules) {
      auto file = open(movie);
      return failureOf([&] { readMoov(*file, moov, rules); });
    });
  }
};

TEST_F(EditRulesTest, OnlySyncTakesAMoovThatTheFileCutsOff) {
  const std::string refused = "The moov box extends beyond the end of the file";
  EXPECT_EQ(readings(boxClaiming(50, "moov", {Bytes(20)}), {.size = 50, .type = "moov"}),
            (std::vector<std::string>{refused, "", refused, refused}));
  const Bytes cut = boxClaiming(50, "moov", {box("mvhd"), boxClaiming(99, "udta", {Bytes(12)})});
  EXPECT_EQ(MovieBox::parse(cut, edit::syncing).bytes(),
            box("moov", {box("mvhd"), boxClaiming(99, "udta", {Bytes(12)})}));
  EXPECT_EQ(readings(Bytes(4), {.size = 50, .type = "moov"}), (std::vector<std::string>(4, "Cannot read moov box")));
}

TEST_F(EditRulesTest, OnlyTheReplacerTakesAMoovWithA64BitSize) {
  const std::string refused = "The moov box at 0 has a 64-bit size";
  const Bytes moov = longBox("moov", {trackBox("soun", {})});
  EXPECT_EQ(readings(moov, {.size = moov.size(), .type = "moov", .headerSize = 16}),
            (std::vector<std::string>{refused, refused, refused, ""}));
  EXPECT_EQ(MovieBox::parse(moov, edit::replacing).bytes(), moov);
}

TEST_F(EditRulesTest, HeadersOnTheWayToTheTablesArePlainOrShortOrAny) {
  const Bytes track = trackBox("vide", {fullBox("stco", {0})});
  const struct {
    Bytes moov;
    std::string remux, sync;
  } rows[] = {
      {box("moov", {oddBox, longBox("udta"), track, boxClaiming(900, "free")}), "", ""},
      {box("moov", {longBox("trak", {Bytes(8)})}),
       "trak box at 8 of the moov lies at or behind a box without a plain 32-bit size or type, at 8",
       "The trak box at 108 has a 64-bit size"},
      {box("moov", {boxClaiming(0, "trak", {mediaBox("vide")})}),
       "trak box at 8 of the moov lies at or behind a box without a plain 32-bit size or type, at 8", ""},
      {box("moov", {boxClaiming(500, "trak", {mediaBox("vide")})}),
       "trak box at 8 of the moov extends beyond its parent: it ends at 508, its parent at 57",
       "The trak box at 108 reaches over the end of the moov"},
      {box("moov", {trackBox("vide", {boxClaiming(400, "stsd")})}),
       "stsd box at 73 of the moov extends beyond its parent: it ends at 473, its parent at 81", ""},
      {box("moov", {track, box("mdat")}), "moov box holds the media", "The moov box holds media, at 189"},
  };
  for (const auto& [moov, remux, sync] : rows) {
    EXPECT_EQ(answers([&, &moov = moov](const EditRules& rules) {
                return failureOf([&] { requireEditable(moov, 100, rules); });
              }),
              (std::vector<std::string>{remux, sync, sync, moov == rows[5].moov ? sync : ""}));
  }
}

TEST_F(EditRulesTest, TheReplacerDoesNotFindABoxThatReachesOverItsParent) {
  const Bytes moov = box("moov", {box("trak", {boxClaiming(90, "tkhd", {Bytes(20)})})});
  EXPECT_EQ(answers([&](const EditRules& rules) {
              const MovieBox tree = MovieBox::parse(moov, rules);
              const MovieBox* tkhd = tree.find({"trak", "tkhd"});
              return !tkhd ? "hidden" : tkhd->isCut ? "cut" : "whole";
            }),
            (std::vector<std::string>{"cut", "cut", "cut", "hidden"}));
  EXPECT_EQ(failureOf([&] { MovieBox::parse(box("moov", {boxClaiming(90, "trak", {Bytes(20)})}), edit::replacing); }),
            "trak reaches over its moov");
}

TEST_F(EditRulesTest, OnlyTheReplacerWritesOutASizeOf0) {
  const Bytes open = box("moov", {boxClaiming(0, "trak", {boxClaiming(0, "free", {Bytes(3)})})});
  const Bytes plain = box("moov", {box("trak", {box("free", {Bytes(3)})})});
  EXPECT_EQ(answers([&](const EditRules& rules) {
              const Bytes written = MovieBox::parse(open, rules).bytes();
              return written == open ? "stays" : written == plain ? "written out" : "else";
            }),
            (std::vector<std::string>{"stays", "stays", "stays", "written out"}));
}

TEST_F(EditRulesTest, SyncMovesOneTableOfATrackTheOthersAll) {
  const auto moov = [](uint32_t first, uint32_t second) {
    const Bytes tables = joined({fullBox("stco", {1, first}), fullBox("co64", {1, 0, second})});
    return box("moov", {trackBox("vide", {tables}), trackBox("soun", {fullBox("co64", {1, 0, first})})});
  };
  EXPECT_EQ(answers([&](const EditRules& rules) {
              Bytes moved = moov(50, 50);
              moveChunks(moved, {.delta = 7}, rules);
              return moved == moov(57, 57) ? "all" : moved == moov(57, 50) ? "first" : "else";
            }),
            (std::vector<std::string>{"all", "first", "all", "all"}));
}

TEST_F(EditRulesTest, ATrackIsKnownByItsHandlerOrItsMediaHeader) {
  const auto track = [](const char* handler, uint32_t id) {
    return box("trak", {fullBox("tkhd", {0, 0, id}), box("mdia", {handlerBox(handler), box("minf", {box("smhd")})})});
  };
  const auto found = [](const Bytes& moov) {
    return answers([&](const EditRules& rules) {
      MovieBox tree = MovieBox::parse(moov, rules);
      const MovieBox* audio = findTrack(tree, MP4TrackType::audio, rules);
      return audio ? std::to_string(*trackIDField.load(audio->find({"tkhd"}))) : "none";
    });
  };
  using Answers = std::vector<std::string>;
  EXPECT_EQ(found(box("moov", {track("text", 1), track("soun", 2)})), (Answers{"2", "2", "1", "2"}));
  EXPECT_EQ(found(box("moov", {track("text", 1)})), (Answers{"none", "none", "1", "1"}));
}

}  // namespace
}  // namespace tarn::test
