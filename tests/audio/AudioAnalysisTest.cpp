#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <ctime>

#include "audio/AudioRepairDecision.h"
#include "audio/AudioTranscoder.h"
#include "audio/SilentAACSampleCache.h"
#include "audio/SoundWords.h"
#include "mp4/DataExtensions.h"
#include "support/BoxEditor.h"
#include "support/Clip.h"
#include "support/LogCapture.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

using Edits = std::vector<std::pair<uint64_t, int64_t>>;

constexpr uint32_t packet = 1024;
constexpr uint32_t packets = 470;  // about ten seconds at 48 kHz

class AudioAnalysis : public testing::Test {
 protected:
  static SyntheticTrack sound(const std::vector<std::pair<uint32_t, uint32_t>>& stts, Edits edits = {}) {
    SyntheticTrack track{.stts = stts, .edits = std::move(edits)};
    track.sample = SilentAACSampleCache::shared().getSilentFrame(48000);
    for (const auto& [count, delta] : stts) {
      track.samples += count;
      track.mediaDuration += uint64_t{count} * delta;
    }
    return track;
  }
  static SyntheticTrack whole(Edits edits = {}) { return sound({{packets, packet}}, std::move(edits)); }
  /// A hole after packet 100.
  static SyntheticTrack holed(double milliseconds, uint32_t all = packets) {
    return sound({{99, packet}, {1, packet + ticks(milliseconds)}, {all - 100, packet}});
  }
  /// Longer than its packets.
  static SyntheticTrack drifting(double milliseconds) {
    SyntheticTrack track = whole();
    track.mediaDuration += ticks(milliseconds);
    return track;
  }
  static SyntheticTrack coded(uint32_t rate, const Bytes& entry, Edits edits = {}) {
    SyntheticTrack track = whole(std::move(edits));
    track.sampleEntry = entry;
    track.timescale = rate;
    return track;
  }
  static SyntheticTrack aac(uint32_t rate, const Bytes& config, Edits edits = {}) {
    return coded(rate, aacSampleEntry(rate, 2, config), std::move(edits));
  }
  /// 25 pictures a second for ten seconds.
  static SyntheticTrack pictures(Edits edits = {}) {
    SyntheticTrack track = sound({{250, 3600}}, std::move(edits));
    track.handler = "vide";
    track.timescale = 90000;
    return track;
  }
  static uint32_t ticks(double milliseconds) { return static_cast<uint32_t>(std::lround(milliseconds * 48)); }

  static TimelineGap gapAt(double start, double length = 1) {
    return {CMTime::makeWithSeconds(start), CMTime::makeWithSeconds(start + length), CMTime::makeWithSeconds(length)};
  }

  AudioFindings decide(const SyntheticTrack& audio, Edits pictureEdits = {}) {
    clip_.write(syntheticMovie({pictures(std::move(pictureEdits)), audio}));
    return decideAudioRepair(clip_.files, clip_.asset.url());
  }

  Clip clip_;
  LogCapture log_;
};

