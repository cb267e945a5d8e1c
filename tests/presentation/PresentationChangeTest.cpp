#include <gmock/gmock.h>

#include <functional>
#include <span>

#include "presentation/Harms.h"
#include "presentation/RepairHarms.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

/// Ten pictures of 40 ms from 80 ms on, a list that shows them from 0 on; twenty packets of 20 ms, of which the first
/// is hidden.
struct Movie {
  SyntheticTrack video{.handler = "vide",
                       .timescale = 1000,
                       .sampleEntry = visualSampleEntry("avc1"),
                       .stts = {{10, 40}},
                       .ctts = {{1, 80}, {1, 160}, {2, 40}, {1, 160}, {2, 40}, {1, 160}, {2, 40}},
                       .edits = {{400, 80}},
                       .samples = 10};
  SyntheticTrack audio{.timescale = 50000, .stts = {{20, 1000}}, .edits = {{380, 1000}}, .samples = 20, .trackID = 2};
  std::vector<SyntheticTrack> more = {};
  uint32_t timescale = 1000;
  std::function<void(BoxEditor&)> edit = [](BoxEditor&) {};

  Bytes bytes() const {
    std::vector<SyntheticTrack> tracks = {video, audio};
    tracks.insert(tracks.end(), more.begin(), more.end());
    BoxEditor editor(syntheticMovie(tracks, timescale));
    edit(editor);
    return editor.bytes;
  }
};

using Edit = std::function<void(Movie&)>;
using List = decltype(SyntheticTrack::edits);
using Words = std::vector<std::string>;

/// Another edit list of the video or the audio.
Edit videoList(const List& edits) {
  return [=](Movie& m) { m.video.edits = edits; };
}
Edit audioList(const List& edits) {
  return [=](Movie& m) { m.audio.edits = edits; };
}

Edit lists(const List& video, const List& audio, uint32_t movieTimescale = 1000) {
  return [=](Movie& m) { m.video.edits = video, m.audio.edits = audio, m.timescale = movieTimescale; };
}

Edit userData(std::initializer_list<Bytes> boxes) {
  return [all = box("udta", boxes)](Movie& m) {
    m.edit = [=](BoxEditor& editor) { editor.insert("moov", editor.at("moov/trak").offset, all); };
  };
}

/// A still from the media time on, behind all pictures.
Edit still(uint64_t length, int64_t from) {
  return [=](Movie& m) {
    m.video.edits = {{400, 80}, {length, from}};
    m.edit = [](BoxEditor& editor) { editor.setField(editor.at("moov/trak/edts/elst").offset + 36, 0); };
  };
}

struct HarmCase {
  const char* name;
  Edit before;
  Edit after;
  Words harms;
};

void nothing(Movie&) {}

class PresentationChangeTest : public FileTest {
 protected:
  Presentation read(const Bytes& movie) { return Presentation::read(files_, write(movie)); }

  std::vector<std::string> harms(const Movie& before, const Movie& after, const AnnouncedChange& announced = {},
                                 SharedBytes shared = std::nullopt) {
    Presentation old = read(before.bytes());
    Presentation young = read(after.bytes());
    const PresentationChange change = comparePresentations(old, young, shared, announced);
    return harmsOf(change, old, young, announced);
  }

  void expectHarms(std::span<const HarmCase> cases, const AnnouncedChange& announced) {
    for (const HarmCase& c : cases) {
      Movie before, after;
      c.before(before);
      c.after(after);
      EXPECT_THAT(harms(before, after, announced), testing::ElementsAreArray(c.harms)) << c.name;
    }
  }
};

