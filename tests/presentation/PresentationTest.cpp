#include <gmock/gmock.h>

#include "presentation/Presentation.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr std::string_view sampleTable = "moov/trak/mdia/minf/stbl";

class PresentationTest : public FileTest {
 protected:
  Presentation read(const Bytes& movie) { return Presentation::read(files_, write(movie)); }
  TrackPresentation onlyTrack(const SyntheticTrack& track) { return read(syntheticMovie({track})).tracks().at(0); }
};

/// Ten pictures of 40 ms, decoded in the order I P B B: the first is composed at 80 ms.
SyntheticTrack pictures() {
  return {.handler = "vide",
          .timescale = 1000,
          .sampleEntry = visualSampleEntry("avc1"),
          .stts = {{10, 40}},
          .ctts = {{1, 80}, {1, 160}, {2, 40}, {1, 160}, {2, 40}, {1, 160}, {2, 40}},
          .samples = 10};
}

/// Ten packets of 1000 ticks at 50 kHz, 20 ms each.
SyntheticTrack packets() {
  return {.timescale = 50000, .stts = {{10, 1000}}, .samples = 10};
}

struct ListCase {
  const char* name;
  SyntheticTrack track;
  std::vector<std::pair<uint64_t, int64_t>> edits;
  uint32_t shown;
  uint32_t clipped;
  std::optional<MovieTime> from;
  std::optional<MovieTime> to;
  EditListDamage damage = EditListDamage::none;
};

TEST_F(PresentationTest, ShowsWhatTheEditListShows) {
  SyntheticTrack early = pictures();
  early.ctts = {{1, -40}, {1, 40}, {2, -80}, {1, 40}, {2, -80}, {1, 40}, {2, -80}};
  SyntheticTrack doubled = pictures();
  doubled.ctts = {{1, 80}, {1, 40}, {8, 80}};  // two of 80 ms
  SyntheticTrack gap = packets();
  gap.stts = {{4, 1000}, {1, 0}, {1, 11000}, {4, 1000}};
  const ListCase cases[] = {
      {"no list: media time is movie time", pictures(), {}, 10, 0, 80ms, 480ms},
      {"from the first picture on", pictures(), {{400, 80}}, 10, 0, 0ms, 400ms},
      {"the last picture is cut off, and half of the one before", pictures(), {{340, 80}}, 9, 1, 0ms, 340ms},
      {"the first two are hidden, the list begins inside one", pictures(), {{300, 180}}, 8, 1, 0ms, 300ms},
      {"a tick of a picture is not seen", pictures(), {{361, 80}}, 9, 0, 0ms, 360ms},
      {"late", pictures(), {{300, -1}, {400, 80}}, 10, 0, 300ms, 700ms},
      {"a pause, then once more from the third on", pictures(), {{160, 80}, {500, -1}, {320, 160}}, 10, 0, 0ms, 980ms},
      {"no duration: to the end of the media", pictures(), {{300, -1}, {0, 160}}, 8, 0, 300ms, 620ms},
      {"composed before 0 without a list", early, {}, 10, 0, -40ms, 360ms},
      {"composed before 0, the list begins at 0", early, {{400, 0}}, 9, 0, 0ms, 360ms},
      {"of two pictures of one time the last counts", doubled, {}, 9, 0, 80ms, 480ms},
      {"sound: each part of a packet is heard", packets(), {{61, 500}}, 4, 2, 0ms, 61ms},
      {"sound: a gap lasts, a packet of no length is not heard", gap, {{1000, 3000}}, 6, 0, 0ms, 320ms},
      {"nothing but emptiness", packets(), {{500, -1}}, 10, 0, 0ms, 200ms, EditListDamage::showsNothing},
      {"a last edit that lasts no time", packets(), {{0, 10000}}, 10, 0, 0ms, 200ms, EditListDamage::liesBehindMedia},
      {"after the media", pictures(), {{40, 480}, {400, 520}}, 10, 0, 80ms, 480ms, EditListDamage::liesBehindMedia},
      {"one entry after the media", pictures(), {{400, 80}, {400, INT64_MAX}}, 10, 0, 0ms, 400ms},
      {"-2", packets(), {{500, -2}}, 10, 0, 0ms, 200ms, EditListDamage::mediaTimeBelowMinusOne},
  };
  for (const ListCase& c : cases) {
    SCOPED_TRACE(c.name);
    for (bool isLong : {false, true}) {
      SyntheticTrack track = c.track;
      track.edits = c.edits;
      track.longTimes = isLong;
      TrackPresentation shown = onlyTrack(track);
      EXPECT_EQ(shown.samplesShown, c.shown);
      EXPECT_EQ(shown.samplesClipped, c.clipped);
      EXPECT_EQ(shown.samplesHidden, 10 - c.shown);
      EXPECT_EQ(shown.shownFrom, c.from);
      EXPECT_EQ(shown.shownTo, c.to);
      EXPECT_EQ(shown.damage, c.damage);
      EXPECT_EQ(shown.hasEditList, !c.edits.empty());
    }
  }
}