TEST_F(AudioAnalysis, TellsDamageFromWhatTheSourceSaysAndChoosesTheRoad) {
  const SyntheticTrack two =
      sound({{9, packet}, {1, packet + ticks(100)}, {50, packet}, {1, packet + ticks(300)}, {99, packet}});
  const auto slow = [](uint32_t delta) { return sound({{packets, delta}}); };
  SyntheticTrack rounded = sound({{packets * 30, 1115}});  // 1114.56 ticks
  rounded.sampleEntry = aacSampleEntry(44100, 2, {0x12, 0x10});
  const auto held = [](double seconds) {  // by a packet whose codec does not tell how long it is
    SyntheticTrack track = sound({{100, packet}, {1, ticks(seconds * 1000)}, {100, packet}});
    track.sampleEntry = audioSampleEntry("mp4a", 48000, 2, esdsBox(0x6B, {}));
    return track;
  };
  SyntheticTrack hidden = holed(500);
  hidden.edits = {{1000, 0}, {500, 240000}};
  SyntheticTrack garbage = holed(65);
  garbage.sample = {};
  const std::string alone = "The sound stays as it is: ";
  const struct {
    SyntheticTrack audio;
    std::string found;  // gaps, those inside with the largest, drift and offset in ms; what is to be done, and why
    Edits pictureEdits = {};
  } rows[] = {
      {whole(), "clean 0 0 0 0 0: skip"},
      {sound({{1, packet}}), "clean 0 0 0 0 0: skip"},
      {holed(64), "clean 0 0 0 64 0: skip"},
      // 65 ms in ten seconds are far above 10 ms a minute; a longer file bears them.
      {holed(65), "internalGaps 1 1 65 65 0: Complex repair (1 actions, 0.06s silence)"},
      {holed(65, packets * 42), "internalGaps 1 1 65 65 0: fastPath"},
      {holed(3600000), "internalGaps 1 1 3600000 3600000 0: Complex repair (1 actions, 3600.00s silence)"},
      {two, "internalGaps 2 2 300 400 0: Complex repair (2 actions, 0.41s silence)"},
      {garbage, "internalGaps 1 1 65 65 0: " + alone + "its packets cannot be decoded"},
      {slow(1034), "clean 0 0 0 98 0: skip"},
      {slow(1035), "timelineDrift 0 0 0 107 0: Complex repair (0 actions, 0.00s silence)"},
      {slow(1013), "timelineDrift 0 0 0 107 0: Complex repair (0 actions, 0.00s silence)"},
      // Light, but in the end the packets alone would be a tenth of a second off.
      {sound({{packets * 70, packet}, {packets, 1035}}),
       "timelineDrift 0 0 0 107 0: Packets alone cannot keep the time"},
      // Lengths that a header claims, that a recorder gives the first packet and a writer the last, and that no whole
      // ticks hold.
      {drifting(500), "clean 0 0 0 0 0: skip"},
      {sound({{1, packet + ticks(250)}, {packets, packet}}), "clean 0 0 0 0 0: skip"},
      {sound({{1, packet + ticks(251)}, {packets, packet}}),
       "internalGaps 1 1 251 251 0: Complex repair (1 actions, 0.26s silence)"},
      {sound({{packets, packet}, {1, packet + ticks(500)}}), "clean 0 0 0 0 0: skip"},
      {rounded, "clean 0 0 0 0 0: skip"},
      {held(61.1), "timelineDrift 0 0 0 60100 0: " + alone + "its packets cannot be decoded"},
      // What the edit list says: a pause, a cut, a late start; it hides a hole; it is damaged.
      {whole({{2000, 0}, {2000, -1}, {3000, 96000}}), "clean 0 0 0 0 0: skip"},
      {whole({{1000, 0}, {1000, 96000}, {1000, 24000}, {1000, 9600}, {1000, 4800}}), "clean 0 0 0 0 0: skip"},
      {hidden, "clean 0 0 0 0 0: skip"},
      {whole({{64, -1}, {10000, 0}}), "clean 0 0 0 0 64: skip"},
      {whole({{65, -1}, {10000, 0}}), "initialOffsetOnly 1 0 0 0 65: editListOnly"},
      {whole({{100, -1}, {10000, 0}}), "initialOffsetOnly 1 0 0 0 -100: editListOnly", {{200, -1}, {10000, 0}}},
      {whole({{300, -1}, {9700, 14400}}), "initialOffsetOnly 1 0 0 0 299: editListOnly"},
      {whole({{5000, 9000000}}), "clean 0 0 0 0 0: skip"},
      // Whatever AAC that is whole.
      {aac(24000, {0x2B, 0x11, 0x88, 0x00}, {{70, -1}, {20053, 0}}), "clean 0 0 0 0 70: skip"},
      {aac(24000, {0xEB, 0x09, 0x88}), "clean 0 0 0 0 0: skip"},
      {aac(24000, {0x13, 0x10}), "clean 0 0 0 0 0: skip"},
      {aac(44100, {0x12, 0x10}), "clean 0 0 0 0 0: skip"},
      {aac(48000, {0x11, 0x88}), "clean 0 0 0 0 0: skip"},
      {aac(32000, {0x12, 0x90}), "clean 0 0 0 0 0: skip"},
      {held(61), "clean 0 0 0 0 0: " + alone + "its packets cannot be decoded"},
      {coded(48000, audioSampleEntry("none", 48000, 2)),
       "clean 0 0 0 0 0: " + alone + "its codec \"none\" cannot be decoded"},
  };
  for (const auto& row : rows) {
    const AudioFindings findings = decide(row.audio, row.pictureEdits);
    const auto& [analysis, decision] = std::tie(findings.analysis, findings.decision);
    const std::string why = findings.obstacle.value_or(decision.reason);
    EXPECT_EQ(fmt::format("{} {} {} {:.0f} {:.0f} {:.0f}: {}", text(analysis.gapType), analysis.gapCount,
                          analysis.internalGapCount, analysis.maxInternalGapMs, analysis.timelineDriftMs,
                          analysis.initialOffsetMs, why.empty() ? decision.description() : why),
              row.found);
    EXPECT_EQ(findings.obstacle.has_value(), row.found.ends_with("decoded"));
    EXPECT_TRUE(!findings.obstacle || decision.kind == RepairDecision::Kind::skip) << row.found;
    EXPECT_EQ(findings.config.audioTimescale, static_cast<int32_t>(row.audio.timescale));
  }
  clip_.write(syntheticMovie({holed(65)}));
  EXPECT_EQ(decideAudioRepair(clip_.files, clip_.asset.url()).obstacle, alone + "there are no pictures beside it");
  SyntheticTrack missing = holed(65);
  missing.samples = packets;
  Bytes cut = syntheticMovie({pictures(), missing});
  const auto moov = static_cast<ptrdiff_t>(BoxEditor(cut).at("moov").offset);
  // The sound's last packets lie after the file's end, as the movie stands where they were.
  cut.erase(cut.begin() + 8, cut.begin() + moov - 8);
  writeUInt32(cut, 16, 0);
  clip_.write(cut);
  EXPECT_TRUE(
      decideAudioRepair(clip_.files, clip_.asset.url()).obstacle->ends_with("of its packets do not lie in the file"));
}

