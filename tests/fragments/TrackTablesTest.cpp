#include <gtest/gtest.h>

#include "fragments/TrackTables.h"
#include "movie/MoovCheck.h"
#include "mp4/MP4SampleTableParser.h"
#include "mp4/SampleTimes.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

/// A sample as readers that share nothing with the tables tell it.
struct ReadSample {
  uint64_t offset;
  uint32_t size;
  bool isSync;
  SampleTime time;
  uint32_t description;
  uint8_t dependencies;
  uint32_t group;

  bool operator==(const ReadSample&) const = default;
};
using ReadSamples = std::vector<ReadSample>;

/// The group of each sample from the first `sbgp`.
std::vector<uint32_t> groupsOf(const MovieBox& stbl) {
  std::vector<uint32_t> groups;
  const MovieBox* sbgp = stbl.find({"sbgp"});
  if (!sbgp) return groups;
  const Bytes box = sbgp->plainBytes();
  for (uint32_t i = 0, at = 20; i < readUInt32(box, 16); ++i, at += 8) {
    groups.insert(groups.end(), readUInt32(box, at).value(), readUInt32(box, at + 4).value());
  }
  return groups;
}

ReadSamples samplesOf(const MovieBox& stbl) {
  LogCapture log;
  InMemoryFileManager files;
  const Bytes bytes = stbl.bytes();
  writeFileAtomically(files, "/stbl", joined({bytes, Bytes(1 << 20)}));  // room for the media that sizes speak of
  const auto file = files.open("/stbl", OpenMode::reading);
  const BoxHeader header{0, bytes.size(), "stbl"};
  MP4SampleTableParser parser;
  parser.parseSampleTable(*file, header);
  ReadSamples samples;
  if (parser.sampleCount() == 0) return samples;
  const SampleTimes times(*file, header, parser.sampleCount());
  SampleTimes::Cursor time(times, 0);
  const auto groups = groupsOf(stbl);
  const MovieBox* sdtp = stbl.find({"sdtp"});
  for (const SampleInfo& info : parser.allSamples()) {
    const auto index = static_cast<size_t>(info.index);
    samples.push_back({info.fileOffset, info.size, info.isSyncSample, time.time(),
                       parser.sampleDescriptionIndex(info.index).value_or(0),
                       sdtp ? sdtp->contents.at(4 + index) : uint8_t{0}, index < groups.size() ? groups[index] : 0});
    time.advance();
  }
  return samples;
}

MovieBox moovOf(const Bytes& movie) {
  return MovieBox::parse(BoxEditor(movie).get("moov"), edit::remuxing);
}

std::vector<MovieBox> tablesOf(MovieBox moov) {
  std::vector<MovieBox> found;
  for (MovieBox& trak : moov.children) {
    if (trak.type == "trak") found.push_back(*trak.find({"mdia", "minf", "stbl"}));
  }
  return found;
}

/// Pictures in another order than they are decoded, and sound, in chunks of some samples.
Bytes clip(const std::string& codec) {
  return contentsOf(encodedVideo({.codec = codec,
                                  .parameters = "keyint=12:bframes=3",
                                  .more = words("-f lavfi -i sine=frequency=500:sample_rate=48000 -c:a aac")}));
}

/// The tables of real tracks, some of them with what ffmpeg does not write.
std::vector<MovieBox> realTables() {
  std::vector<MovieBox> tables = tablesOf(moovOf(clip("libx264")));
  for (MovieBox& stbl : tablesOf(moovOf(clip("libx265")))) tables.push_back(std::move(stbl));
  MovieBox rich = tables.front();
  const size_t samples = samplesOf(rich).size();
  Bytes dependencies = values({0});
  for (size_t i = 0; i < samples; ++i) dependencies.push_back(static_cast<uint8_t>(i / 3 * 16 + 1));
  rich.put(MovieBox::of(box("sdtp", {dependencies})));
  rich.put(MovieBox::of(box("sgpd", {values({0x01000000}), bytesFrom("'roll'"), values({2, 2, 0x00010002})})));
  rich.put(MovieBox::of(box("sbgp", {values({0}), bytesFrom("'roll'"), values({3, 10, 1, 5, 0, 20, 2})})));
  tables.push_back(std::move(rich));
  return tables;
}

