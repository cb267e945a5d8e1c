#include <fmt/format.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <map>

#include "audio/AudioRepairDecision.h"
#include "engine/Repair.h"
#include "fragments/CutMovie.h"
#include "inspect/InspectionJSON.h"
#include "inspect/InspectionPlot.h"
#include "inspect/InspectionText.h"
#include "kind/Kind.h"
#include "media/AVAsset.h"
#include "platform/Capacitor.h"
#include "presentation/Presentation.h"
#include "remux/VideoPlan.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/DamagedMovies.h"
#include "support/FaultyFileManager.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "support/SyntheticMovie.h"
#include "support/TarnProcess.h"
#include "sync/MP4AVSyncFixer.h"

namespace tarn::test {
namespace {

using Remux = RemuxForecast::Kind;

class InspectTest : public FileTest {
 protected:
  Inspection inspectBytes(const Bytes& bytes) { return inspect(files_, write(bytes)); }
  TarnResult run(const std::vector<std::string>& arguments) const { return runTarn(directory_ / "home", arguments); }
  std::string put(const std::string& name, ByteView bytes) {
    files_.open(directory_ / name, OpenMode::exclusive)->write(bytes);
    return directory_ / name;
  }
};

/// Entries in words, to compare a promise with what came of it.
std::string described(const std::vector<SampleEntryFacts>& entries) {
  std::string words;
  for (const auto& entry : entries) {
    words += fmt::format("{} {} wide", entry.tag, entry.picture.width);
    if (entry.configuration) words += entry.configuration->isComplete ? ", complete" : ", incomplete";
    for (const auto& range : entry.ranges) words += fmt::format(", {} to {}", range.first, range.last);
    words += "\n";
  }
  return words;
}

/// The run of a repair sums itself up as the inspection of its source does, and each change mends something.
void expectSummary(const Inspection& promise, const Path& source, const Path& out) {
  const RepairResult result = repairFile({.input = source, .output = out}, std::make_shared<CancellationToken>());
  const RepairSummary &told = promise.summary, &summary = result.outcome.summary;
  EXPECT_EQ(told.done, summary.done);
  EXPECT_EQ(summary.done.empty(), !promise.changesFile);
  for (const std::string& fault : summary.wrong) EXPECT_THAT(told.wrong, testing::Contains(fault));
  EXPECT_TRUE(summary.done.empty() || !summary.wrong.empty());
  for (const auto& [one, other] : {std::pair(told.before, summary.before), {told.after, summary.after}}) {
    ASSERT_EQ(one.has_value(), other.has_value());
    if (!one) continue;
    EXPECT_EQ(one->video.size(), other->video.size());
    EXPECT_EQ(one->audio.size(), other->audio.size());
    // New sound may end within a packet of the old one's end.
    EXPECT_NEAR(one->soundBehindAtStart.value_or(99), other->soundBehindAtStart.value_or(99), 0.025);
    EXPECT_NEAR(one->soundBehindAtEnd.value_or(99), other->soundBehindAtEnd.value_or(99), 0.025);
  }
}

/// What `inspect` says of each movie is what `repair` then does, with the same warnings; each change mends a problem
/// that it names.
TEST_F(InspectTest, PromisesWhatTheRepairThenDoes) {
  struct Row {
    std::string verdict;
    Remux remux = Remux::leavesAlone;
    std::string tag = "avc1";  // of a result that can be played
    size_t losses = 0;
    int exitCode = 0;
  };
  const std::string nothing = "Nothing to repair";
  const std::string noSets = "Repairable: the decoder's parameter sets stand only in the bitstream";
  const std::map<std::string, Row> expected = {
      {"hev1 with an empty hvcC", {noSets, Remux::rebuilds, "hvc1"}},
      {"avc3 without avcC", {noSets, Remux::rebuilds}},
      {"hev1 with late sound", {noSets, Remux::rebuilds, "hvc1"}},
      {"avc1 with late sound", {nothing}},
      {"HEVC of two sizes", {"Repairable: the picture size changes on the way", Remux::splits, "hvc1", 1}},
      {"AVC of two sizes", {"Repairable: the picture size changes on the way", Remux::splits}},
      {"avc3 with avcC", {"Repairable: the video has the tag \"avc3\"", Remux::changesTag}},
      {"avc1", {nothing}},
      {"overrunning child", {noSets, Remux::rebuilds, "hvc1", 1}},
      {"tail", {noSets, Remux::rebuilds, "hvc1"}},
      {"no sets anywhere", {"Left alone: the video is left as it is: neither", Remux::leavesAlone, ""}},
      {"encv", {nothing, Remux::skipped, ""}},
      {"no moov", {"Broken: it is a movie of which only the start is there: download", Remux::skipped, "", 0, 4}},
      {"B-frames and sound", {nothing}},
      {"AC-3 sound", {"Repairable: the sound is AC-3, which many players do not take"}},
      {"a gap in the sound", {"Repairable: the sound has a gap of 427 ms at 0:00"}},
      {"a list of -2", {"Repairable: the edit list of the sound begins at an impossible time"}},
      {"a list behind the media", {"Repairable: the edit list of the sound shows what comes after its end"}},
      {"no lists", {"Repairable: the first picture is shown at 0.080 s, and no edit list says so"}},
      {"fragments", {"Repairable: the movie is in fragments"}},
      {"cut off", {.verdict = "Repairable in part: the end of the file is missing: ", .exitCode = 5}},
  };
  const Path out = directory_ / "out.mp4";
  const auto repair = [&](const Path& from, const Path& to) { return run({"repair", "--json", from, "-o", to}); };
  for (const DamagedMovie& movie : damagedMovies()) {
    SCOPED_TRACE(movie.name);
    const Row& row = expected.at(movie.name);
    const Inspection promise = inspectBytes(movie.bytes);
    SCOPED_TRACE(inspectionText(promise));
    EXPECT_TRUE(promise.verdict.text.starts_with(row.verdict));
    EXPECT_EQ(promise.remux.kind, row.remux);
    EXPECT_EQ(promise.remux.losses.size(), row.losses);
    const bool namesWhatIsMended =
        std::ranges::any_of(promise.problems, [&](const Problem& problem) { return isMended(problem, promise); });
    EXPECT_EQ(namesWhatIsMended, promise.changesFile);
    EXPECT_EQ(promise.problems.empty(), promise.verdict.kind == Verdict::Kind::nothingToRepair);

    const auto result = repair(file_, out);
    EXPECT_EQ(written(), movie.bytes);
    ASSERT_EQ(result.exitCode, row.exitCode) << result.errors;
    if (promise.refusal) continue;
    EXPECT_EQ(promise.changesFile, readFile(files_, out) != movie.bytes);
    expectSummary(promise, file_, out);
    const JSValue::Array warnings(promise.warnings.begin(), promise.warnings.end());
    const std::string told = JSObject{{"warnings", warnings}}.json();
    EXPECT_NE(result.output.find(told.substr(1, told.size() - 2)), std::string::npos) << result.output;
    const Inspection outcome = inspect(files_, out);
    if (row.remux != Remux::skipped) {
      EXPECT_EQ(described(promise.remux.entries), described(outcome.video->entries));
    }
    for (const auto& [trackID, list] : promise.syncFix.order.tracks) {
      EXPECT_EQ(trackID == 1 ? outcome.sync->videoEditList : outcome.sync->audioEditList, list.entries);
    }
    if (row.tag.empty()) continue;
    EXPECT_EQ(probeVideo(out, "codec_tag_string").substr(0, 4), row.tag);
    EXPECT_FALSE(outcome.changesFile) << inspectionText(outcome);
  }
  EXPECT_FALSE(files_.fileExists(directory_ / "home")) << "a repair needs no home";
}

TEST_F(InspectTest, TellsWhatTheFileIs) {
  const Inspection split = inspectBytes(damagedMovie("HEVC of two sizes"));
  EXPECT_EQ(described(split.remux.entries), "hvc1 192 wide, complete, 1 to 50\nhvc1 256 wide, complete, 51 to 100\n");

  const Inspection late = inspectBytes(damagedMovie("hev1 with late sound"));
  const auto before = files_.attributes(file_);
  const auto told = run({"inspect", "--json", file_});
  EXPECT_EQ(told.output, inspectionJSON(late) + "\n");
  EXPECT_THAT(told.output, testing::HasSubstr(R"("handler":"soun","codec":"mp4a","timescale":48000)"));
  EXPECT_EQ(files_.attributes(file_), before);

  // More boxes before the moov than are listed.
  Bytes crowded;
  for (int i = 0; i < 1001; ++i) crowded = joined({crowded, box("free")});
  EXPECT_TRUE(inspectBytes(joined({crowded, BoxEditor(damagedMovie("avc1")).get("moov")})).hasMovie);

  // Neither is mended, and both are named.
  BoxEditor editor(damagedMovie("avc1"));
  editor.setField(editor.at("moov/trak/mdia/mdhd").offset + 24, UINT32_MAX);
  const auto moov = editor.at("moov");
  editor.setField(moov.offset, static_cast<uint32_t>(moov.size + 7));
  const Inspection odd = inspectBytes(editor.bytes);
  ASSERT_EQ(odd.problems.size(), 2U) << inspectionText(odd);
  EXPECT_EQ(odd.problems[0].words, "the file ends 7 bytes before the end that its index (moov) promises");
  EXPECT_EQ(odd.problems[1].words, "track 1 does not say how long it is");
  EXPECT_EQ(odd.verdict.text, "Left alone: " + odd.problems[0].words + "; and 1 more problem");
}

TEST_F(InspectTest, TellsOfManyFilesInATable) {
  const std::string healthy = put("good.mp4", damagedMovie("avc1")),
                    gap = put("gap.mp4", damagedMovie("a gap in the sound")),
                    page = put("page.mp4", bytesOf("<html><title>Sign in</title>")), none = directory_ / "none.mp4";
  EXPECT_EQ(run({"inspect", healthy, healthy}).exitCode, 0);
  const TarnResult table = run({"inspect", healthy, gap, page, none});
  EXPECT_EQ(table.exitCode, 1);
  EXPECT_THAT(table.output,
              testing::AllOf(testing::HasSubstr("/gap.mp4  repairable  the sound has a gap of 427 ms at 0:00\n"),
                             testing::HasSubstr("/page.mp4  broken      it is a web page"),
                             testing::HasSubstr("/good.mp4  healthy\n"),
                             testing::HasSubstr("4 files: 1 healthy, 1 repairable, 1 broken, 1 unreadable")));
  EXPECT_THAT(run({"inspect", gap}).output, testing::Not(testing::HasSubstr("Boxes")));
  EXPECT_THAT(run({"inspect", "--full", gap}).output, testing::HasSubstr("Boxes"));

  // A movie in fragments is told with the samples that its fragments hold.
  const Inspection joined = inspectBytes(damagedMovie("fragments"));
  for (const TrackFacts& track : joined.tracks) EXPECT_GT(track.samples.value_or(0), 10U) << track.handler;
}

/// What a reader of XML finds in the drawing, whatever the file is called.
TEST_F(InspectTest, DrawsThePlot) {
  const std::string file = put("a<b>&\"\x1B\xFF.mp4", damagedMovie("a gap in the sound"));
  const Path plot = directory_ / "plot.svg", link = directory_ / "link.svg", loop = directory_ / "loop.svg";
  const auto draw = [&](const Path& place) { return run({"inspect", file, "--plot", place}); };
  EXPECT_EQ(draw(plot).exitCode, 3);
  std::filesystem::create_symlink(plot, link);
  std::filesystem::create_symlink(loop, loop);
  EXPECT_EQ(draw(link).exitCode, 3);
  EXPECT_TRUE(std::filesystem::is_symlink(link));
  EXPECT_EQ(draw(file).exitCode, 2) << "a video must not be replaced";
  EXPECT_THAT(draw(loop).errors, testing::HasSubstr("levels of symbolic links"));
  constexpr const char* reader = R"(
import sys, xml.etree.ElementTree as tree
counts = {}
for element in tree.parse(sys.argv[1]).getroot().iter():
    name = element.get("class") or ""
    counts[name] = counts.get(name, 0) + 1
    if name == "title": print(element.text)
print(counts["video"], counts["audio"], counts["hole"] > 0, counts["edit"] > 0)
)";
  ChildProgram python({"/usr/bin/env", "python3", "-c", reader, plot.string()}, directory_.path());
  EXPECT_EQ(python.wait(), 0) << python.errors();
  // Before: sound, hole, sound; after: sound.
  EXPECT_EQ(python.output(), "a<b>&\".mp4\n2 3 True True\n");
}

TEST_F(InspectTest, TellsHowTheSoundLiesToThePicture) {
  Inspection inspection;
  inspection.summary.before = {
      .video = {{0, 2}}, .audio = {{0, 1.96}}, .soundBehindAtStart = 0, .soundBehindAtEnd = -0.04};
  const auto told = testing::HasSubstr("the sound starts level with the picture and ends 0.040 s ahead of the picture");
  EXPECT_THAT(inspectionText(inspection), told);
  EXPECT_THAT(inspectionPlot(inspection), told);
}

/// Whoever looks at a movie fails when it cannot be read: no box counts as missing then, and no file as healthy.
TEST_F(InspectTest, NobodyTakesWhatCannotBeReadForWhatIsNotThere) {
  const Bytes plain = damagedMovie("B-frames and sound");
  const SyntheticTrack sound{.stts = {{9, 1024}, {1, 9216}, {9, 1024}}, .edits = {{100, 1024}}, .samples = 19};
  const Bytes few = syntheticMovie({{.handler = "vide", .stts = {{9, 3600}}, .samples = 9}, sound});
  const auto track = AVAsset(files_, write(few)).tracks(AVMediaType::audio).at(0);
  using Look = std::function<bool(FileManager&)>;
  const std::tuple<const char*, Bytes, Look> rows[] = {
      {"kind", plain, [&](auto& files) { return kindOf(files, file_).what == Kind::What::plainMovie; }},
      {"its end", damagedMovie("cut off"), [&](auto& files) { return isCutOff(files, file_); }},
      {"fragments", plain, [&](auto& files) { return !isFragmented(files, file_); }},
      {"presentation", plain, [&](auto& files) { return Presentation::readIfPossible(files, file_, "").has_value(); }},
      {"video", damagedMovie("avc1"), [&](auto& files) { return planVideo(files, file_).has_value(); }},
      {"videos", damagedMovie("HEVC of two sizes"), [&](auto& files) { return planVideo(files, file_).has_value(); }},
      {"lists", plain, [&](auto& files) { return MP4AVSyncFixer::readOriginalSyncInfo(files, file_), true; }},
      {"sound", few, [&](auto& files) { return decideAudioRepair(files, file_), true; }},
      {"tracks", few, [&](auto& files) { return !AVAsset(files, file_).tracks(AVMediaType::audio).empty(); }},
      {"samples", few, [&](auto& files) { return AVAsset(files, file_).compressedSamples(track) != nullptr; }},
  };
  FaultyFileManager faulty(files_);
  for (const auto& [name, movie, look] : rows) {
    write(movie);
    const uint64_t reads = faulty.sweep({.among = {FileOperation::read}}, [&, name = name, look = look](uint64_t call) {
      bool isDone = false;
      failureOf([&] { isDone = look(faulty); });
      EXPECT_NE(isDone, faulty.fired()) << name << " at call " << call;
    });
    EXPECT_GT(reads, 3U) << name;
  }
}

/// A moov may have a 64-bit size (ISO/IEC 14496-12 4.2), which a repair does not rewrite.
TEST_F(InspectTest, WhatIsAllowedAndNotRewrittenIsNotCalledDamaged) {
  BoxEditor movie(damagedMovie("avc3 without avcC"));
  const auto moov = movie.at("moov");
  ASSERT_EQ(moov.offset + moov.size, movie.bytes.size()) << "no chunk moves";
  const Bytes old = movie.get("moov");
  movie.replace(moov, longBox("moov", {Bytes(old.begin() + 8, old.end())}));
  const Inspection inspection = inspectBytes(movie.bytes);
  EXPECT_THAT(inspection.warnings, testing::Contains(testing::AllOf(testing::HasSubstr("its index cannot be rewritten"),
                                                                    testing::HasSubstr("64-bit"),
                                                                    testing::Not(testing::HasSubstr("damaged")))));
}

}  // namespace
}  // namespace tarn::test