TEST_F(AudioAnalysis, DecidesByConfigurationAsToldWhereThatIsAsked) {
  const auto reasonOf = [&](const SyntheticTrack& audio) {
    clip_.write(syntheticMovie({audio}));
    return AudioTranscoder::analyzeAudioConfig(clip_.files, clip_.asset.url()).reason.value_or("");
  };
  EXPECT_EQ(reasonOf(aac(24000, {0x2B, 0x11, 0x88, 0x00})), "HE-AAC v1 (SBR) requires full normalize");
  EXPECT_EQ(reasonOf(aac(24000, {0xEB, 0x09, 0x88})), "HE-AAC v2 (PS) requires full normalize");
  EXPECT_EQ(reasonOf(aac(24000, {0x13, 0x10})), "");
  EXPECT_EQ(reasonOf(aac(48000, {0x11, 0x88})), "Channel count 1 != target 2");
  EXPECT_EQ(reasonOf(aac(32000, {0x12, 0x90})), "Sample rate 32000 Hz not supported (supported: 24000, 44100, 48000)");
  EXPECT_EQ(reasonOf(coded(48000, audioSampleEntry("mp4a", 48000, 2, esdsBox(0x6B, {})))),
            "Non-AAC-LC codec (object type 34) requires full normalize");

  // Eleven changes are too many, however short; 0.16 ms in half a second, which counts as a whole one, are not.
  const AudioConfigCheck config{.matchesPassthroughTarget = true, .reason = {}, .audioTimescale = 48000};
  const std::vector<AudioAction> changes(11);
  AudioAnalysisResult holes;
  holes.gapType = GapType::internalGaps;
  holes.durationSeconds = 0.5;
  for (auto [count, driftMs, isLight] :
       {std::tuple{10, 0.0, true}, {11, 0.0, false}, {0, 0.16, true}, {0, 0.17, false}}) {
    holes.timelineDriftMs = driftMs;
    const auto decision =
        AudioTranscoder::determineRepairDecision(holes, config, std::span(changes).first(static_cast<size_t>(count)));
    EXPECT_EQ(decision.kind == RepairDecision::Kind::fastPath, isLight) << count << " " << driftMs;
  }
  // Packets count as long as they are, at any rate and with SBR announced or not.
  const std::pair<uint32_t, Bytes> rates[] = {{8000, {0x15, 0x90}},
                                              {11025, {0x15, 0x10}},
                                              {22050, {0x13, 0x90}},
                                              {32000, {0x12, 0x90}},
                                              {24000, {0x2B, 0x11, 0x88, 0x00}}};
  for (const auto& [rate, configuration] : rates) {
    SyntheticTrack damaged = aac(rate, configuration);
    damaged.stts = {{200, packet}, {1, packet + rate}, {packets - 201, packet}};
    damaged.ctts = {{300, 0}, {packets - 300, -static_cast<int32_t>(rate) / 5}};
    const auto found = decide(damaged).analysis;
    EXPECT_EQ(found.internalGapCount, 1) << rate;
    EXPECT_NEAR(found.maxInternalGapMs, 1000, 0.1) << rate;
    const bool isSBR = configuration[0] >> 3 == 5;
    EXPECT_EQ(found.internalOverlaps.at(0).framesToDrop, rate / 5 * (isSBR ? 2 : 1)) << rate;
  }
}