TEST(TrackTables, KeepTheFirstSamplesAsTheyAreWhereverTheyAreCut) {
  for (const MovieBox& stbl : realTables()) {
    const ReadSamples all = samplesOf(stbl);
    ASSERT_GT(all.size(), 40u);
    const TrackTables whole = TrackTables::read(stbl);
    TrackTables tables = whole;
    EXPECT_EQ(tables.farthestEnd(), all.back().offset + all.back().size);
    for (size_t count = all.size() + 1; count-- > 0;) {
      SCOPED_TRACE(count);
      tables.truncate(count);
      MovieBox cut = stbl;
      tables.writeTo(cut);
      ASSERT_EQ(samplesOf(cut), ReadSamples(all.begin(), all.begin() + static_cast<ptrdiff_t>(count)));
      ASSERT_EQ(tables.sampleCount(), count);
      const auto end =
          count == all.size() ? all.back().time.decodeTime + all.back().time.delta : all[count].time.decodeTime;
      ASSERT_EQ(tables.duration(), static_cast<uint64_t>(end));
      ASSERT_EQ(tables.samplesDecodedAhead(tables.duration()), count);
      ASSERT_EQ(whole.samplesAheadOf(count == all.size() ? whole.farthestEnd() : all[count].offset), count);
    }
  }
}

TEST(TrackTables, MergeTheGroupsOfFragmentsIntoTheirOwn) {
  const auto sgpd = [](std::initializer_list<uint32_t> distances) {
    Bytes entries;
    for (const uint32_t distance : distances) entries = joined({entries, values({distance})});
    const auto count = static_cast<uint32_t>(distances.size());
    return box("sgpd", {values({0x01000000}), bytesFrom("'roll'"), values({4, count}), entries});
  };
  const auto sbgp = [](std::initializer_list<uint32_t> fields) {
    return box("sbgp", {values({0}), bytesFrom("'roll'"), values(fields)});
  };
  MovieBox stbl = tablesOf(moovOf(clip("libx264"))).front();
  stbl.put(MovieBox::of(sgpd({7, 8})));
  TrackTables tables = TrackTables::read(stbl);
  tables.truncate(4);
  tables.appendGroups(1, sbgp({1, 1, 2}), std::nullopt);
  tables.appendGroups(3, sbgp({1, 900, 0x10001}), sgpd({8}));  // of 900 samples there is one
  for (int i = 0; i < 3; ++i) tables.append({.offset = 1});
  tables.appendGroups(5, sbgp({2, 1, 0x10002, 1, 0x10001}), sgpd({9, 7}));
  tables.writeTo(stbl);
  EXPECT_EQ(groupsOf(stbl), (std::vector<uint32_t>{0, 2, 0, 2, 0, 1, 3}));
  EXPECT_EQ(stbl.find({"sgpd"})->plainBytes(), sgpd({7, 8, 9}));
  EXPECT_EQ(failureOf([&] {
              tables.appendGroups(7, sbgp({1, 1, 0x10003}), sgpd({9, 7}));
            }),
            "An sbgp names group 3 of 2");
  EXPECT_EQ(failureOf([&] {
              tables.appendGroups(6, sbgp({1, 1, 1}), std::nullopt);
            }),
            "Two sbgp boxes put one sample into groups");
}

/// A sample table of boxes written down by hand.
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
      {{box("stz2", {values({0, 4, 4, 0x56780000})})},
       {.size = 9},
       box("stz2", {values({0, 4, 5}), bytesFrom("567890")})},
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
  const Case cases[] = {
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
      {fullBox("stco", {0xFFFFFFFF, 1}), "The stco promises 4294967295 entries and holds 4 bytes"},
      {fullBox("co64", {2, 1, 1, 1}), "The co64 promises 2 entries and holds 12 bytes"},
      {fullBox("stts", {0x80000001, 4, 10}), "The stts promises 2147483649 entries and holds 8 bytes"},
      {fullBox("stts", {0}), "The stts names no sample"},
      {fullBox("ctts", {2, 4, 10}), "The ctts promises 2 entries and holds 8 bytes"},
      {fullBox("stss", {2, 4}), "The stss promises 2 entries and holds 4 bytes"},
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
