#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
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

/// 3 s of pictures and sound, the `moov` ahead.
Bytes shortClip() {
  const Path file = encodedVideo({.parameters = "keyint=25",
                                  .seconds = 3,
                                  .more = words("-f lavfi -i sine=frequency=500:sample_rate=48000 -c:a aac "
                                                "-movflags +faststart")});
  return contentsOf(file);
}

Bytes firstBytes(const Bytes& bytes, double part) {
  return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(part * static_cast<double>(bytes.size()))};
}

TEST_F(CutMovieTest, CorrectsTheSizeOfAnMdatThatIsSaidTooLong) {
  using Piece = MovieLayout::Piece;
  const MovieLayout layout(shortClip());
  for (const Piece::Kind kind : {Piece::Kind::mdat, Piece::Kind::longMdat}) {
    const Bytes healthy = layout.build({{Piece::Kind::raw, layout.ftyp}, {Piece::Kind::moov}, {kind}});
    BoxEditor editor(healthy);
    const size_t mdat = layout.ftyp.size() + layout.moov.size();
    const bool isLong = editor.field(mdat) == 1;
    const size_t size = isLong ? mdat + 12 : mdat;
    for (const uint32_t surplus : {1u, 8u, 1000000u}) {
      editor.setField(size, static_cast<uint32_t>(healthy.size() - mdat) + surplus);
      EXPECT_EQ(runStep(editor.bytes), "");
      EXPECT_EQ(written(), healthy);
      EXPECT_FALSE(outcome_.isPartly);
      EXPECT_TRUE(outcome_.leftAlone.empty());
    }
  }
}

TEST_F(CutMovieTest, LeavesAFileOfWholeBoxesAsItIs) {
  using Piece = MovieLayout::Piece;
  const MovieLayout layout(shortClip());
  const Piece ftyp{Piece::Kind::raw, layout.ftyp}, moov{Piece::Kind::moov}, mdat{Piece::Kind::mdat};
  const uint64_t middle = layout.chunks()[layout.chunks().size() / 2];
  MovieLayout wrongSize = layout;
  BoxEditor tables(layout.moov);
  tables.setField(tables.at("moov/trak/mdia/minf/stbl/stsz").offset + 20, 1 << 30);
  wrongSize.moov = tables.bytes;
  // Behind whole media a moov the last bytes of which are not there.
  Bytes cutMoov = wrongSize.build({ftyp, mdat, moov});
  cutMoov.resize(cutMoov.size() - 5);
  const Bytes files[] = {
      layout.moovAhead(),
      layout.build({ftyp, mdat, moov}),
      layout.build({ftyp, moov, {Piece::Kind::openMdat}}),
      layout.build({ftyp, {Piece::Kind::mdat, {}, 0, middle}, moov, {Piece::Kind::mdat, {}, middle}}),
      layout.build({ftyp, moov, mdat, {Piece::Kind::raw, box("free", {Bytes(9)})}}),
      layout.build({ftyp, moov, mdat, {Piece::Kind::raw, Bytes(5)}}),
      layout.build({ftyp, moov, mdat, {Piece::Kind::raw, boxClaiming(99, "free", {Bytes(9)})}}),
      wrongSize.moovAhead(),
      cutMoov,
  };
  for (const Bytes& file : files) {
    SCOPED_TRACE(&file - files);
    EXPECT_EQ(runStep(file), "");
    EXPECT_EQ(written(), file);
    EXPECT_FALSE(outcome_.isPartly);
    EXPECT_FALSE(isCutOff(files_, file_));
  }
}

TEST_F(CutMovieTest, RefusesWhatHoldsNoPicture) {
  const Bytes whole = shortClip();
  BoxEditor editor(whole);
  const auto moov = editor.at("moov"), mdat = editor.at("mdat");
  const std::string lost = "The file ends before the first of its 75 pictures: download it again";
  const std::string cutMoov =
      "The file ends within its moov, which says where its samples are: download it again, or rebuild it with `tarn "
      "repair --like`";
  const std::pair<size_t, std::string> cases[] = {
      {mdat.offset + 500, lost},
      {mdat.offset + 8, lost},
      {mdat.offset + 3, lost},
      {moov.end(), lost},
      {moov.end() - 20, lost},
      {moov.end() - 200, lost},
      {editor.at("moov/trak").end() - 1, cutMoov},
      {moov.offset + 9, cutMoov},
  };
  for (const auto& [size, said] : cases) {
    SCOPED_TRACE(size);
    const Bytes cut(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size));
    EXPECT_EQ(runStep(cut), said);
    EXPECT_TRUE(outcome_.isRefused);
    EXPECT_EQ(written(), cut);
    EXPECT_TRUE(isCutOff(files_, file_));
  }
}

