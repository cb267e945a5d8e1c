#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "app/inspect/Inspection.h"
#include "app/inspect/SoundText.h"
#include "audio/AudioTranscoder.h"
#include "support/BoxBuilder.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "sync/FlashBeep.h"

namespace tarn::test {
namespace {

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
const std::string usable = "AAC-LC, 48000 Hz, 2 channels: its packets can be used as they are, ";

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

/// In a movie that is said to be 24 minutes long, a hole is a light one.
void lightHole(BoxEditor& movie) {
  movie.setField(movie.topLevel("moov").front().offset + 8 + 24, 1'440'000);  // duration of the mvhd
  holes({65})(movie);
}

/// No packet is as long as the first row of this table, so the fast path gives up.
void lightHoleInTheFirstRow(BoxEditor& movie) {
  lightHole(movie);
  setTable(movie, "stts", fullBox("stts", {2, 1, 1024 + ticks(65), packetCount(movie) - 1, 1024}));
}

class SoundInspect : public FileTest {
 protected:
  /// How a clip's sound is, what is done about it, how far its end moves where its holes close up, in milliseconds, and
  /// how many problems the file has.
  std::string told(const Path& clip, const Damage& damage = nullptr) {
    BoxEditor movie(readFile(files_, clip));
    if (damage) damage(movie);
    const Inspection found = inspect(files_, write(movie.bytes));
    const AudioForecast& audio = found.audio;
    if (!audio.findings) return audioStepText(audio);
    const std::string shift =
        audio.holes.empty() ? "" : fmt::format(", {:.0f} ms", audio.holes.back().shiftMilliseconds);
    return fmt::format("{}; {}{}; {} problems", fmt::join(soundLines(audio), ", "), audioStepText(audio), shift,
                       found.problems.size());
  }
};

TEST_F(SoundInspect, FindsKnownDamageAtItsPlaceAndNothingBelowTheThresholds) {
  const std::string left = "leaves the sound alone", list = "leaves the sound to the edit list (decision editListOnly)";
  const std::string decoded = "decodes and encodes the sound (decision fullNormalize)";
  const std::string fast = "lays the packets back to back without decoding (decision fastPath)";
  const std::pair<std::vector<Damage>, std::string> rows[] = {
      {{nullptr, holes({63}), holes({64}), drift(99), drift(100), late(9), late(10), late(63), late(64)},
       "it is whole; " + left + "; 0 problems"},
      {{holes({65})}, "a hole of 65.0 ms at 2.133 s; " + decoded + ", 65 ms; 1 problems"},
      {{holes({500})}, "a hole of 500.0 ms at 2.133 s; " + decoded + ", 500 ms; 1 problems"},
      {{holes({100, 40, 250})},  // all that is missing counts, the shorter hole too
       "a hole of 100.0 ms at 2.133 s, a hole of 250.0 ms at 6.540 s; " + decoded + ", 390 ms; 1 problems"},
      {{overlapOf100ms}, "an overlap of 100.0 ms at 4.167 s; " + left + "; 1 problems"},
      {{drift(101)}, "its track and its packets differ in length by 101.0 ms; " + decoded + "; 1 problems"},
      {{late(65)}, "it starts 65.0 ms after the picture; " + list + "; 0 problems"},
      {{late(101)}, "it starts 101.0 ms after the picture; " + list + "; 0 problems"},
      {{lightHole}, "a hole of 65.0 ms at 2.133 s; " + fast + ", 65 ms; 1 problems"},
      {{lightHoleInTheFirstRow}, "a hole of 65.0 ms at 0.021 s; " + decoded + ", 65 ms; 1 problems"},
  };
  for (const auto& [damages, expected] : rows) {
    for (const Damage& damage : damages) EXPECT_EQ(told(soundClip(stereo), damage), usable + expected);
  }
}

TEST_F(SoundInspect, JudgesTheCodecsThatEncodersWrite) {
  // What is no AAC at more than 24 kHz is counted by rules that do not fit it. That is no problem of the file. At 24
  // kHz its packets hold 1024 samples by one rule, and by the other they play at twice the rate.
  const std::string whole = "it is whole; ", miscounted = "but only as the repair counts such packets; ";
  const std::string decoded = "decodes and encodes the sound (decision fullNormalize); 0 problems";
  const std::tuple<const char*, Damage, const char*, std::string> rows[] = {
      {"-ac 2 -ar 44100", nullptr, "AAC-LC, 44100 Hz, 2 channels: ", whole + "leaves the sound alone; 0 problems"},
      {"-ac 1", nullptr, "AAC-LC, 48000 Hz, 1 channel: Channel count 1 != target 2, ", whole + decoded},
      {"-ac 6", nullptr, "AAC-LC, 48000 Hz, 6 channels: Channel count 6 != target 2, ", whole + decoded},
      {"-ac 2", secondEntry, "AAC-LC, 48000 Hz, 2 channels: Multiple audio configurations", whole + decoded},
      {"-ac 2 -ar 24000", nullptr, "AAC-LC, 24000 Hz, 2 channels: its packets can be used", miscounted + decoded},
      {"-ac 2 -c:a libmp3lame", nullptr, "MPEG audio, 48000 Hz, 2 channels: Non-AAC-LC", miscounted + decoded},
      {"-ac 2 -c:a libopus", nullptr, "Opus, 48000 Hz, 2 channels: Non-AAC-LC codec", miscounted + decoded},
  };
  for (const auto& [encoder, damage, start, end] : rows) {
    for (bool hasEditList : {false, true}) {
      const std::string text = told(soundClip(std::string("-c:a aac ") + encoder, hasEditList), damage);
      EXPECT_TRUE(text.starts_with(start) && text.ends_with(end)) << text;
    }
  }
}

TEST_F(SoundInspect, SeesTracksThatAreMissingShortOrWide) {
  const std::string inputs = "-f lavfi -i sine=r=48000 -f lavfi -i testsrc2=s=64x48:r=25 -c:a aac -ac 2 -c:v libx264 ";
  EXPECT_EQ(told(madeByFFmpeg(words(inputs + "-an -t 2"))), "is passed over");
  EXPECT_EQ(
      told(madeByFFmpeg(words(inputs + "-vn -t 5")), holes({200})),
      usable +
          "a hole of 200.0 ms at 2.112 s; decodes and encodes the sound (decision fullNormalize), 200 ms; 2 problems");
  EXPECT_EQ(told(madeByFFmpeg(words(inputs + "-frames:a 1 -t 2"))),
            usable + "it is whole; leaves the sound alone; 0 problems");

  write(readFile(files_, soundClip("-c:a aac -ac 2 -ar 44100")));
  widenTimingBoxes(file_);
  const auto timing = AudioTranscoder::parseAudioTimingInfo(files_, file_);
  EXPECT_EQ(std::pair(int64_t{timing.timescale}, timing.sampleDelta), (std::pair<int64_t, int64_t>(44100, 1024)));
}

}  // namespace
}  // namespace tarn::test
