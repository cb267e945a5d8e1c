#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "fragments/CutMovie.h"
#include "fragments/FragmentsTest.h"
#include "support/BoxEditor.h"
#include "support/DamagedMovies.h"
#include "support/FaultyFileManager.h"
#include "support/MediaMaker.h"
#include "support/ProbedMovie.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

using CutMovieTest = FragmentsTest;

const std::string cutMoov =
    "The file ends within its moov, which says where its samples are: download it again, or rebuild it with `tarn "
    "repair --like`";

/// 3 s of pictures and sound.
MovieLayout shortClip() {
  const std::string sound = "-f lavfi -i sine=frequency=500:sample_rate=48000 -c:a aac";
  return MovieLayout(contentsOf(encodedVideo({.parameters = "keyint=25", .seconds = 3, .more = words(sound)})));
}

Bytes cutAt(Bytes movie, size_t size) {
  movie.resize(size);
  return movie;
}

TEST_F(CutMovieTest, CorrectsTheSizeOfAnMdatThatIsSaidTooLong) {
  const MovieLayout layout = shortClip();
  const size_t mdat = layout.ftyp.size() + layout.moov.size();
  for (const std::string media : {"mdat", "longMdat"}) {
    const Bytes healthy = layout.build("ftyp moov " + media);
    BoxEditor editor(healthy);
    for (const uint32_t surplus : {1u, 8u, 1000000u}) {
      editor.setField(media == "longMdat" ? mdat + 12 : mdat, static_cast<uint32_t>(healthy.size() - mdat) + surplus);
      EXPECT_EQ(join(editor.bytes), "");
      EXPECT_EQ(written(), healthy);
      EXPECT_FALSE(outcome_.isPartly);
    }
  }
}

TEST_F(CutMovieTest, LeavesAFileOfWholeBoxesAsItIs) {
  const MovieLayout layout = shortClip();
  MovieLayout wrongSize = layout;
  BoxEditor tables(layout.moov);
  tables.setField(tables.at(sampleTable + "/stsz").offset + 20, 1 << 30);
  wrongSize.moov = tables.bytes;
  // Behind whole media a moov the last bytes of which are not there.
  const Bytes longMovie = wrongSize.build("ftyp mdat moov");
  const Bytes files[] = {
      layout.moovAhead(),
      layout.build("ftyp mdat moov"),
      layout.build("ftyp moov openMdat"),
      layout.build("ftyp first moov second"),
      layout.build("ftyp moov mdat free"),
      layout.build("ftyp moov mdat tail"),
      joined({layout.moovAhead(), boxClaiming(99, "free", {Bytes(9)})}),
      wrongSize.moovAhead(),
      cutAt(longMovie, longMovie.size() - 5),
  };
  for (const Bytes& file : files) {
    SCOPED_TRACE(&file - files);
    EXPECT_EQ(join(file), "");
    EXPECT_EQ(written(), file);
    EXPECT_FALSE(outcome_.isPartly || isCutOff(files_, file_));
  }
}

TEST_F(CutMovieTest, RefusesWhatHoldsNoPicture) {
  const MovieLayout layout = shortClip();
  const Bytes whole = layout.moovAhead(), moovLast = layout.build("ftyp mdat moov");
  const BoxEditor editor(whole);
  const auto moov = editor.at("moov"), mdat = editor.at("mdat");
  const std::string lost = "The file ends before the first of its 75 pictures: download it again";
  const std::pair<Bytes, std::string> cases[] = {
      {cutAt(whole, mdat.offset + 500), lost},
      {cutAt(whole, mdat.offset + 3), lost},
      {cutAt(whole, moov.end() - 200), lost},
      {cutAt(whole, editor.at("moov/trak").end() - 1), cutMoov},
      {cutAt(whole, moov.offset + 9), cutMoov},
      {cutAt(moovLast, BoxEditor(moovLast).at("moov/trak").end() - 1), cutMoov},
  };
  for (const auto& [cut, said] : cases) {
    EXPECT_EQ(join(cut), "refused: " + said) << cut.size();
    EXPECT_TRUE(isCutOff(files_, file_));
  }
}