TEST_F(CutMovieTest, KeepsPicturesWhoseMoovEndsBehindTheirTrack) {
  const MovieLayout layout(shortClip());
  using Piece = MovieLayout::Piece;
  const Bytes whole = layout.build({{Piece::Kind::raw, layout.ftyp}, {Piece::Kind::mdat}, {Piece::Kind::moov}});
  const auto tracks = BoxEditor(whole).all("moov/trak");
  const auto cutAt = [&](size_t size) { return Bytes(whole.begin(), whole.begin() + static_cast<ptrdiff_t>(size)); };
  const std::string lost =
      "The file ends within its moov, which says where its samples are: download it again, or rebuild it with `tarn "
      "repair --like`";
  EXPECT_EQ(runStep(cutAt(tracks[0].end() - 1)), lost);
  for (const size_t size : {tracks[1].offset + 100, tracks[1].end() - 1}) {
    ASSERT_EQ(runStep(cutAt(size)), "");
    EXPECT_TRUE(outcome_.isPartly);
    EXPECT_EQ(outcome_.leftAlone, std::vector<std::string>{"the end of the file is missing: 3.0 of 3.0 s kept, 1 track "
                                                           "lost whose table is cut off"});
    EXPECT_EQ(packetsOf(file_, false)["video"].size(), 75u);
    EXPECT_EQ(decoderComplaints(file_), "");
  }
  // What stands behind the tracks is no part of the video.
  EXPECT_EQ(runStep(cutAt(whole.size() - 5)), "");
  EXPECT_FALSE(outcome_.isPartly);
}

/// The types of all boxes of a `moov`, in order.
std::vector<std::string> typesIn(const BoxTree& tree) {
  std::vector<std::string> types = {tree.type};
  for (const BoxTree& child : tree.children) {
    for (const std::string& type : typesIn(child)) types.push_back(type);
  }
  return types;
}

