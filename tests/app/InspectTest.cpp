#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "app/DamagedMovies.h"
#include "app/TarnProcess.h"
#include "app/inspect/Inspection.h"
#include "platform/Capacitor.h"
#include "platform/host/PosixFileManager.h"
#include "remux/MP4Remuxer.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using Remux = RemuxForecast::Kind;
using Sync = SyncForecast::Kind;

class InspectTest : public testing::Test {
 protected:
  Inspection inspectBytes(const Bytes& bytes) {
    writeFileAtomically(files_, file_, bytes);
    return inspect(files_, file_);
  }

  TempDirectory place_;
  PosixFileManager files_{place_.path()};
  const Path file_ = place_ / "clip.mp4";
  LogCapture log_;
};

/// Entries as they are told to people, to compare a promise with what came of it.
std::vector<std::string> described(const std::vector<SampleEntryFacts>& entries) {
  std::vector<std::string> lines;
  for (const auto& entry : entries) {
    std::string line = entry.tag + " " + std::to_string(entry.size) + " " + std::to_string(entry.picture.width);
    if (entry.configuration) line += entry.configuration->isComplete ? " complete" : " incomplete";
    for (const auto& range : entry.ranges) {
      line += " " + std::to_string(range.first) + ".." + std::to_string(range.last);
    }
    lines.push_back(line);
  }
  return lines;
}

/// Every damaged movie is repaired, and so is its result: ffmpeg plays it, and the second repair changes nothing.
TEST_F(InspectTest, PromisesWhatTheRepairThenDoes) {
  struct Row {
    Remux remux;
    Sync sync = Sync::noSound;
    const char* tag = "";  // of a result that can be played
    size_t losses = 0;
  };
  const std::map<std::string, Row> expected = {
      {"hev1 with an empty hvcC", {Remux::rebuilds, Sync::noSound, "hvc1"}},
      {"avc3 without avcC", {Remux::rebuilds, Sync::noSound, "avc1"}},
      {"hev1 with late sound", {Remux::rebuilds, Sync::writes, "hvc1"}},
      {"avc1 with late sound", {Remux::leavesAlone, Sync::writes, "avc1"}},
      {"HEVC of two sizes", {Remux::splits, Sync::noSound, "hvc1"}},
      {"AVC of two sizes", {Remux::splits, Sync::noSound, "avc1"}},
      {"avc3 with avcC", {Remux::changesTag, Sync::noSound, "avc1"}},
      {"avc1", {Remux::leavesAlone, Sync::noSound, "avc1"}},
      {"overrunning child", {Remux::rebuilds, Sync::noSound, "hvc1", 1}},
      {"tail", {Remux::rebuilds, Sync::noSound, "hvc1", 1}},
      {"no sets anywhere", {Remux::refuses, Sync::notReached}},
      {"encv", {Remux::skipped}},
      {"no moov", {Remux::skipped, Sync::fails}},
  };
  const Path out = place_ / "out.mp4", again = place_ / "again.mp4";
  const auto repair = [&](const Path& from, const Path& to) {
    return runTarn(place_ / "home", {"repair", from.string(), "-o", to.string()});
  };
  for (const DamagedMovie& movie : damagedMovies()) {
    SCOPED_TRACE(movie.name);
    const Row& row = expected.at(movie.name);
    const Inspection promise = inspectBytes(movie.bytes);
    EXPECT_EQ(std::pair(promise.remux.kind, promise.syncFix.kind), std::pair(row.remux, row.sync))
        << inspectionText(promise);
    EXPECT_EQ(promise.remux.losses.size(), row.losses);

    const auto result = repair(file_, out);
    EXPECT_EQ(readFile(files_, file_), movie.bytes);
    ASSERT_EQ(result.exitCode, row.remux == Remux::refuses ? 1 : 0) << result.errors;
    if (row.remux == Remux::refuses) continue;
    EXPECT_EQ(result.lastLine(), out.string());
    EXPECT_EQ(promise.changesFile, readFile(files_, out) != movie.bytes);
    const Inspection outcome = inspect(files_, out);
    if (row.remux != Remux::skipped) {
      EXPECT_EQ(described(promise.remux.entries), described(outcome.video->entries));
    }
    if (row.sync == Sync::writes) {
      EXPECT_EQ(outcome.sync->audioEditList, promise.syncFix.plan->audio->rows);
    }
    if (*row.tag == 0) continue;
    EXPECT_EQ(probeVideo(out, "codec_tag_string").substr(0, 4), row.tag);
    EXPECT_EQ(decoderComplaints(out), "");
    EXPECT_FALSE(outcome.changesFile) << inspectionText(outcome);
    EXPECT_EQ(repair(out, again).exitCode, 0);
    EXPECT_EQ(readFile(files_, again), readFile(files_, out));
  }
  EXPECT_FALSE(files_.fileExists(place_ / "home")) << "a repair needs no home";
}