TEST_F(PresentationChangeTest, TellsWhatWouldHarm) {
  const HarmCase cases[] = {
      {"nothing changes", nothing, nothing, {}},
      {"a list in parts says the same", nothing, videoList({{100, 80}, {300, 180}}), {}},
      {"the last edit reaches to the end of the media", nothing, audioList({{0, 1000}}), {}},
      {"the last picture is lost to the list", nothing, videoList({{360, 80}}), {"1 picture is hidden"}},
      {"pictures before the list are shown", videoList({{240, 240}}), videoList({{400, 80}}),
       Words{"4 pictures are shown that were hidden", "the sound comes 160 ms too early against the pictures"}},
      {"late sound", nothing, audioList({{45, -1}, {380, 1000}}),
       Words{"the sound comes 45 ms too late against the pictures"}},
      {"a millisecond is allowed", nothing, audioList({{1, -1}, {380, 1000}}), {}},
      {"a tick of the movie is allowed", nothing, lists({{40, 80}}, {{1, -1}, {38, 1000}}, 100), {}},
      {"the whole movie moves", nothing, lists({{45, -1}, {400, 80}}, {{45, -1}, {380, 1000}}), {}},
      {"a movie of one picture moves", videoList({{40, 80}}), lists({{45, -1}, {40, 80}}, {{45, -1}, {380, 1000}}), {}},
      {"a pause is lost", audioList({{200, 1000}, {100, -1}, {180, 11000}}), nothing,
       Words{"parts of the sound move by up to 100 ms against each other"}},
      {"a track plays once that played twice", audioList({{380, 1000}, {380, 1000}}), nothing,
       Words{"380 ms of the sound is hidden"}},
      {"a track plays twice that played once", nothing, videoList({{400, 80}, {400, 80}}),
       Words{"400 ms of the video is played that was not"}},
      {"pictures change places", nothing,
       [](Movie& m) {
         m.video.ctts[0].second = 120, m.video.ctts[2] = {1, 0}, m.video.ctts.insert(m.video.ctts.begin() + 3, {1, 40});
       },
       Words{"parts of the video move by up to 40 ms against each other"}},
      {"packets are laid anew", nothing,
       [](Movie& m) {
         m.audio.stts = {{10, 1000}, {10, 1100}};
       },
       Words{"parts of the sound move by up to 18 ms against each other"}},
      {"a damaged list counts as none", audioList({{400, -2}}), audioList({}), {}},
      {"a list that becomes damaged", audioList({}), audioList({{400, -2}}), {"the edit list of the sound is damaged"}},
      {"a still lasts half as long", still(100, 80), still(50, 80), {"50 ms of the video is hidden"}},
      {"a still of another moment", still(100, 80), still(100, 160),
       Words{"100 ms of the video is hidden", "100 ms of the video is played that was not"}},
      {"packets are lost", nothing, [](Movie& m) { m.audio.samples = 19; },
       Words{"1 packet of the sound is lost", "20 ms of the sound is hidden"}},
      {"a second sound is lost", [](Movie& m) { m.more = {m.audio}, m.more[0].trackID = 3; }, nothing,
       Words{"the sound (track 3) is lost"}},
      {"a track is switched off", nothing,
       [](Movie& m) { m.edit = [](BoxEditor& editor) { editor.setField(editor.at("moov/trak/tkhd").offset + 8, 1); }; },
       Words{"the video is turned otherwise, or switched on or off"}},
      {"the cover is lost", userData({box("name"), box("cprt")}), userData({box("cprt")}),
       Words{"metadata is lost: moov/udta/name"}},
  };
  expectHarms(cases, {});
}

TEST_F(PresentationChangeTest, OfANewTrackOnlyTheTimesCount) {
  // At another timescale, in packets of another length, the last one cut.
  const auto remade = [](const List& edits, uint32_t wholePackets = 17) -> Edit {
    return [=](Movie& m) {
      m.audio.timescale = 44100;
      m.audio.stts = {{wholePackets, 1024}, {1, 100}};
      m.audio.samples = wholePackets + 1;
      m.audio.edits = edits;
    };
  };
  /// The second edit of the sound holds.
  const auto withStill = [](const Edit& movie) -> Edit {
    return [=](Movie& m) {
      movie(m);
      m.edit = [](BoxEditor& editor) { editor.setField(editor.all("moov/trak/edts/elst").at(1).offset + 36, 0); };
    };
  };
  const List whole = {{380, 882}};
  const HarmCase cases[] = {
      {"encoded", nothing, remade(whole), {}},
      {"a gap after the last packet is not encoded",
       [](Movie& m) {
         m.audio.stts = {{19, 1000}, {1, 30000}};
         m.audio.edits = {{0, 1000}};
       },
       remade(whole),
       {}},
      {"2 ms are allowed", nothing, remade({{2, -1}, {380, 882}}), {}},
      {"late by the priming", nothing, remade({{380, 0}}),
       Words{"the sound comes 20 ms too late against the pictures", "20 ms of the sound is hidden",
             "20 ms of the sound is played that was not"}},
      {"a pause in other ticks, so that it comes microseconds later", audioList({{200, 1001}, {100, -1}, {180, 11001}}),
       remade({{200, 883}, {100, -1}, {180, 9703}}), Words{}},
      {"the pause is lost", audioList({{200, 1000}, {100, -1}, {180, 11000}}), remade(whole),
       Words{"parts of the sound move by up to 100 ms against each other"}},
      {"a still is lost", withStill(audioList({{280, 1000}, {100, 1000}})), remade({{280, 882}}),
       Words{"100 ms of the sound is hidden"}},
      {"a still is shorter", withStill(audioList({{280, 1000}, {100, 1000}})),
       withStill(remade({{280, 882}, {60, 882}})), Words{"40 ms of the sound is hidden"}},
      {"a trim is lost", audioList({{200, 1000}}), remade(whole), {"177 ms of the sound is played that was not"}},
      {"the end is lost", nothing, remade(whole, 14), {"73 ms of the sound is hidden"}},
      {"more than there was", nothing, remade({{480, 882}}, 22), {"100 ms of the sound is played that was not"}},
  };
  expectHarms(cases, {.remadeTrack = 2});
}

TEST_F(PresentationChangeTest, PacketsThatAreCopiedMayLieAPacketOffTheirPlace) {
  Movie after;
  after.audio.edits.insert(after.audio.edits.begin(), {20, -1});
  EXPECT_THAT(harms({}, after, {.remadeTrack = 2, .packetLength = 20ms}), IsEmpty());
  EXPECT_THAT(harms({}, after, {.remadeTrack = 2, .packetLength = 10ms}),
              ElementsAre("the sound comes 20 ms too late against the pictures"));
}