TEST_F(CutMovieTest, KeepsEveryOtherBoxInItsPlace) {
  MovieLayout layout(shortClip());
  BoxEditor editor(layout.moov);
  const Bytes odd = box("odd!", {Bytes(40, 7)});
  editor.insert("moov", editor.at("moov/trak").offset, odd);
  editor.insert("moov/trak", editor.at("moov/trak/mdia").offset, odd);
  editor.insert("moov/trak/mdia/minf/stbl", editor.at("moov/trak/mdia/minf/stbl/stsz").offset, odd);
  layout.moov = editor.bytes;
  using Piece = MovieLayout::Piece;
  const Piece oddPiece{Piece::Kind::raw, odd};
  const Bytes whole =
      layout.build({{Piece::Kind::raw, layout.ftyp}, oddPiece, {Piece::Kind::moov}, oddPiece, {Piece::Kind::mdat}});
  ASSERT_EQ(runStep(firstBytes(whole, 0.6)), "");
  ASSERT_TRUE(outcome_.isPartly);
  EXPECT_EQ(decoderComplaints(file_), "");
  const BoxEditor before(whole), after(written());
  EXPECT_EQ(typesIn(BoxTree(after.get("moov"))), typesIn(BoxTree(before.get("moov"))));
  EXPECT_EQ(after.all("odd!").size(), 2u);
  for (const char* path : {"ftyp", "odd!", "moov/odd!", "moov/trak/odd!", "moov/trak/mdia/minf/stbl/odd!",
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

/// "vide 30 lasting 30, shown 30; 20 from -1, 10 from 5"
std::string described(BoxTree& trak) {
  BoxTree& stbl = trak.at("mdia/minf/stbl");
  std::string words =
      fmt::format("{} {} lasting {}, shown {}", textOf(ByteView(trak.at("mdia/hdlr").fields).subspan(8, 4)),
                  readUInt32(stbl.at("stsz").fields, 8).value(), readUInt32(trak.at("mdia/mdhd").fields, 16).value(),
                  readUInt32(trak.at("tkhd").fields, 20).value());
  if (trak.child("edts") == trak.children.end()) return words;
  const Bytes& rows = trak.at("edts/elst").fields;
  for (size_t at = 8; at + 12 <= rows.size(); at += 12) {
    words += fmt::format("{} {} from {}", at == 8 ? ";" : ",", readUInt32(rows, at).value(),
                         static_cast<int32_t>(readUInt32(rows, at + 4).value()));
  }
  return words;
}

/// A run that is killed behind the step, or amid it, finds a file of which nothing is missing.
TEST_F(CutMovieTest, TellsWhatIsLostHoweverOftenItIsKilled) {
  const Bytes cut = firstBytes(shortClip(), 0.6);
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
  using Words = std::vector<std::string>;
  using Tracks = std::vector<SyntheticTrack>;
  struct Case {
    const char* name;
    Tracks tracks;   // the media of one stand behind those of the other
    size_t samples;  // that are in the file, of all tracks together
    Words expected;
    std::string said;
  };
  const Case cases[] = {
      {"sound that ends early", Tracks{pictures, sound}, 150,
       Words{"vide 30 lasting 30, shown 30", "soun 30 lasting 30, shown 30"}, "3.0 s kept, 90 pictures lost"},
      {"sound that ends far too early", Tracks{pictures, sound}, 130,
       Words{"vide 120 lasting 120, shown 0", "soun 10 lasting 10, shown 10"},
       "12.0 s kept, 110 packets of the sound lost; the sound ends at 1.0 s"},
      {"no sound at all", Tracks{pictures, sound}, 120,
       Words{"vide 120 lasting 120, shown 0", "soun 0 lasting 0, shown 0"},
       "12.0 s kept, 120 packets of the sound lost"},
      {"pictures that end early", Tracks{sound, pictures}, 230,
       Words{"soun 110 lasting 110, shown 110", "vide 110 lasting 110, shown 110"}, "11.0 s kept, 10 pictures lost"},
      {"a text that would outlast them", Tracks{texts, sound, pictures}, 212,
       Words{"text 2 lasting 90, shown 90", "soun 90 lasting 90, shown 90", "vide 90 lasting 90, shown 90"},
       "9.0 s kept, 30 pictures lost"},
      {"nothing but a text", Tracks{pictures, texts}, 121,
       Words{"vide 120 lasting 120, shown 0", "text 1 lasting 60, shown 60"},
       "12.0 s kept, 1 sample of other tracks lost"},
      {"sound alone", Tracks{with(sound, {{100, 5}})}, 50, Words{"soun 50 lasting 50, shown 45; 45 from 5"},
       "4.5 s kept, 70 packets of the sound lost"},
      {"an edit that is not reached", Tracks{with(pictures, shortList)}, 70,
       Words{"vide 70 lasting 70, shown 70; 20 from -1, 50 from 10"}, "7.0 s kept, 50 pictures lost"},
      {"an edit of which a part is there", Tracks{with(pictures, shortList)}, 90,
       Words{"vide 90 lasting 90, shown 80; 20 from -1, 50 from 10, 10 from 80"}, "8.0 s kept, 30 pictures lost"},
      {"an edit to the end", Tracks{with(pictures, {{0, 5}}), sound}, 200,
       Words{"vide 85 lasting 85, shown 80; 0 from 5", "soun 80 lasting 80, shown 80"}, "8.0 s kept, 35 pictures lost"},
      {"pictures in another order", Tracks{with(reordered, {{120, 1}})}, 60,
       Words{"vide 58 lasting 58, shown 58; 58 from 1"}, "5.8 s kept, 62 pictures lost"},
  };
  for (const Case& each : cases) {
    SCOPED_TRACE(each.name);
    Bytes movie = MovieLayout(joined({syntheticMovie(each.tracks, 10), box("ftyp")})).moovAhead();
    size_t all = 0;
    for (const SyntheticTrack& track : each.tracks) all += track.samples;
    // A few bytes of the next one are there.
    movie.resize(movie.size() - 10 * (all - each.samples) + 3);
    ASSERT_EQ(runStep(movie), "");
    ASSERT_EQ(outcome_.leftAlone, std::vector{"the end of the file is missing: " + each.said});
    BoxTree moov(BoxEditor(written()).get("moov"));
    std::vector<std::string> found;
    uint32_t longest = 0;
    for (BoxTree& child : moov.children) {
      if (child.type != "trak") continue;
      found.push_back(described(child));
      longest = std::max(longest, readUInt32(child.at("tkhd").fields, 20).value());
    }
    EXPECT_EQ(found, each.expected);
    EXPECT_EQ(readUInt32(moov.at("mvhd").fields, 16), longest);
  }
}

}  // namespace
}  // namespace tarn::test