TEST_F(AudioAnalysis, MatchesGapsAndInsertsSilenceForALateStartThatNoEditListGivesBack) {
  using Gaps = std::vector<TimelineGap>;
  const struct {
    double audioStart, syncOffset;
    Gaps video, audio;
    std::array<size_t, 3> counts;  // gaps that match, of the video alone, of the audio alone
    bool addsSilence = false;
  } rows[] = {
      {0.3, 0, {}, {gapAt(5)}, {0, 0, 1}, true},
      {0.3, 0.3, {}, {}, {}},
      {0.1, 0, {}, {}, {}},
      {0.3, 0.01, {}, {}, {}},
      {-0.3, 0, {}, {}, {}},
      {0, 0, {gapAt(10)}, {gapAt(9.8)}, {1, 0, 0}},
      {0, 0, {gapAt(10)}, {gapAt(9.5)}, {0, 1, 1}},
      {0, 0.3, {gapAt(10)}, {gapAt(9.5)}, {1, 0, 0}},
      {0, 0, {gapAt(3), gapAt(10), gapAt(15, 0.05)}, {gapAt(3)}, {1, 2, 0}},
      {0, 0, {gapAt(10)}, {gapAt(2), gapAt(10), gapAt(20)}, {1, 0, 2}},
      // One that starts at the video's end stays, one after it does not.
      {0, 0, {}, {gapAt(20), gapAt(20.1)}, {0, 0, 1}},
  };
  for (const auto& row : rows) {
    log_.clear();
    const VideoTimeline video{.duration = CMTime::make(20, 1), .gaps = row.video, .rebaseOffset = CMTime::make(1, 1)};
    const AudioCoverage audio{.gaps = row.audio, .originalFirstPTS = CMTime::makeWithSeconds(1 + row.audioStart)};
    const auto actions = AudioTranscoder::convertToAudioActions(
        AudioTranscoder::detectSilenceActions(video, audio, 48000, row.syncOffset, 0.5), 48000, packet);
    const auto stats =
        fmt::format("AudioTranscoder: Matched video gaps={}, Unmatched video gaps={}, Unmatched audio gaps={}",
                    row.counts[0], row.counts[1], row.counts[2]);
    EXPECT_TRUE(log_.contains(stats)) << stats;
    std::vector<AudioAction> expected;
    if (row.addsSilence) expected = {{AudioAction::Kind::insertSilence, 0, ticks(300), "audioStartsLate"}};
    EXPECT_EQ(actions, expected) << row.audioStart << " " << row.syncOffset;
  }
}