TEST_F(PresentationTest, AnEditHoldsOrRunsAtItsOwnRate) {
  const struct {
    uint32_t rate;
    uint32_t shown;
    MovieTime to;
  } cases[] = {{0, 1, 100ms}, {0x8000, 2, 100ms}, {0x20000, 5, 100ms}, {0xFFFF0000, 10, 480ms}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.rate);
    SyntheticTrack track = pictures();
    track.edits = {{100, 80}};
    BoxEditor editor(syntheticMovie({track}));
    editor.setField(editor.at("moov/trak/edts/elst").offset + 24, c.rate);
    TrackPresentation shown = read(editor.bytes).tracks().at(0);
    EXPECT_EQ(shown.samplesShown, c.shown);
    EXPECT_EQ(shown.shownTo, c.to);
  }
  // A still of a moment before the first picture shows none, nor does one after the last.
  for (const auto& [from, to] : {std::pair(79, 400ms), {80, 500ms}, {479, 500ms}, {480, 400ms}}) {
    SyntheticTrack track = pictures();
    track.edits = {{400, 80}, {100, from}};
    BoxEditor editor(syntheticMovie({track}));
    editor.setField(editor.at("moov/trak/edts/elst").offset + 36, 0);
    EXPECT_EQ(read(editor.bytes).tracks().at(0).shownTo, to) << from;
  }
}

TEST_F(PresentationTest, TimesAreExactInCoarseAndFineTimescales) {
  // A hundred hours at a timescale that no power of ten divides; an edit of 1/3 s.
  SyntheticTrack track{.timescale = 44100, .stts = {{10, 1587600000}}, .edits = {{1, -1}, {1, 44100}}, .samples = 10};
  TrackPresentation shown = read(syntheticMovie({track}, 3)).tracks().at(0);
  EXPECT_EQ(shown.shownFrom, 333'333'333ns);
  EXPECT_EQ(shown.shownTo, 666'666'667ns);
  track.edits.clear();
  EXPECT_EQ(read(syntheticMovie({track}, 3)).tracks().at(0).shownTo, 100h);
}

TEST_F(PresentationTest, ReadsTheMovieWhereverItLiesAndNamesItsMetadata) {
  Bytes tags = box("ilst", {box("covr", {values({1})}), box("\xA9nam"), box("\xA9too")});
  Bytes user = box("udta", {box("meta", {values({0}), handlerBox("mdir"), tags})});
  BoxEditor editor(syntheticMovie({pictures(), packets()}));
  editor.insert("moov", editor.at("moov/trak").offset, user);
  editor.insert("moov/trak", editor.at("moov/trak/mdia").offset, box("tref", {box("cdsc", {values({2})})}));
  auto isExpected = [](const Presentation& presentation) {
    EXPECT_EQ(presentation.movieTimescale(), 1000U);
    ASSERT_NE(presentation.first("soun"), nullptr);
    EXPECT_EQ(presentation.first("soun")->codec, "mp4a");
    EXPECT_EQ(presentation.first("vide")->shownTo, 480ms);
    EXPECT_EQ(presentation.first("text"), nullptr);
  };
  Presentation plain = read(editor.bytes);
  isExpected(plain);
  EXPECT_THAT(plain.metadata(),
              ElementsAre("moov/mvhd", "moov/trak/tref", "moov/udta/meta/ilst/covr", "moov/udta/meta/ilst/©nam"));

  // The same far behind, in boxes with 64-bit sizes and behind a hole in the file.
  Bytes far = joined({editor.get("mdat"), longBoxClaiming(uint64_t{300} << 20, "free")});
  Path path = write(far);
  auto file = files_.open(path, OpenMode::updating);
  file->seek(editor.get("mdat").size() + (uint64_t{300} << 20));
  Bytes moov = editor.get("moov");
  file->write(longBox("moov", {Bytes(moov.begin() + 8, moov.end())}));
  file->close();
  isExpected(Presentation::read(files_, path));
}

TEST_F(PresentationTest, RefusesWhatItCannotKnow) {
  Bytes movie = syntheticMovie({packets()});
  BoxEditor noStts(movie);
  noStts.rename(std::string(sampleTable) + "/stts", "free");
  BoxEditor extended(movie);
  extended.insert("moov", extended.at("moov/trak").offset, box("mvex"));
  const struct {
    Bytes file;
    const char* words;
  } cases[] = {
      {box("mdat"), "no moov"},
      {noStts.bytes, "stts"},
      {extended.bytes, "fragmented"},
      {joined({movie, box("moof")}), "fragmented"},
  };
  for (const auto& c : cases) {
    EXPECT_THAT(failureOf([&] { read(c.file); }), HasSubstr(c.words));
    EXPECT_EQ(isFragmented(files_, write(c.file)), std::string_view(c.words) == "fragmented") << c.words;
  }
}

TEST_F(PresentationTest, ManySamplesAndManyEditsTakeNoMoreThanTheirTables) {
  // More than there may be pictures, with sizes of 4 bits; and a list that shows all of them a hundred thousand times.
  constexpr uint32_t samples = 9'000'000;
  SyntheticTrack track{.timescale = 1000, .stts = {{samples, 1}}, .samples = 10};
  track.edits.assign(100000, {samples, 0});
  BoxEditor editor(syntheticMovie({track}));
  editor.replace(editor.at(std::string(sampleTable) + "/stsz"),
                 box("stz2", {values({0, 4, samples}), Bytes(samples / 2, 0x11)}));
  editor.replace(editor.at(std::string(sampleTable) + "/stsc"), fullBox("stsc", {1, 1, samples, 1}));
  TrackPresentation shown = read(editor.bytes).tracks().at(0);
  EXPECT_EQ(shown.samplesShown, samples);
  EXPECT_EQ(shown.shownTo, 100000 * 9000s);
  EXPECT_EQ(shown.locations.sizeOf(samples - 1), 1U);
}

}  // namespace
}  // namespace tarn::test