TEST_F(CutMovieTest, KeepsPicturesWhoseMoovEndsAfterTheirTrack) {
  const MovieLayout layout = shortClip();
  const Bytes whole = layout.build("ftyp mdat moov");
  const auto sound = BoxEditor(whole).all("moov/trak")[1];
  for (const size_t size : {sound.offset + 100, sound.end() - 1}) {
    EXPECT_EQ(join(cutAt(whole, size)),
              "the end of the file is missing: 3.0 of 3.0 s kept, 1 track lost whose table is cut off");
    EXPECT_TRUE(outcome_.isPartly);
    EXPECT_EQ(packetsOf(file_, false)["video"].size(), 75u);
    EXPECT_EQ(decoderComplaints(file_), "");
  }
  // What stands behind the tracks is no part of the video.
  EXPECT_EQ(join(cutAt(whole, whole.size() - 5)), "");
  EXPECT_FALSE(outcome_.isPartly);
}

/// The types of all boxes of a `moov`, in order.
std::vector<std::string> typesIn(const BoxTree& tree) {
  std::vector<std::string> types = {tree.type};
  for (const BoxTree& child : tree.children) std::ranges::move(typesIn(child), std::back_inserter(types));
  return types;
}

TEST_F(CutMovieTest, KeepsEveryOtherBoxInItsPlace) {
  MovieLayout layout = shortClip();
  const Bytes odd = box("odd!", {Bytes(40, 7)});
  BoxEditor editor(layout.moov);
  for (const std::string& sibling : {std::string("moov/trak"), std::string("moov/trak/mdia"), sampleTable + "/stsz"}) {
    editor.insert(sibling.substr(0, sibling.rfind('/')), editor.at(sibling).offset, odd);
  }
  layout.moov = editor.bytes;
  const Bytes whole = layout.build("ftyp uuid moov uuid mdat");
  join(cutAt(whole, whole.size() * 6 / 10));
  ASSERT_TRUE(outcome_.isPartly);
  EXPECT_EQ(decoderComplaints(file_), "");
  const BoxEditor before(whole), after(written());
  EXPECT_EQ(typesIn(BoxTree(after.get("moov"))), typesIn(BoxTree(before.get("moov"))));
  EXPECT_EQ(after.all("uuid").size(), 2u);
  for (const char* path : {"ftyp", "uuid", "moov/odd!", "moov/trak/odd!", "moov/trak/mdia/minf/stbl/odd!",
                           "moov/trak/mdia/minf/stbl/stsd", "moov/udta"}) {
    EXPECT_EQ(after.get(path), before.get(path)) << path;
  }
}

/// Samples of 10 bytes, each a tenth of a second long.
SyntheticTrack tenths(const std::string& handler, uint32_t samples) {
  return {.handler = handler,
          .timescale = 10,
          .stts = {{samples, 1}},
          .samples = samples,
          .sample = Bytes(10, 1),
          .mediaDuration = samples};
}

/// Samples, length of the media and of what is shown, and the edit list: "vide 30 30 30 (20 from -1, 10 from 5)".
std::string described(BoxTree& trak) {
  BoxTree& stbl = trak.at("mdia/minf/stbl");
  const auto number = [](const BoxTree& box, size_t at) { return readUInt32(box.fields, at).value(); };
  const std::string edits = editsOf(trak);
  return fmt::format("{} {} {} {}{}", textOf(ByteView(trak.at("mdia/hdlr").fields).subspan(8, 4)),
                     number(stbl.at("stsz"), 8), number(trak.at("mdia/mdhd"), 16), number(trak.at("tkhd"), 20),
                     edits.empty() ? "" : " (" + edits + ")");
}

/// A run that is killed behind the step, or amid it, finds a file of which nothing is missing.
TEST_F(CutMovieTest, TellsWhatIsLostHoweverOftenItIsKilled) {
  const Bytes whole = shortClip().moovAhead(), cut = cutAt(whole, whole.size() * 6 / 10);
  ASSERT_EQ(runStep(cut), "");
  const RunOutcome undisturbed = outcome_;
  ASSERT_EQ(undisturbed.leftAlone.size(), 1u);
  const Bytes kept = written();
  const auto rerun = [&](FileManager& files, RunRecorder& recorder) {
    ProcessingRun run = recorder.goOn(files);
    FragmentsStep().run(run);
    outcome_ = run.outcome;
  };
  FaultyFileManager faulty(files_);
  const auto runKilled = [&](uint64_t call) {
    SCOPED_TRACE(call);
    RunRecorder recorder;
    recorder.record.fileURL = write(cut);
    try {
      rerun(faulty, recorder);
    } catch (const Error&) {
    }
    const auto stored = decodeProcessingStates(encodeProcessingStates({{0, recorder.record}})).states;
    recorder.record = stored.at(0);
    rerun(files_, recorder);
    EXPECT_TRUE(outcome_.isPartly);
    EXPECT_EQ(outcome_.leftAlone, undisturbed.leftAlone);
    EXPECT_EQ(written(), kept);
  };
  for (const auto effect : {Fault::Effect::none, Fault::Effect::whole}) {
    EXPECT_GT(faulty.sweep({.lasting = true, .effect = effect, .among = changes}, runKilled), 3U);
  }
}