TEST_F(AudioAnalysis, FindsVideoGapsAndOverlapsAndAcceptsTracksThatShowNothing) {
  // Half a second is no gap, a tick more is one.
  for (uint32_t more : {0, 1}) {
    clip_.write(syntheticMovie({pictures({{9000, -1}, {90000, 0}, {45000 + more, -1}, {180000, 90000}})}, 90000));
    const auto timeline = AudioTranscoder::buildVideoTimeline(clip_.asset, clip_.track(AVMediaType::video), 0.5);
    EXPECT_EQ(timeline.gaps.size(), more);
    EXPECT_DOUBLE_EQ(timeline.rebaseOffset.seconds(), 0.1);
    EXPECT_DOUBLE_EQ(timeline.endPTS.seconds(), 3.5 + more / 90000.0);
    // Nor are 2 ms of sound without pictures.
    SyntheticTrack late = whole();
    late.ctts = {{200, 0}, {packets - 200, static_cast<int32_t>(ticks(2) + more)}};
    clip_.write(syntheticMovie({late}));
    EXPECT_EQ(AudioTranscoder::detectAudioGaps(clip_.asset, clip_.track(), 48000, 2).gaps.size(), more);
  }
  SyntheticTrack overlapping = whole();
  overlapping.ctts = {{200, 0}, {packets - 200, -4800}};
  clip_.write(syntheticMovie({overlapping}));
  const auto inside = AudioTranscoder::detectInternalGaps(clip_.asset, clip_.track(), AACType::aacLC, 64);
  EXPECT_EQ(inside.overlaps.at(0).framesToDrop, 4800);
  EXPECT_EQ(inside.maxOverlapMs, 100);

  const auto merged = AudioTranscoder::mergeOverlappingGaps({gapAt(4.04), gapAt(3)}, 0.05);
  ASSERT_EQ(merged.size(), 1U) << "gaps that all but touch are one";
  EXPECT_NEAR(merged[0].duration.seconds(), 2.04, 1e-6);

  clip_.write(syntheticMovie({pictures({{100, -1}}), whole({{100, -1}})}));
  EXPECT_THROW(AudioTranscoder::buildVideoTimeline(clip_.asset, clip_.track(AVMediaType::video), 0.5),
               AudioTranscoderError);
  EXPECT_THROW(AudioTranscoder::buildAudioCoverage(clip_.asset, clip_.track(), CMTime::zero(), 48000, 0.5),
               AudioTranscoderError);
}

TEST_F(AudioAnalysis, TakesNoLongerForEachGapWhereThereAreMany) {
  const auto effort = [&](uint32_t holes) {
    const SyntheticTrack audio = sound({{holes, packet + 48000}});
    const std::clock_t began = std::clock();
    EXPECT_EQ(decide(audio).analysis.internalGapCount, int64_t{holes} - 1);
    return static_cast<double>(std::clock() - began);
  };
  EXPECT_LT(effort(160000) / effort(20000), 24) << "eight times the holes are eight times the work, not 64 times";
}

TEST_F(AudioAnalysis, TellsTimesAsPlayersShowThem) {
  const std::pair<double, std::string> cases[] = {
      {-1, "0:00"}, {61.9, "1:01"}, {3599.9, "59:59"}, {3600, "1:00:00"}, {3723, "1:02:03"}};
  for (const auto& [seconds, text] : cases) EXPECT_EQ(clockText(seconds), text);
}

}  // namespace
}  // namespace tarn::test
