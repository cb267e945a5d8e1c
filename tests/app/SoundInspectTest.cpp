#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "app/Payload.h"
#include "app/TarnProcess.h"
#include "app/inspect/Inspection.h"
#include "app/inspect/SoundText.h"
#include "audio/AudioTranscoder.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"
#include "sync/FlashBeep.h"

namespace tarn::test {
namespace {

using Does = AudioForecast::Kind;
using Damage = std::function<void(BoxEditor& movie)>;

constexpr double packet = 1024 / 48000.0;
const std::string trak = "moov/trak";  // that of the sound: it comes first
const std::string stbl = trak + "/mdia/minf/stbl";

/// Ten seconds with pictures and sound, the sound as asked. Without edit lists, unless they are asked for.
Path soundClip(const std::string& encoder, bool hasEditList = false) {
  return madeByFFmpeg(
      words("-f lavfi -i testsrc2=s=64x48:r=25 -f lavfi -i sine=r=48000 -map 1 -map 0 -t 10 -bf 0 -c:v libx264 " +
            encoder + (hasEditList ? "" : " -use_editlist 0")));
}

const std::string stereo = "-c:a aac -ac 2";

uint32_t ticks(double milliseconds) {
  return static_cast<uint32_t>(std::lround(milliseconds * 48));
}

/// Puts another table in the place of one, or behind the last.
void setTable(BoxEditor& movie, const std::string& type, const Bytes& table) {
  try {
    movie.remove(stbl + "/" + type);
  } catch (const std::runtime_error&) {
    // There was none.
  }
  movie.insert(stbl, movie.at(stbl).end(), table);
}

void setMediaDuration(BoxEditor& movie, uint32_t duration) {
  movie.setField(movie.at(trak + "/mdia/mdhd").offset + 24, duration);
}

uint32_t packetCount(const BoxEditor& movie) {
  return movie.field(movie.at(stbl + "/stsz").offset + 16);
}

/// Holes of so many milliseconds, each behind another hundred packets.
Damage holes(const std::vector<double>& lengths) {
  return [lengths](BoxEditor& movie) {
    Bytes rows;
    uint32_t left = packetCount(movie), duration = left * 1024;
    for (double length : lengths) {
      rows = joined({rows, values({99, 1024, 1, 1024 + ticks(length)})});
      left -= 100;
      duration += ticks(length);
    }
    const auto count = static_cast<uint32_t>(2 * lengths.size() + 1);
    setTable(movie, "stts", box("stts", {values({0, count}), rows, values({left, 1024})}));
    setMediaDuration(movie, duration);
  };
}

/// From the two-hundredth packet on all comes earlier.
void overlapOf100ms(BoxEditor& movie) {
  setTable(movie, "ctts", fullBox("ctts", {2, 200, 0, packetCount(movie) - 200, 0 - ticks(100)}));
}

Damage drift(double milliseconds) {
  return [=](BoxEditor& movie) { setMediaDuration(movie, packetCount(movie) * 1024 + ticks(milliseconds)); };
}

/// An edit list whose empty edit lasts so long, in a movie of milliseconds.
Damage late(uint32_t milliseconds) {
  return [=](BoxEditor& movie) {
    const uint32_t length = static_cast<uint32_t>(std::lround(packetCount(movie) * packet * 1000));
    const Bytes list = fullBox("elst", {2, milliseconds, 0xFFFFFFFF, 1 << 16, length, 0, 1 << 16});
    movie.insert(trak, movie.at(trak + "/mdia").offset, box("edts", {list}));
  };
}

void secondEntry(BoxEditor& movie) {
  const Bytes entry = movie.get(stbl + "/stsd/mp4a");
  movie.insert(stbl + "/stsd", movie.at(stbl + "/stsd").end(), entry);
  movie.setField(movie.at(stbl + "/stsd").offset + 12, 2);
}

class SoundInspect : public testing::Test {
 protected:
  Inspection inspectClip(const Path& clip, const Damage& damage) {
    BoxEditor movie(readFile(files_, clip));
    if (damage) damage(movie);
    writeFileAtomically(files_, file_, movie.bytes);
    return inspect(files_, file_);
  }

