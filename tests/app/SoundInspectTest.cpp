#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "app/TarnProcess.h"
#include "app/inspect/Inspection.h"
#include "audio/AudioTranscoder.h"
#include "platform/Capacitor.h"
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
  auto arguments = words(
      "-f lavfi -i testsrc2=s=64x48:r=25 -f lavfi -i sine=r=48000 -map 1 -map 0 -t 10 -bf 0 "
      "-c:v libx264 " +
      encoder);
  if (!hasEditList) arguments.insert(arguments.end(), {"-use_editlist", "0"});
  return madeByFFmpeg(arguments);
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
    const char* name;
    Damage damage;
    GapType type;
    std::vector<double> holes = {};  // milliseconds; the first lies behind packet 100, the next 100 packets on
    double overlap = 0;
    double late = 0;
    double drift = 0;
  };
  const Row rows[] = {
      {"clean", nullptr, GapType::clean},
      {"hole of 63", holes({63}), GapType::clean},
      {"hole of 64", holes({64}), GapType::clean},
      {"hole of 65", holes({65}), GapType::internalGaps, {65}},
      {"hole of 500", holes({500}), GapType::internalGaps, {500}},
      {"several", holes({100, 40, 250}), GapType::internalGaps, {100, 250}},
      {"overlap", overlapOf100ms, GapType::clean, {}, 100},
      {"drift of 99", drift(99), GapType::clean},
      {"drift of 100", drift(100), GapType::clean},
      {"drift of 101", drift(101), GapType::timelineDrift, {}, 0, 0, 101},
      {"9 late", late(9), GapType::clean},
      {"10 late", late(10), GapType::clean},
      {"63 late", late(63), GapType::clean},
      {"64 late", late(64), GapType::clean},
      {"65 late", late(65), GapType::initialOffsetOnly, {}, 0, 65},
      {"100 late", late(100), GapType::initialOffsetOnly, {}, 0, 100},
      {"101 late", late(101), GapType::initialOffsetOnly, {}, 0, 101},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const Inspection found = inspectClip(soundClip(stereo), row.damage);
    const AudioForecast& audio = found.audio;
    ASSERT_TRUE(audio.findings);
    EXPECT_EQ(text(audio.findings->analysis.gapType), text(row.type));
    ASSERT_EQ(audio.holes.size(), row.holes.size());
    for (size_t i = 0; i < row.holes.size(); ++i) EXPECT_NEAR(audio.holes[i].milliseconds, row.holes[i], 0.1);
    if (row.holes.size() == 1) {
      EXPECT_NEAR(audio.holes[0].atSeconds, 100 * packet, packet);
    }
    // Sound behind a hole moves by all that is missing, the short hole between included.
    if (row.holes.size() == 2) {
      EXPECT_NEAR(audio.holes[1].shiftMilliseconds, 390, 0.1);
    }
    ASSERT_EQ(audio.overlaps.size(), row.overlap > 0 ? 1u : 0u);
    if (row.overlap > 0) {
      EXPECT_NEAR(audio.overlaps[0].milliseconds, row.overlap, 0.1);
      EXPECT_NEAR(audio.overlaps[0].atSeconds, 200 * packet, 0.1 + packet);
    }

    const std::string told = inspectionText(found);
    const auto tells = [&](const char* words) { return told.find(words) != std::string::npos; };
    EXPECT_EQ(tells("a hole of"), !row.holes.empty()) << told;
    EXPECT_EQ(tells("an overlap of 100.0 ms at 4.1"), row.overlap > 0) << told;
    EXPECT_EQ(tells("packets differ in length by 101.0 ms\n"), row.drift > 0) << told;
    EXPECT_EQ(tells("after the picture"), row.late > 0) << told;
    EXPECT_EQ(tells("it is whole"), row.type == GapType::clean && row.overlap == 0) << told;
    const bool isWrong = !row.holes.empty() || row.overlap > 0 || row.drift > 0;
    EXPECT_EQ(found.problems.size(), isWrong ? 1u : 0u) << told;
    const Does expected = row.type == GapType::clean               ? Does::leavesAlone
                          : row.type == GapType::initialOffsetOnly ? Does::leavesToEditList
                                                                   : Does::transcodes;
    EXPECT_EQ(audio.kind, expected) << told;
    EXPECT_EQ(found.syncFix.kind == SyncForecast::Kind::followsNewSound, expected == Does::transcodes);
  }
}