TEST_F(PresentationChangeTest, BytesAreTheSameWhereTheyWereCopied) {
  // The media move behind a box of 100 bytes.
  Movie after;
  after.edit = [](BoxEditor& editor) {
    for (const auto& stco : editor.all("moov/trak/mdia/minf/stbl/stco")) {
      for (size_t at = stco.offset + 16; at < stco.end(); at += 4) editor.setField(at, editor.field(at) + 100);
    }
    Bytes free = box("free", {Bytes(92)});
    editor.bytes.insert(editor.bytes.begin(), free.begin(), free.end());
  };
  Bytes old = Movie().bytes();
  uint64_t media = BoxEditor(old).at("mdat").size;
  const CopiedRange whole[] = {{0, 100, media}};
  const CopiedRange parts[] = {{8, 108, 17}, {25, 125, media - 25}};
  const CopiedRange elsewhere[] = {{8, 108, 17}, {25, 126, media - 25}};
  const CopiedRange gap[] = {{8, 108, 17}, {26, 126, media - 26}};
  EXPECT_THAT(harms({}, after, {}, whole), IsEmpty());
  EXPECT_THAT(harms({}, after, {}, parts), IsEmpty());
  EXPECT_THAT(harms({}, after, {}, elsewhere),
              ElementsAre("5 pictures are changed", "20 packets of the sound are changed"));
  EXPECT_THAT(harms({}, after, {}, gap), ElementsAre("1 picture is changed"));
  EXPECT_THAT(harms({}, after), ElementsAre("10 pictures are changed", "20 packets of the sound are changed"));
  EXPECT_THAT(harms({}, after, {.comparesBytes = false}), IsEmpty());
  Movie resized;
  resized.edit = [](BoxEditor& editor) {
    auto stsz = editor.at("moov/trak/mdia/minf/stbl/stsz");
    editor.setField(stsz.offset + 20, 2);
  };
  EXPECT_THAT(harms({}, resized, {.comparesBytes = false}), ElementsAre("1 picture is changed"));
}

TEST_F(PresentationChangeTest, TheCheckRefusesAndSaysWhy) {
  Presentation before = read(Movie().bytes());
  RewriteCheck check = requireHarmless(files_, before, {});
  const CopiedRange all[] = {{0, 0, 1 << 20}};
  Movie late;
  late.audio.edits.insert(late.audio.edits.begin(), {45, -1});
  late.video.edits = {{360, 80}};
  const struct {
    Bytes result;
    const char* words;
  } cases[] = {
      {late.bytes(), "1 picture is hidden; the sound comes 45 ms too late against the pictures"},
      {box("mdat"), "the result cannot be read: The file has no moov"},
      {Movie().bytes(), ""},
  };
  for (const auto& c : cases) {
    Path result = write(c.result);
    std::string words;
    try {
      check(result, all);
    } catch (const RefusedResult& refused) {
      words = refused.description();
    }
    EXPECT_EQ(words, c.words);
  }
}

TEST_F(PresentationChangeTest, ADamagedSourceHasNothingToCompareButAnUnreadableOneIsAFailure) {
  const Path movie = write(Movie().bytes()), damaged = directory_ / "damaged.mp4";
  writeFileAtomically(files_, damaged, box("mdat"));
  EXPECT_THAT(harmsOfRepair(files_, damaged, files_, movie, false), IsEmpty());
  EXPECT_THROW(harmsOfRepair(files_, "/there is no such file", files_, movie, false), PosixError);
}

TEST_F(PresentationChangeTest, ARealClipKeepsItsPresentationThroughAnotherMuxer) {
  Path clip = encodedVideo({.parameters = "b-adapt=0", .more = words("-f lavfi -i sine=r=48000:d=2 -c:a aac")});
  auto remuxed = [&](const std::string& options) {
    return madeByFFmpeg(words("-i " + clip.string() + " -c copy " + options));
  };
  Presentation before = Presentation::read(files_, clip);
  AnnouncedChange byTimes{.comparesBytes = false};
  auto harmsFrom = [&](const Path& file) {
    Presentation after = Presentation::read(files_, file);
    return harmsOf(comparePresentations(before, after, std::nullopt, byTimes), before, after, byTimes);
  };
  EXPECT_THAT(harmsFrom(remuxed("-movflags faststart")), IsEmpty());
  EXPECT_THAT(harmsFrom(remuxed("-movflags negative_cts_offsets")), IsEmpty());
  EXPECT_THAT(harmsFrom(remuxed("-video_track_timescale 90000")), IsEmpty());
  // Without its list the sound begins with its priming, against the pictures 59 ms (80 less 21) too early.
  EXPECT_THAT(harmsFrom(remuxed("-use_editlist 0")),
              testing::Contains("the sound comes 59 ms too early against the pictures"));
}

}  // namespace
}  // namespace tarn::test