  TempDirectory place_;
  PosixFileManager files_{place_.path()};
  const Path file_ = place_ / "clip.mp4";
  LogCapture log_;
};

TEST_F(SoundInspect, FindsKnownDamageAtItsPlaceAndNothingBelowTheThresholds) {
  struct Row {
    std::vector<Damage> damages;  // each on a clip of its own
    std::string found;
    GapType type = GapType::clean;
    double shift = 0;  // of what is behind the last hole, milliseconds: by all that is missing, shorter holes included
  };
  const Row rows[] = {
      {{nullptr, holes({63}), holes({64}), drift(99), drift(100), late(9), late(10), late(63), late(64)},
       "it is whole"},
      {{holes({65})}, "a hole of 65.0 ms at 2.133 s", GapType::internalGaps, 65},
      {{holes({500})}, "a hole of 500.0 ms at 2.133 s", GapType::internalGaps, 500},
      {{holes({100, 40, 250})},
       "a hole of 100.0 ms at 2.133 s, a hole of 250.0 ms at 6.540 s",
       GapType::internalGaps,
       390},
      {{overlapOf100ms}, "an overlap of 100.0 ms at 4.167 s"},
      {{drift(101)}, "its track and its packets differ in length by 101.0 ms", GapType::timelineDrift},
      {{late(65)}, "it starts 65.0 ms after the picture", GapType::initialOffsetOnly},
      {{late(101)}, "it starts 101.0 ms after the picture", GapType::initialOffsetOnly},
  };
  for (const Row& row : rows) {
    for (const Damage& damage : row.damages) {
      SCOPED_TRACE(row.found + " " + std::to_string(&damage - row.damages.data()));
      const Inspection found = inspectClip(soundClip(stereo), damage);
      const AudioForecast& audio = found.audio;
      ASSERT_TRUE(audio.findings);
      EXPECT_EQ(text(audio.findings->analysis.gapType), text(row.type));
      const auto lines = soundLines(audio);
      EXPECT_EQ(fmt::format("{}", fmt::join(lines.begin() + 1, lines.end(), ", ")), row.found);
      EXPECT_NEAR(audio.holes.empty() ? 0 : audio.holes.back().shiftMilliseconds, row.shift, 0.1);
      const bool isLateOrWhole = row.found.starts_with("it ");
      EXPECT_EQ(found.problems.size(), isLateOrWhole ? 0u : 1u) << inspectionText(found);
      const Does expected = row.type == GapType::clean               ? Does::leavesAlone
                            : row.type == GapType::initialOffsetOnly ? Does::leavesToEditList
                                                                     : Does::transcodes;
      EXPECT_EQ(audio.kind, expected);
      EXPECT_EQ(found.syncFix.kind == SyncForecast::Kind::followsNewSound, expected == Does::transcodes);
    }
  }
}

TEST_F(SoundInspect, JudgesTheCodecsThatEncodersWrite) {
  // By one rule its packets hold 1024 samples, by the other they play at twice the rate: half of it seems missing.
  const char* drifts = "fullNormalize(Complex repair (0 actions, 0.00s silence))";
  struct Row {
    const char* encoder;
    const char* decision;
    const char* words;
    // What is no AAC at more than 24 kHz is counted by rules that do not fit it. That is no problem of the file.
    bool isCountTrue = true;
    Damage damage = nullptr;
  };
  const Row rows[] = {
      {"-c:a aac -ac 2", "skip", "AAC-LC, 48000 Hz, 2 channels"},
      {"-c:a aac -ac 2 -ar 44100", "skip", "AAC-LC, 44100 Hz, 2 channels"},
      {"-c:a aac -ac 1", "fullNormalize(Channel count 1 != target 2)", "1 channel:"},
      {"-c:a aac -ac 6", "fullNormalize(Channel count 6 != target 2)", "6 channels"},
      {"-c:a aac -ac 2 -ar 24000", drifts, "AAC-LC, 24000 Hz", false},
      {"-c:a aac -ac 2", "fullNormalize(Multiple audio configurations detected (2 stsd entries))", "AAC-LC", true,
       secondEntry},
      {"-c:a libmp3lame -ac 2", "fullNormalize(Non-AAC-LC codec (object type 34) requires full normalize)",
       "MPEG audio", false},
      {"-c:a libopus -ac 2", "fullNormalize(Non-AAC-LC codec (object type 0) requires full normalize)",
       "Opus, 48000 Hz", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.encoder);
    for (bool hasEditList : {false, true}) {
      const Inspection found = inspectClip(soundClip(row.encoder, hasEditList), row.damage);
      EXPECT_EQ(found.audio.findings->decision.description(), row.decision);
      const std::string told = inspectionText(found);
      EXPECT_NE(told.find(row.words), std::string::npos) << told;
      EXPECT_EQ(told.find("it is whole") != std::string::npos, row.isCountTrue) << told;
      EXPECT_EQ(told.find("only as the repair counts") == std::string::npos, row.isCountTrue) << told;
      EXPECT_TRUE(found.problems.empty()) << told;
    }
  }
}

TEST_F(SoundInspect, SeesTracksThatAreMissingShortOrWide) {
  const std::string inputs = "-f lavfi -i sine=r=48000 -f lavfi -i testsrc2=s=64x48:r=25 -c:a aac -ac 2 -c:v libx264 ";
  const Inspection mute = inspectClip(madeByFFmpeg(words(inputs + "-an -t 2")), nullptr);
  EXPECT_EQ(mute.audio.kind, Does::noSound);
  EXPECT_EQ(inspectionText(mute).find("\nSound\n"), std::string::npos);

  const Inspection blind = inspectClip(madeByFFmpeg(words(inputs + "-vn -t 5")), holes({200}));
  EXPECT_EQ(blind.audio.holes.size(), 1u);
  EXPECT_EQ(blind.audio.kind, Does::transcodes);

  const Inspection single = inspectClip(madeByFFmpeg(words(inputs + "-frames:a 1 -t 2")), nullptr);
  EXPECT_EQ(single.audio.findings->analysis.internalGapCount, 0);
  EXPECT_EQ(single.audio.kind, Does::leavesAlone) << inspectionText(single);

  writeFileAtomically(files_, file_, readFile(files_, soundClip("-c:a aac -ac 2 -ar 44100")));
  widenTimingBoxes(file_);
  const auto timing = AudioTranscoder::parseAudioTimingInfo(files_, file_);
  EXPECT_EQ(std::pair(int64_t{timing.timescale}, timing.sampleDelta), (std::pair<int64_t, int64_t>(44100, 1024)));
  EXPECT_EQ(inspect(files_, file_).audio.kind, Does::leavesAlone);
}

TEST_F(SoundInspect, SaysInJSONHowTheFastPathMovesTheSound) {
  // A light hole in a long clip: 24 minutes, of which the first ten seconds are there and the rest is said to be.
  BoxEditor movie(readFile(files_, soundClip(stereo)));
  movie.setField(movie.topLevel("moov").front().offset + 8 + 24, 1'440'000);  // duration of the mvhd
  holes({65})(movie);
  writeFileAtomically(files_, file_, movie.bytes);
  const auto told = JSObject::parse(runTarn(place_ / "home", {"inspect", "--json", file_.string()}).output);
  const auto& audio = *valueAt<JSObject>(*told, "audio");
  EXPECT_EQ(*valueAt<std::string>(audio, "does"), "takesFastPath");
  EXPECT_EQ(*valueAt<std::string>(audio, "decision"), "fastPath");
  const auto& hole = *valueAt<JSValue::Array>(audio, "holes")->front().get<JSObject>();
  EXPECT_NEAR(*valueAt<double>(hole, "shiftMilliseconds"), 65, 0.01);

  // The first row of the table is the hole: no packet is that long, so the fast path gives up and all is decoded.
  setTable(movie, "stts", fullBox("stts", {2, 1, 1024 + ticks(65), packetCount(movie) - 1, 1024}));
  writeFileAtomically(files_, file_, movie.bytes);
  const Inspection odd = inspect(files_, file_);
  EXPECT_EQ(odd.audio.findings->decision.description(), "fastPath");
  EXPECT_EQ(odd.audio.kind, Does::transcodes) << inspectionText(odd);
}

}  // namespace
}  // namespace tarn::test
