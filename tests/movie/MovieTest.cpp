#include "movie/MediaLayout.h"
#include "movie/MoovCheck.h"
#include "movie/MovieRewrite.h"
#include "movie/MovieTree.h"
#include "movie/TrackFields.h"
#include "support/BoxBuilder.h"
#include "support/FileTest.h"

namespace tarn::test {
namespace {

const Bytes oddBox = boxClaiming(12, "\xFF\xFE\x01\x02", {Bytes(4)}), newMoov = box("moov", {Bytes(40)});

using Answers = std::vector<std::string>;

/// What the workers say: remux, sync, strip and replace.
Answers answers(const std::function<std::string(const EditRules&)>& ask) {
  return {ask(edit::remuxing), ask(edit::syncing), ask(edit::stripping), ask(edit::replacing)};
}

class MovieTest : public FileTest {
 protected:
  MediaLayout scan(const Bytes& movie, const EditRules& rules) { return MediaLayout::scan(*open(movie), rules); }

  Answers readings(const Bytes& movie, const BoxHeader& moov) {
    auto file = open(movie);
    return answers([&](const EditRules& rules) { return failureOf([&] { readMoov(*file, moov, rules); }); });
  }

  /// What becomes of the bytes after the `moov` when it gets larger: they stay or go, or there is a failure. That they
  /// are copied is told.
  Answers rewritings(const Bytes& behind) {
    const Path target = directory_ / "target.mp4";
    return answers([&](const EditRules& rules) {
      std::vector<CopiedRange> copied;
      const std::string failure = failureOf([&] {
        const MediaLayout layout = scan(joined({box("moov"), behind}), rules);
        RewriteListener quiet;
        copied = rewriteMovie(*files_.open(file_, OpenMode::reading), *files_.open(target, OpenMode::creating), layout,
                              *layout.moov(rules), newMoov, rules, quiet);
      });
      if (!failure.empty()) return failure;
      const Bytes made = readFile(files_, target);
      if (made == newMoov) return std::string(copied.empty() ? "go" : "else");
      const bool isTold = copied == std::vector<CopiedRange>{{8, newMoov.size(), behind.size()}};
      return std::string(isTold && made == joined({newMoov, behind}) ? "stay" : "else");
    });
  }
};

TEST_F(MovieTest, LosesNothingOfAMoovThatItWritesAgain) {
  const Bytes stco = fullBox("stco", {1, 5}), junk = values({3, 7});
  const Bytes moovs[] = {
      box("moov"),
      box("moov", {oddBox, trackBox("vide", {oddBox, stco}), longBox("udta", {Bytes(9)})}),
      box("moov", {longBox("trak", {longBox("mdia", {stco})}), junk}),
      box("moov", {box("trak", {box("edts", {junk}), boxClaiming(900, "free", {Bytes(5)})}), Bytes(7, 'x')}),
  };
  for (const Bytes& moov : moovs) {
    EXPECT_EQ(answers([&](const EditRules& rules) {
                return MovieBox::parse(moov, rules).bytes() == moov ? "" : "otherwise";
              }),
              Answers(4));
  }
  const Bytes empty = box("free");
  Bytes many;
  for (int i = 0; i < 70000; ++i) many.insert(many.end(), empty.begin(), empty.end());
  EXPECT_EQ(failureOf([&] { MovieBox::parse(box("moov", {many}), edit::syncing); }), "The moov holds too many boxes");
}

TEST_F(MovieTest, ReadsAndWritesTheFieldThatTheVersionNames) {
  MovieBox narrow = MovieBox::of(fullBox("tkhd", {0, 0, 7, 0, 100}));
  MovieBox wide = MovieBox::of(box("tkhd", {values({0x01000000, 0, 0, 0, 0, 7, 0, 1, 100})}));
  MovieBox cut = MovieBox::of(fullBox("tkhd", {0, 0, 7}));
  EXPECT_EQ(trackIDField.load(&narrow), trackIDField.load(&wide));
  EXPECT_EQ(tkhdDurationField.load(&cut), std::nullopt);
  EXPECT_FALSE(tkhdDurationField.store(&cut, 1));
  EXPECT_EQ(tkhdDurationField.store(&narrow, 0x100000009)->after, 0xFFFFFFFFu);
  EXPECT_EQ(tkhdDurationField.store(&wide, 0x100000009)->before, 0x100000064u);
  EXPECT_EQ(tkhdDurationField.load(&wide), 0x100000009u);
}

TEST_F(MovieTest, MovesChunksAndMakesAnStcoACo64OnlyIfItMust) {
  const auto moov = [](const Bytes& table) { return box("moov", {trackBox("soun", {table})}); };
  MovieBox tree = MovieBox::parse(moov(fullBox("stco", {2, 100, 150})), edit::replacing);
  MovieBox& trak = tree.children.front();
  moveChunks(trak, std::vector<MediaMove>{{100, 200, 300}});
  EXPECT_EQ(tree.bytes(), moov(fullBox("stco", {2, 300, 350})));
  moveChunks(trak, std::vector<MediaMove>{{300, 400, 0xFFFFFFFF}});
  EXPECT_EQ(tree.bytes(), moov(fullBox("co64", {2, 0, 0xFFFFFFFF, 1, 49})));
  const std::vector<MediaMove> elsewhere = {{1, 2, 3}};
  EXPECT_EQ(failureOf([&] { moveChunks(trak, elsewhere); }), "A chunk lies in no mdat box");
}

TEST_F(MovieTest, OnlySyncTakesACutMoovAndOnlyTheReplacerALongOne) {
  const std::string cut = "The moov box extends beyond the end of the file";
  EXPECT_EQ(readings(boxClaiming(50, "moov", {Bytes(20)}), {.size = 50, .type = "moov"}), (Answers{cut, "", cut, cut}));
  const Bytes parts = joined({box("mvhd"), boxClaiming(99, "udta", {Bytes(12)})});
  EXPECT_EQ(MovieBox::parse(boxClaiming(50, "moov", {parts}), edit::syncing).bytes(), box("moov", {parts}));
  EXPECT_EQ(readings(Bytes(4), {.size = 50, .type = "moov"}), Answers(4, "Cannot read moov box"));
  const std::string isLong = "The moov box at 0 has a 64-bit size";
  EXPECT_EQ(readings(longBox("moov"), {.size = 16, .type = "moov", .headerSize = 16}),
            (Answers{isLong, isLong, isLong, ""}));
  EXPECT_EQ(MovieBox::parse(longBox("moov"), edit::replacing).bytes(), longBox("moov"));
}

TEST_F(MovieTest, HeadersOnTheWayToTheTablesArePlainOrShortOrAny) {
  const Bytes track = trackBox("vide", {fullBox("stco", {0})});
  const std::string place = "trak box at 8 of the moov ";
  const std::string plain = place + "lies at or behind a box without a plain 32-bit size or type, at 8";
  const std::string behind = "The trak box at 108 ", over = "extends beyond its parent: it ends at ";
  const struct {
    Bytes moov;
    std::string remux, sync, replace = {};
  } rows[] = {
      {box("moov", {oddBox, longBox("udta"), track, boxClaiming(900, "free")}), "", ""},
      {box("moov", {longBox("trak", {Bytes(8)})}), plain, behind + "has a 64-bit size"},
      {box("moov", {boxClaiming(0, "trak", {mediaBox("vide")})}), plain, ""},
      {box("moov", {boxClaiming(500, "trak", {mediaBox("vide")})}), place + over + "508, its parent at 57",
       behind + "reaches over the end of the moov"},
      {box("moov", {trackBox("vide", {boxClaiming(400, "stsd")})}),
       "stsd box at 73 of the moov " + over + "473, its parent at 81", ""},
      {box("moov", {track, box("mdat")}), "moov box holds the media", "The moov box holds media, at 189",
       "The moov box holds media, at 189"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(
        answers([&](const EditRules& rules) { return failureOf([&] { requireEditable(row.moov, 100, rules); }); }),
        (Answers{row.remux, row.sync, row.sync, row.replace}));
  }
}

TEST_F(MovieTest, WorkersTakeDamagedAndOddMoviesEachInItsWay) {
  const Bytes overrun = box("moov", {box("trak", {boxClaiming(90, "tkhd", {Bytes(20)})})});
  EXPECT_EQ(answers([&](const EditRules& rules) {
              const MovieBox tree = MovieBox::parse(overrun, rules);
              const MovieBox* tkhd = tree.find({"trak", "tkhd"});
              return !tkhd ? "hidden" : tkhd->isCut ? "cut" : "whole";
            }),
            (Answers{"cut", "cut", "cut", "hidden"}));
  EXPECT_EQ(failureOf([&] { MovieBox::parse(box("moov", {boxClaiming(90, "trak", {Bytes(20)})}), edit::replacing); }),
            "trak reaches over its moov");

  const Bytes openBoxes = box("moov", {boxClaiming(0, "trak", {boxClaiming(0, "free", {Bytes(3)})})});
  const Bytes plain = box("moov", {box("trak", {box("free", {Bytes(3)})})});
  EXPECT_EQ(answers([&](const EditRules& rules) {
              const Bytes written = MovieBox::parse(openBoxes, rules).bytes();
              return written == openBoxes ? "stays" : written == plain ? "written out" : "else";
            }),
            (Answers{"stays", "stays", "stays", "written out"}));

  const auto moov = [](uint32_t first, uint32_t second) {
    const Bytes tables = joined({fullBox("stco", {1, first}), fullBox("co64", {1, 0, second})});
    return box("moov", {trackBox("vide", {tables}), trackBox("soun", {fullBox("co64", {1, 0, first})})});
  };
  EXPECT_EQ(answers([&](const EditRules& rules) {
              Bytes moved = moov(50, 50);
              moveChunks(moved, {.delta = 7}, rules);
              return moved == moov(57, 57) ? "all" : moved == moov(57, 50) ? "first" : "else";
            }),
            (Answers{"all", "first", "all", "all"}));

  const auto track = [](const char* handler, uint32_t id) {
    return box("trak", {fullBox("tkhd", {0, 0, id}), box("mdia", {handlerBox(handler), box("minf", {box("smhd")})})});
  };
  const auto sounds = [](const Bytes& bytes) {
    return answers([&](const EditRules& rules) {
      MovieBox tree = MovieBox::parse(bytes, rules);
      const MovieBox* sound = findTrack(tree, MP4TrackType::audio, rules);
      return sound ? std::to_string(*trackIDField.load(sound->find({"tkhd"}))) : "none";
    });
  };
  EXPECT_EQ(sounds(box("moov", {track("text", 1), track("soun", 2)})), (Answers{"2", "2", "1", "2"}));
  EXPECT_EQ(sounds(box("moov", {track("text", 1)})), (Answers{"none", "none", "1", "1"}));
}

TEST_F(MovieTest, WhatIsAfterTheMoovStaysGoesOrIsRefused) {
  const std::string refused = "Failed to read chunk during copy";
  EXPECT_EQ(rewritings(box("mdat", {Bytes(40)})), Answers(4, "stay"));
  EXPECT_EQ(rewritings(joined({box("uuid", {Bytes(11'000'000, 5)}), box("free")})), Answers(4, "stay"));
  EXPECT_EQ(rewritings(boxClaiming(90, "free", {Bytes(9)})), Answers(4, "stay"));
  EXPECT_EQ(rewritings(boxClaiming(90, "mdat", {Bytes(9)})), (Answers{refused, "stay", refused, "stay"}));
  for (const Bytes& noBox : {Bytes(7, 'x'), values({5, 6, 7, 8, 9}), values({1, 0x66726565, 7})}) {
    EXPECT_EQ(rewritings(noBox), (Answers{"stay", "stay", "go", "stay"}));
  }
  const Bytes two = joined({box("moov"), box("mdat"), box("moov", {Bytes(1)}), Bytes(5, 'x')});
  EXPECT_EQ(answers([&](const EditRules& rules) {
              const MediaLayout layout = scan(two, rules);
              const BoxHeader moov = *layout.moov(rules);
              return std::to_string(moov.offset) + " " + std::to_string(layout.shift(moov, 9, rules).delta);
            }),
            (Answers{"0 9", "0 9", "16 0", "0 9"}))
      << "the moov that counts, and whether the media move with it";
  const MediaLayout around = scan(joined({box("mdat"), box("moov"), box("mdat")}), edit::syncing);
  EXPECT_EQ(around.shift(*around.first("moov"), 9, edit::syncing).movesFrom, 16u) << "media before the moov stay";
}

}  // namespace
}  // namespace tarn::test