TEST_F(CutMovieTest, LetsTimesFollowTheSamples) {
  const auto with = [](SyntheticTrack track, std::vector<std::pair<uint64_t, int64_t>> edits) {
    track.edits = std::move(edits);
    return track;
  };
  const SyntheticTrack pictures = tenths("vide", 120), sound = tenths("soun", 120);
  SyntheticTrack texts = tenths("text", 2);
  texts.stts = {{2, 60}};
  SyntheticTrack reordered = pictures;  // I P B B P B B
  reordered.ctts = {{1, 1}};
  for (int i = 0; i < 39; ++i) reordered.ctts.insert(reordered.ctts.end(), {{1, 3}, {2, 0}});
  reordered.ctts.push_back({2, 1});
  const std::vector<std::pair<uint64_t, int64_t>> shortList = {{20, -1}, {50, 10}, {40, 80}};
  using Tracks = std::vector<SyntheticTrack>;
  const struct {
    Tracks tracks;   // the media of one stand behind those of the other
    size_t samples;  // that are in the file, of all tracks together
    std::string said, expected;
  } cases[] = {
      {Tracks{pictures, sound}, 150, "3.0 s kept, 90 pictures lost", "vide 30 30 30; soun 30 30 30"},
      {Tracks{pictures, sound}, 130, "12.0 s kept, 110 packets of the sound lost; the sound ends at 1.0 s",
       "vide 120 120 0; soun 10 10 10"},
      {Tracks{pictures, sound}, 120, "12.0 s kept, 120 packets of the sound lost", "vide 120 120 0; soun 0 0 0"},
      {Tracks{sound, pictures}, 230, "11.0 s kept, 10 pictures lost", "soun 110 110 110; vide 110 110 110"},
      {Tracks{texts, sound, pictures}, 212, "9.0 s kept, 30 pictures lost",
       "text 2 90 90; soun 90 90 90; vide 90 90 90"},
      {Tracks{pictures, texts}, 121, "12.0 s kept, 1 sample of other tracks lost", "vide 120 120 0; text 1 60 60"},
      {Tracks{with(sound, {{100, 5}})}, 50, "4.5 s kept, 70 packets of the sound lost", "soun 50 50 45 (45 from 5)"},
      {Tracks{with(pictures, shortList)}, 70, "7.0 s kept, 50 pictures lost", "vide 70 70 70 (20 from -1, 50 from 10)"},
      {Tracks{with(pictures, shortList)}, 90, "8.0 s kept, 30 pictures lost",
       "vide 90 90 80 (20 from -1, 50 from 10, 10 from 80)"},
      {Tracks{with(pictures, {{0, 5}}), sound}, 200, "8.0 s kept, 35 pictures lost",
       "vide 85 85 80 (0 from 5); soun 80 80 80"},
      {Tracks{with(reordered, {{120, 1}})}, 60, "5.8 s kept, 62 pictures lost", "vide 58 58 58 (58 from 1)"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.expected);
    Bytes movie = MovieLayout(joined({syntheticMovie(each.tracks, 10), box("ftyp")})).moovAhead();
    size_t all = 0;
    for (const SyntheticTrack& track : each.tracks) all += track.samples;
    // A few bytes of the next one are there.
    movie.resize(movie.size() - 10 * (all - each.samples) + 3);
    ASSERT_EQ(join(movie), "the end of the file is missing: " + each.said);
    BoxTree moov(BoxEditor(written()).get("moov"));
    std::vector<std::string> found;
    uint32_t longest = 0;
    for (BoxTree& child : moov.children) {
      if (child.type != "trak") continue;
      found.push_back(described(child));
      longest = std::max(longest, readUInt32(child.at("tkhd").fields, 20).value());
    }
    EXPECT_EQ(fmt::format("{}", fmt::join(found, "; ")), each.expected);
    EXPECT_EQ(readUInt32(moov.at("mvhd").fields, 16), longest);
  }
}

}  // namespace
}  // namespace tarn::test