TEST_F(SoundInspect, JudgesTheCodecsThatEncodersWrite) {
  struct Row {
    const char* encoder;
    Damage damage;
    std::string decision;
    const char* words;
    bool isCountTrue = true;
  };
  const std::string drifts = "fullNormalize(Complex repair (0 actions, 0.00s silence))";
  const Row rows[] = {
      {"-c:a aac -ac 2", nullptr, "skip", "AAC-LC, 48000 Hz, 2 channels"},
      {"-c:a aac -ac 2 -ar 44100", nullptr, "skip", "AAC-LC, 44100 Hz, 2 channels"},
      {"-c:a aac -ac 1", nullptr, "fullNormalize(Channel count 1 != target 2)", "1 channel:"},
      {"-c:a aac -ac 6", nullptr, "fullNormalize(Channel count 6 != target 2)", "6 channels"},
      // By one rule its packets hold 1024 samples, by the other they play at twice the rate: half of it seems missing.
      {"-c:a aac -ac 2 -ar 24000", nullptr, drifts, "AAC-LC, 24000 Hz", false},
      {"-c:a aac -ac 2", secondEntry, "fullNormalize(Multiple audio configurations detected (2 stsd entries))",
       "AAC-LC"},
      {"-c:a libmp3lame -ac 2", nullptr, "fullNormalize(Non-AAC-LC codec (object type 34) requires full normalize)",
       "MPEG audio", false},
      {"-c:a libopus -ac 2", nullptr, "fullNormalize(Non-AAC-LC codec (object type 0) requires full normalize)",
       "Opus, 48000 Hz", false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.encoder);
    for (bool hasEditList : {false, true}) {
      const Inspection found = inspectClip(soundClip(row.encoder, hasEditList), row.damage);
      EXPECT_EQ(found.audio.findings->decision.description(), row.decision);
      const std::string told = inspectionText(found);
      EXPECT_NE(told.find(row.words), std::string::npos) << told;
      // What is no AAC at more than 24 kHz is counted by rules that do not fit it. That is no problem of the file.
      const bool isCounted = !found.audio.isCountTrue;
      EXPECT_EQ(told.find("it is whole") == std::string::npos, isCounted) << told;
      EXPECT_EQ(told.find("only as the repair counts") != std::string::npos, isCounted) << told;
      EXPECT_EQ(found.audio.isCountTrue, row.isCountTrue);
      EXPECT_TRUE(found.problems.empty()) << told;
    }
  }
}

TEST_F(SoundInspect, SeesTracksThatAreMissingShortOrWide) {
  const auto inputs = words("-f lavfi -i sine=r=48000 -f lavfi -i testsrc2=s=64x48:r=25 -c:a aac -ac 2 -c:v libx264");
  const auto clip = [&](const std::string& more) {
    auto arguments = inputs;
    for (const auto& word : words(more)) arguments.push_back(word);
    return madeByFFmpeg(arguments);
  };
  const Inspection mute = inspectClip(clip("-an -t 2"), nullptr);
  EXPECT_EQ(mute.audio.kind, Does::noSound);
  EXPECT_EQ(inspectionText(mute).find("\nSound\n"), std::string::npos);

  const Inspection blind = inspectClip(clip("-vn -t 5"), holes({200}));
  ASSERT_EQ(blind.audio.holes.size(), 1u);
  EXPECT_EQ(blind.audio.kind, Does::transcodes);

  const Inspection single = inspectClip(clip("-frames:a 1 -t 2"), nullptr);
  EXPECT_EQ(single.audio.findings->analysis.internalGapCount, 0);
  EXPECT_EQ(single.audio.kind, Does::leavesAlone) << inspectionText(single);

  writeFileAtomically(files_, file_, readFile(files_, soundClip("-c:a aac -ac 2 -ar 44100")));
  widenTimingBoxes(file_);
  const auto timing = AudioTranscoder::parseAudioTimingInfo(files_, file_);
  EXPECT_EQ(timing.timescale, 44100);
  EXPECT_EQ(timing.sampleDelta, 1024);
  EXPECT_EQ(inspect(files_, file_).audio.kind, Does::leavesAlone);
}

TEST_F(SoundInspect, SaysInJSONHowTheFastPathMovesTheSound) {
  // A light hole in a long clip: 24 minutes, of which the first ten seconds are there and the rest is said to be.
  BoxEditor movie(readFile(files_, soundClip(stereo)));
  movie.setField(movie.topLevel("moov").front().offset + 8 + 24, 1'440'000);  // duration of the mvhd
  holes({65})(movie);
  writeFileAtomically(files_, file_, movie.bytes);
  const auto told = JSObject::parse(runTarn(place_ / "home", {"inspect", "--json", file_.string()}).output);
  const auto& audio = *told->find("audio")->get<JSObject>();
  EXPECT_EQ(*audio.find("does")->get<std::string>(), "takesFastPath");
  EXPECT_EQ(*audio.find("decision")->get<std::string>(), "fastPath");
  const auto& hole = *audio.find("holes")->get<JSValue::Array>()->front().get<JSObject>();
  EXPECT_NEAR(*hole.find("shiftMilliseconds")->get<double>(), 65, 0.01);

  // The first row of the table is the hole: no packet is that long, so the fast path gives up and all is decoded.
  setTable(movie, "stts", fullBox("stts", {2, 1, 1024 + ticks(65), packetCount(movie) - 1, 1024}));
  writeFileAtomically(files_, file_, movie.bytes);
  const Inspection odd = inspect(files_, file_);
  EXPECT_EQ(odd.audio.findings->decision.description(), "fastPath");
  EXPECT_EQ(odd.audio.kind, Does::transcodes) << inspectionText(odd);
}

}  // namespace
}  // namespace tarn::test