TEST_F(InspectTest, TellsWhatTheFileIs) {
  const Inspection split = inspectBytes(damagedMovie("HEVC of two sizes"));
  const std::vector<std::string> entries = described(split.remux.entries);
  ASSERT_EQ(entries.size(), 2u);
  EXPECT_TRUE(entries[0].ends_with(" 192 complete 1..50")) << entries[0];
  EXPECT_TRUE(entries[1].ends_with(" 256 complete 51..100")) << entries[1];
  EXPECT_TRUE(split.video->bitstream->changesPictureSize);

  const Inspection late = inspectBytes(damagedMovie("hev1 with late sound"));
  ASSERT_EQ(late.tracks.size(), 2u);
  EXPECT_EQ(late.tracks[1].handler, "soun");
  EXPECT_EQ(late.tracks[1].rate, 48000u);
  EXPECT_EQ(late.sync->audioEditList.front().mediaTime, -1);
  EXPECT_FALSE(late.video->entries.front().configuration->isComplete);
  const auto before = files_.attributes(file_);
  const auto told = runTarn(place_ / "home", {"inspect", "--json", file_.string()});
  EXPECT_EQ(told.output, inspectionJSON(late) + "\n");
  EXPECT_NE(told.output.find(R"("remux":{"does":"rebuilds")"), std::string::npos) << told.output;
  EXPECT_EQ(told.errors, "");
  EXPECT_EQ(files_.attributes(file_), before);

  // An `avcC` without sets satisfies the repair of the tag, and is not complete all the same.
  BoxEditor editor(damagedMovie("avc1"));
  const auto avcC = editor.at("moov/trak/mdia/minf/stbl/stsd/avc1/avcC");
  editor.bytes[avcC.offset + 8 + 5] = 0xE0;
  std::fill_n(editor.bytes.begin() + static_cast<ptrdiff_t>(avcC.offset + 8 + 6), avcC.size - 14, uint8_t{0});
  const auto moov = editor.topLevel("moov").front();
  editor.setField(moov.offset, static_cast<uint32_t>(moov.size + 7));
  const Inspection empty = inspectBytes(editor.bytes);
  EXPECT_EQ(empty.remux.kind, Remux::leavesAlone);
  EXPECT_EQ(empty.problems,
            (std::vector<std::string>{"the moov at " + std::to_string(moov.offset) + " overruns the file by 7 bytes",
                                      "the avcC lacks parameter sets"}));

  const Bytes& tail = damagedMovie("hev1 with an empty hvcC");
  const auto mdat = BoxEditor(tail).topLevel("mdat").front();
  writeFileAtomically(files_, file_, ByteView(tail).first(mdat.end()));
  auto file = files_.open(file_, OpenMode::updating);
  file->seekToEnd();
  file->write(boxClaiming(0x6400000, "free"));
  file->seek(mdat.end() + 0x6400000);
  file->write(ByteView(tail).subspan(mdat.end()));
  file->close();
  EXPECT_NE(inspect(files_, file_).remux.reason.find("100 MiB"), std::string::npos);
}

/// Whatever bytes of the tables are wrong: there is an answer, the source stays, and the worker does as was said.
TEST_F(InspectTest, AnswersForAnyDamage) {
  std::mt19937 random(11);
  std::optional<RemuxTimings> timings;
  for (const bool isHEVC : {true, false}) {
    const Bytes& whole = damagedMovie(isHEVC ? "hev1 with late sound" : "AVC of two sizes");
    const auto moov = BoxEditor(whole).topLevel("moov").front();
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
      ASSERT_EQ(readFile(files_, file_), bytes);
      if (promise.remux.kind == Remux::skipped) continue;
      std::string refusal;
      try {
        isHEVC ? MP4Remuxer::remuxHEVCWithParameterExtraction(files_, file_, nullptr, timings)
               : MP4Remuxer::remuxAVCWithParameterExtraction(files_, file_, "", nullptr, timings);
      } catch (const Error& failure) {
        refusal = failure.description();
      }
      EXPECT_EQ(refusal, promise.remux.kind == Remux::refuses ? promise.remux.reason : "");
      EXPECT_EQ(readFile(files_, file_) != bytes, promise.remux.changesFile);
    }
  }
}

}  // namespace
}  // namespace tarn::test
