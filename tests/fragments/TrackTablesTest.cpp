#include <gtest/gtest.h>

#include "fragments/TrackTables.h"
#include "mp4/DataExtensions.h"
#include "support/BoxBuilder.h"
#include "support/FailureOf.h"

namespace tarn::test {
namespace {

/// A sample table of four samples in two chunks.
MovieBox handMade(std::initializer_list<Bytes> changed) {
  MovieBox stbl = MovieBox::of(box("stbl"));
  for (const Bytes& child : {fullBox("stsd", {0}), fullBox("stts", {1, 4, 10}), fullBox("stsc", {1, 1, 2, 1}),
                             fullBox("stsz", {0, 4, 5, 6, 7, 8}), fullBox("stco", {2, 100, 200})}) {
    stbl.children.push_back(MovieBox::of(child));
  }
  for (const Bytes& child : changed) {
    const MovieBox made = MovieBox::of(child);
    if (made.type == "stz2") stbl.removeAll("stsz");
    if (made.type == "co64") stbl.removeAll("stco");
    stbl.put(made);
  }
  return stbl;
}

/// Which group each of so many samples in a row is in.
Bytes sbgp(std::initializer_list<uint32_t> rows) {
  return box("sbgp",
             {values({0}), bytesFrom("'roll'"), values({static_cast<uint32_t>(rows.size() / 2)}), values(rows)});
}

TEST(TrackTables, MergeTheGroupsOfFragmentsIntoTheirOwn) {
  const auto sgpd = [](std::initializer_list<uint32_t> distances) {
    const Bytes head = values({0x01000000}), counts = values({4, static_cast<uint32_t>(distances.size())});
    return box("sgpd", {head, bytesFrom("'roll'"), counts, values(distances)});
  };
  MovieBox stbl = handMade({sgpd({7, 8})});
  TrackTables tables = TrackTables::read(stbl);
  tables.appendGroups(1, sbgp({1, 2}), std::nullopt);
  tables.appendGroups(3, sbgp({900, 0x10001}), sgpd({8}));  // of 900 samples there is one
  for (int i = 0; i < 3; ++i) tables.append({.offset = 1});
  tables.appendGroups(5, sbgp({1, 0x10002, 1, 0x10001}), sgpd({9, 7}));
  tables.writeTo(stbl);
  EXPECT_EQ(stbl.find({"sbgp"})->plainBytes(), sbgp({1, 0, 1, 2, 1, 0, 1, 2, 1, 0, 1, 1, 1, 3}));
  EXPECT_EQ(stbl.find({"sgpd"})->plainBytes(), sgpd({7, 8, 9}));
  const auto failure = [&](uint64_t first, const Bytes& groups) {
    return failureOf([&] { tables.appendGroups(first, groups, sgpd({9, 7})); });
  };
  EXPECT_EQ(failure(7, sbgp({1, 0x10003})), "An sbgp names group 3 of 2");
  EXPECT_EQ(failure(6, sbgp({1, 1})), "Two sbgp boxes put one sample into groups");
}

TEST(TrackTables, KeepTheFormOfTheirBoxesWhileItHoldsThem) {
  const Bytes nibbles = box("stz2", {values({0, 4, 4, 0x56780000})}),
              longOffsets = fullBox("co64", {2, 0, 100, 0, 200});
  struct Case {
    std::initializer_list<Bytes> boxes;
    TrackSample appended;
    Bytes expected;
  };
  const Case cases[] = {
      {{}, {.offset = 215, .size = 9}, fullBox("stco", {2, 100, 200})},
      {{}, {.offset = 215, .size = 9}, fullBox("stsc", {2, 1, 2, 1, 2, 3, 1})},
      {{}, {.offset = 216, .size = 9}, fullBox("stco", {3, 100, 200, 216})},
      {{}, {.offset = 215, .description = 2}, fullBox("stsc", {2, 1, 2, 1, 3, 1, 2})},
      {{}, {.offset = uint64_t{1} << 32}, fullBox("co64", {3, 0, 100, 0, 200, 1, 0})},
      {{longOffsets}, {.offset = 7}, fullBox("co64", {3, 0, 100, 0, 200, 0, 7})},
      {{nibbles}, {.size = 9}, box("stz2", {values({0, 4, 5}), bytesFrom("567890")})},
      {{nibbles}, {.size = 16}, fullBox("stsz", {0, 5, 5, 6, 7, 8, 16})},
      {{box("stz2", {values({0, 16, 4, 0x00050006, 0x00070008})})},
       {.size = 0x1234},
       box("stz2", {values({0, 16, 5}), bytesFrom("0005 0006 0007 0008 1234")})},
      {{fullBox("stsz", {8, 4})}, {.size = 8}, fullBox("stsz", {8, 5})},
      {{fullBox("stsz", {8, 4})}, {.size = 9}, fullBox("stsz", {0, 5, 8, 8, 8, 8, 9})},
      {{}, {.duration = 9, .compositionOffset = -3}, box("ctts", {values({0x01000000, 2, 4, 0, 1, 0xFFFFFFFD})})},
      {{fullBox("ctts", {1, 1, 7})}, {}, fullBox("ctts", {2, 1, 7, 4, 0})},
      {{fullBox("stts", {1, 2, 10})}, {.duration = 9}, fullBox("stts", {2, 4, 10, 1, 9})},
      {{}, {.isSync = false}, fullBox("stss", {4, 1, 2, 3, 4})},
      {{fullBox("stss", {3, 3, 1, 99})}, {}, fullBox("stss", {3, 1, 3, 5})},
      {{}, {.dependencies = 0x20}, box("sdtp", {values({0, 0}), bytesFrom("20")})},
  };
  for (const Case& each : cases) {
    MovieBox stbl = handMade(each.boxes);
    TrackTables tables = TrackTables::read(stbl);
    tables.append(each.appended);
    tables.writeTo(stbl);
    const std::string type(textOf(ByteView(each.expected).subspan(4, 4)));
    SCOPED_TRACE(&each - cases);
    ASSERT_TRUE(stbl.find({type}));
    EXPECT_EQ(stbl.find({type})->plainBytes(), each.expected);
    EXPECT_EQ(stbl.children.front().type, "stsd");
  }
}

TEST(TrackTables, LeaveNoWordsOfSamplesThatAreGone) {
  // Of four samples. The sub-samples are those of samples 1, 3 and 4.
  const std::string priorities = "0001 0002 0003 0004", padding = "12 34";
  const std::string one = "00000001 0001 0005 00 00 00000000", three = "00000002 0000", four = "00000001 0000";
  const std::string longOnes = "00000003 0001 00010000 00 00 00000000";
  const auto stdp = [](const std::string& rows) { return box("stdp", {values({0}), bytesFrom(rows)}); };
  const auto padb = [](uint32_t count, const std::string& rows) {
    return box("padb", {values({0, count}), bytesFrom(rows)});
  };
  const auto subs = [](uint32_t count, const std::string& rows, uint32_t version = 0) {
    return box("subs", {values({version << 24 | 1, count}), bytesFrom(rows)});
  };
  struct Case {
    Bytes before;
    uint64_t samples;
    Bytes after;  ///< empty: it is gone
  };
  const auto sdtp = [](const std::string& rows) { return box("sdtp", {values({0}), bytesFrom(rows)}); };
  const Case cases[] = {
      {sdtp("10 20 14 18"), 3, sdtp("10 20 14")},
      {sdtp("10 20 14 18"), 5, sdtp("10 20 14 18 00")},
      {sbgp({1, 2, 3, 1}), 3, sbgp({1, 2, 2, 1})},
      {sbgp({1, 2}), 5, sbgp({1, 2})},
      {stdp(priorities), 4, stdp(priorities)},
      {stdp(priorities), 3, stdp("0001 0002 0003")},
      {stdp(priorities), 5, {}},
      {padb(4, padding), 4, padb(4, padding)},
      {padb(4, padding), 3, padb(3, "12 30")},
      {padb(4, padding), 2, padb(2, "12")},
      {padb(4, padding), 5, {}},
      {subs(3, one + three + four), 5, subs(3, one + three + four)},
      {subs(3, one + three + four), 3, subs(2, one + three)},
      {subs(3, one + three + four), 2, subs(1, one)},
      {subs(1, longOnes, 1), 3, subs(1, longOnes, 1)},
      {subs(1, longOnes, 1), 2, {}},
      {subs(3, one + "00000001 FFFF"), 4, subs(1, one)},
      {box("subs", {values({0})}), 4, {}},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(&each - cases);
    MovieBox stbl = handMade({each.before});
    TrackTables tables = TrackTables::read(stbl);
    tables.truncate(each.samples);
    while (tables.sampleCount() < each.samples) tables.append({.offset = 1000});
    tables.writeTo(stbl);
    const MovieBox* left = stbl.find({textOf(ByteView(each.before).subspan(4, 4))});
    ASSERT_EQ(left != nullptr, !each.after.empty());
    if (left) {
      EXPECT_EQ(left->plainBytes(), each.after);
    }
  }
}

TEST(TrackTables, RefuseTablesThatPromiseMoreThanTheyHold) {
  const std::pair<Bytes, std::string> cases[] = {
      {fullBox("stsz", {0, 5, 5, 6, 7, 8}), "The stsz promises 5 entries and holds 16 bytes"},
      {fullBox("stsz", {0}), "The stsz ends before its fields"},
      {box("stz2", {values({0, 8, 5, 1})}), "The stz2 promises 5 entries and holds 4 bytes"},
      {box("stz2", {values({0, 7, 5, 1})}), "The stz2 has sizes of 7 bits"},
      {fullBox("stts", {0x80000001, 4, 10}), "The stts promises 2147483649 entries and holds 8 bytes"},
      {fullBox("stts", {0}), "The stts names no sample"},
      {fullBox("stsc", {2, 3, 1, 1, 1, 1, 1}),
       "stsc entries are out of order: entry 1 begins at chunk 3 and what follows it at chunk 1"},
      {box("sbgp", {values({0, 1, 2, 1, 1})}), "An sbgp of 28 bytes promises 2 entries"},
      {box("sgpd", {values({0x01000000, 1, 4, 9})}), "An sgpd ends before its groups"},
  };
  for (const auto& [damaged, words] : cases) {
    EXPECT_EQ(failureOf([&, damaged = damaged] { TrackTables::read(handMade({damaged})); }), words);
  }
  MovieBox huge = handMade(
      {fullBox("stsz", {1, 0xFFFFFFFF}), fullBox("stts", {1, 0xFFFFFFFF, 10}), fullBox("stsc", {1, 1, 0xFFFFFFFF, 1})});
  const TrackTables tables = TrackTables::read(huge);
  EXPECT_EQ(tables.sampleCount(), 0xFFFFFFFFu);
  EXPECT_EQ(tables.samplesAheadOf(150), 50u);
  EXPECT_NE(failureOf([&] { tables.compositionTimes(); }), "");
}

}  // namespace
}  // namespace tarn::test
