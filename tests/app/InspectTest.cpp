#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "app/DamagedMovies.h"
#include "app/TarnProcess.h"
#include "app/inspect/Inspection.h"
#include "platform/Capacitor.h"
#include "remux/RemuxStep.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "support/RunRecorder.h"

namespace tarn::test {
namespace {

using Remux = RemuxForecast::Kind;
using Sync = SyncForecast::Kind;

class InspectTest : public FileTest {
 protected:
  Inspection inspectBytes(const Bytes& bytes) { return inspect(files_, write(bytes)); }
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

/// Every damaged movie is repaired, and so is its result: ffmpeg plays it, and the second repair changes nothing.
TEST_F(InspectTest, PromisesWhatTheRepairThenDoes) {
  struct Row {
    Remux remux;
    Sync sync = Sync::nothing;
    std::string tag = "";  // of a result that can be played
    size_t losses = 0;
  };
  const std::map<std::string, Row> expected = {
      {"hev1 with an empty hvcC", {Remux::rebuilds, Sync::nothing, "hvc1"}},
      {"avc3 without avcC", {Remux::rebuilds, Sync::nothing, "avc1"}},
      {"hev1 with late sound", {Remux::rebuilds, Sync::nothing, "hvc1"}},
      {"avc1 with late sound", {Remux::leavesAlone, Sync::nothing, "avc1"}},
      {"HEVC of two sizes", {Remux::splits, Sync::nothing, "hvc1", 1}},
      {"AVC of two sizes", {Remux::splits, Sync::nothing, "avc1"}},
      {"avc3 with avcC", {Remux::changesTag, Sync::nothing, "avc1"}},
      {"avc1", {Remux::leavesAlone, Sync::nothing, "avc1"}},
      {"overrunning child", {Remux::rebuilds, Sync::nothing, "hvc1", 1}},
      {"tail", {Remux::rebuilds, Sync::nothing, "hvc1"}},
      {"no sets anywhere", {Remux::leavesAlone}},
      {"encv", {Remux::skipped}},
      {"no moov", {Remux::skipped, Sync::fails}},
  };
  const Path out = directory_ / "out.mp4", again = directory_ / "again.mp4";
  const auto repair = [&](const Path& from, const Path& to) {
    return runTarn(directory_ / "home", {"repair", from.string(), "-o", to.string()});
  };
  for (const DamagedMovie& movie : damagedMovies()) {
    SCOPED_TRACE(movie.name);
    const Row& row = expected.at(movie.name);
    const Inspection promise = inspectBytes(movie.bytes);
    EXPECT_EQ(std::pair(promise.remux.kind, promise.syncFix.kind), std::pair(row.remux, row.sync))
        << inspectionText(promise);
    EXPECT_EQ(promise.remux.losses.size(), row.losses);

    const auto result = repair(file_, out);
    EXPECT_EQ(written(), movie.bytes);
    ASSERT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(result.lastLine(), out.string());
    EXPECT_EQ(promise.changesFile, readFile(files_, out) != movie.bytes);
    const Inspection outcome = inspect(files_, out);
    if (row.remux != Remux::skipped) {
      EXPECT_EQ(described(promise.remux.entries), described(outcome.video->entries));
    }
    if (row.tag.empty()) continue;
    EXPECT_EQ(probeVideo(out, "codec_tag_string").substr(0, 4), row.tag);
    EXPECT_EQ(decoderComplaints(out), "");
    EXPECT_FALSE(outcome.changesFile) << inspectionText(outcome);
    EXPECT_EQ(repair(out, again).exitCode, 0);
    EXPECT_EQ(readFile(files_, again), readFile(files_, out));
  }
  EXPECT_FALSE(files_.fileExists(directory_ / "home")) << "a repair needs no home";
}

TEST_F(InspectTest, TellsWhatTheFileIs) {
  const Inspection split = inspectBytes(damagedMovie("HEVC of two sizes"));
  EXPECT_EQ(described(split.remux.entries), "hvc1 192 wide, complete, 1 to 50\nhvc1 256 wide, complete, 51 to 100\n");
  EXPECT_TRUE(split.video->bitstream->changesPictureSize);

  const Inspection late = inspectBytes(damagedMovie("hev1 with late sound"));
  const auto before = files_.attributes(file_);
  const auto told = runTarn(directory_ / "home", {"inspect", "--json", file_.string()});
  EXPECT_EQ(told.output, inspectionJSON(late) + "\n");
  for (const char* words : {R"("handler":"soun","codec":"mp4a","timescale":48000)", R"("remux":{"does":"rebuilds")"}) {
    EXPECT_NE(told.output.find(words), std::string::npos) << told.output;
  }
  EXPECT_EQ(files_.attributes(file_), before);

  // An `avcC` without sets satisfies the repair of the tag, and is not complete all the same.
  BoxEditor editor(damagedMovie("avc1"));
  const auto avcC = editor.at("moov/trak/mdia/minf/stbl/stsd/avc1/avcC");
  editor.bytes[avcC.offset + 8 + 5] = 0xE0;
  std::fill_n(editor.bytes.begin() + static_cast<ptrdiff_t>(avcC.offset + 8 + 6), avcC.size - 14, uint8_t{0});
  const auto moov = editor.at("moov");
  editor.setField(moov.offset, static_cast<uint32_t>(moov.size + 7));
  const Inspection empty = inspectBytes(editor.bytes);
  EXPECT_EQ(empty.remux.kind, Remux::leavesAlone);
  EXPECT_EQ(fmt::format("{}", fmt::join(empty.problems, ", ")),
            fmt::format("the moov at {} overruns the file by 7 bytes, the avcC lacks parameter sets", moov.offset));

  write(joined({box("ftyp", {Bytes(8)}), boxClaiming(0x6400000, "free")}));
  const auto file = files_.open(file_, OpenMode::updating);
  file->seek(16 + 0x6400000);
  file->write(BoxEditor(damagedMovie("avc1")).get("moov"));
  EXPECT_EQ(inspect(files_, file_).remux.reason, "the sample entry holds all parameter sets");
}

/// Whatever bytes of the tables are wrong: there is an answer, the source stays, and the step does as was said.
TEST_F(InspectTest, AnswersForAnyDamage) {
  std::mt19937 random(11);
  RunRecorder recorder;
  for (const bool isHEVC : {true, false}) {
    const Bytes& whole = damagedMovie(isHEVC ? "hev1 with late sound" : "AVC of two sizes");
    const auto moov = BoxEditor(whole).at("moov");
    for (int round = 0; round < 150; ++round) {
      SCOPED_TRACE((isHEVC ? "HEVC " : "AVC ") + std::to_string(round));
      Bytes bytes = whole;
      for (int i = 0; i < 1 + round % 4; ++i) {
        const uint8_t value[] = {0, 1, 0x7F, 0xFF, static_cast<uint8_t>(random())};
        bytes[moov.offset + random() % moov.size] = value[random() % 5];
      }
      if (round % 10 == 0) bytes.resize(random() % bytes.size());
      const Inspection promise = inspectBytes(bytes);
      EXPECT_FALSE(inspectionText(promise).empty());
      EXPECT_TRUE(JSObject::parse(inspectionJSON(promise)));
      ASSERT_EQ(written(), bytes);
      if (promise.remux.kind == Remux::skipped) continue;
      ProcessingRun run = recorder.runOn(files_, file_);
      const std::string refusal = failureOf([&] { RemuxStep().run(run); });
      EXPECT_EQ(refusal, promise.remux.kind == Remux::refuses ? promise.remux.reason : "");
      EXPECT_EQ(written() != bytes, promise.remux.changesFile);
    }
  }
}

}  // namespace
}  // namespace tarn::test
