#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <cmath>

#include "audio/AudioRepairDecision.h"
#include "audio/AudioTranscoder.h"
#include "platform/memory/InMemoryFileManager.h"
#include "support/LogCapture.h"
#include "support/SyntheticMovie.h"

namespace tarn::test {
namespace {

using Rows = std::vector<std::pair<uint32_t, uint32_t>>;

constexpr uint32_t packet = 1024;
constexpr uint32_t packets = 470;  // about ten seconds at 48 kHz

uint32_t ticks(double milliseconds) {
  return static_cast<uint32_t>(std::lround(milliseconds * 48));
}

uint64_t sum(const Rows& rows) {
  uint64_t total = 0;
  for (const auto& [count, delta] : rows) total += uint64_t{count} * delta;
  return total;
}

SyntheticTrack sound(const Rows& stts, std::vector<std::pair<uint64_t, int64_t>> edits = {}) {
  uint32_t count = 0;
  for (const auto& row : stts) count += row.first;
  return {.stts = stts, .edits = std::move(edits), .samples = count, .mediaDuration = sum(stts)};
}

/// 25 pictures a second for ten seconds. The edit list can start late, or pause behind the fourth second.
SyntheticTrack pictures(uint64_t startMs = 0, uint64_t pauseMs = 0) {
  SyntheticTrack track{.handler = "vide", .timescale = 90000, .stts = {{250, 3600}}, .samples = 250};
  track.mediaDuration = sum(track.stts);
  if (startMs > 0) track.edits = {{startMs, -1}, {10000, 0}};
  if (pauseMs > 0) track.edits = {{4000, 0}, {pauseMs, -1}, {6000, 360000}};
  return track;
}

class AudioAnalysis : public testing::Test {
 protected:
  AudioAnalysisResult analyze(const std::vector<SyntheticTrack>& tracks) {
    write(tracks);
    return AudioTranscoder::analyzeAudioForProcessing(files_, file_);
  }
  AudioFindings decide(const std::vector<SyntheticTrack>& tracks) {
    write(tracks);
    return decideAudioRepair(files_, file_);
  }
  void write(const std::vector<SyntheticTrack>& tracks) { writeFileAtomically(files_, file_, syntheticMovie(tracks)); }

  InMemoryFileManager files_;
  const Path file_ = "/clip.mp4";
  LogCapture log_;
};

/// A hole behind packet 100.
Rows holed(double milliseconds) {
  return {{99, packet}, {1, packet + ticks(milliseconds)}, {packets - 100, packet}};
}

TEST_F(AudioAnalysis, FindsHolesAboveThreePacketsAtTheirPlace) {
  struct Row {
    Rows stts;
    int64_t gaps;
    double largest;
  };
  const Row rows[] = {
      {{{packets, packet}}, 0, 0},
      {holed(63), 0, 0},
      {holed(64), 0, 0},
      {holed(65), 1, 65},
      {holed(500), 1, 500},
      {holed(3600000), 1, 3600000},
      {{{9, packet}, {1, packet + ticks(100)}, {50, packet}, {1, packet + ticks(300)}, {99, packet}}, 2, 300},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.largest);
    const auto result = analyze({pictures(), sound(row.stts)});
    EXPECT_EQ(result.internalGapCount, row.gaps);
    EXPECT_NEAR(result.maxInternalGapMs, row.largest, 0.01);
    EXPECT_EQ(result.gapType == GapType::internalGaps, row.gaps > 0);
    EXPECT_EQ(result.needsTranscoding, row.gaps > 0);
  }
  write({sound(holed(500))});
  const AVAsset asset(files_, file_);
  const auto inside =
      AudioTranscoder::detectInternalGaps(asset, asset.tracks(AVMediaType::audio)[0], AACType::aacLC, 64);
  ASSERT_EQ(inside.gaps.size(), 1U);
  EXPECT_EQ(inside.gaps[0].frameIndex, 100);
  EXPECT_EQ(inside.gaps[0].sampleOffset, 100 * 1024);
  EXPECT_NEAR(inside.gaps[0].position.seconds(), 100 * 1024 / 48000.0, 1e-9);
}

TEST_F(AudioAnalysis, TellsDriftAndOffsetsFromCleanSound) {
  const auto drifting = [](double milliseconds) {
    // Each packet is a little longer than its frames, but for the last, which is as long as it is.
    SyntheticTrack track = sound({{packets, packet}});
    track.mediaDuration += ticks(milliseconds);
    return track;
  };
  const auto late = [](double milliseconds) {
    return sound({{packets, packet}}, {{static_cast<uint64_t>(milliseconds), -1}, {10000, 0}});
  };
  struct Row {
    SyntheticTrack audio;
    GapType type;
    double offset;
  };
  const Row rows[] = {
      {drifting(99), GapType::clean, 0},
      {drifting(100), GapType::clean, 0},
      {drifting(101), GapType::timelineDrift, 0},
      {late(9), GapType::clean, 9},
      {late(64), GapType::clean, 64},
      {late(65), GapType::initialOffsetOnly, 65},
      {late(300), GapType::initialOffsetOnly, 300},
  };
  for (const Row& row : rows) {
    const auto result = analyze({pictures(), row.audio});
    EXPECT_EQ(result.gapType, row.type) << text(row.type) << result.summary();
    EXPECT_NEAR(result.initialOffsetMs, row.offset, 0.5);
    EXPECT_EQ(result.gapCount, row.offset > 64 ? 1 : 0);
  }
  EXPECT_NEAR(analyze({pictures(200), late(100)}).initialOffsetMs, -100, 0.5);
  const auto silent = analyze({pictures()});
  EXPECT_EQ(silent.gapType, GapType::clean);
  EXPECT_EQ(silent.frameDurationMs, 21.33);
  const auto single = analyze({pictures(), sound({{1, packet}})});
  EXPECT_EQ(single.gapType, GapType::clean);
  SyntheticTrack wide = drifting(101);
  wide.longTimes = true;
  EXPECT_EQ(analyze({pictures(), wide}).gapType, GapType::timelineDrift);
}

TEST_F(AudioAnalysis, ChoosesTheRoadByConfigurationAndDamage) {
  struct Row {
    const char* name;
    Bytes entry;
    uint32_t timescale;
    std::string decision;
  };
  const Row rows[] = {
      {"stereo", aacSampleEntry(48000, 2, {0x11, 0x90}), 48000, "skip"},
      {"44.1 kHz", aacSampleEntry(44100, 2, {0x12, 0x10}), 44100, "skip"},
      {"mono", aacSampleEntry(48000, 1, {0x11, 0x88}), 48000, "fullNormalize(Channel count 1 != target 2)"},
      {"5.1", aacSampleEntry(48000, 6, {0x11, 0xB0}), 48000, "fullNormalize(Channel count 6 != target 2)"},
      {"32 kHz", aacSampleEntry(32000, 2, {0x12, 0x90}), 32000,
       "fullNormalize(Sample rate 32000 Hz not supported (supported: 24000, 44100, 48000))"},
      {"HE-AAC", aacSampleEntry(24000, 2, {0x2B, 0x11, 0x88, 0x00}), 24000,
       "fullNormalize(HE-AAC v1 (SBR) requires full normalize)"},
      {"MP3", audioSampleEntry("mp4a", 48000, 2, esdsBox(0x6B, {})), 48000,
       "fullNormalize(Non-AAC-LC codec (object type 34) requires full normalize)"},
  };
  for (const Row& row : rows) {
    SyntheticTrack track = sound({{packets, packet}});
    track.sampleEntry = row.entry;
    track.timescale = row.timescale;
    EXPECT_EQ(decide({pictures(), track}).decision.description(), row.decision) << row.name;
  }
  EXPECT_EQ(decide({pictures(), sound(holed(1))}).decision.description(), "skip");
  // Eleven changes are too many, however short.
  const AudioAnalysisResult holes{.gapType = GapType::internalGaps, .durationSeconds = 0.5, .frameDurationMs = 21.3};
  const AudioConfigCheck config{.matchesPassthroughTarget = true, .reason = {}, .audioTimescale = 48000};
  const std::vector<AudioAction> changes(11);
  for (size_t count : {10, 11}) {
    const auto decision = AudioTranscoder::determineRepairDecision(holes, config, std::span(changes).first(count));
    EXPECT_EQ(decision.kind == RepairDecision::Kind::fastPath, count == 10);
  }
  AudioAnalysisResult drifting = holes;
  drifting.timelineDriftMs = 0.16;  // in half a second, which counts as a whole one: 9.6 ms a minute
  EXPECT_EQ(AudioTranscoder::determineRepairDecision(drifting, config, {}).description(), "fastPath");
  // 65 ms in ten seconds are far above 10 ms a minute; a longer file bears them.
  EXPECT_EQ(decide({pictures(), sound(holed(65))}).decision.description(),
            "fullNormalize(Complex repair (0 actions, 0.00s silence))");
  SyntheticTrack lasting = sound({{99, packet}, {1, packet + ticks(65)}, {packets * 42, packet}});
  EXPECT_EQ(decide({pictures(), lasting}).decision.description(), "fastPath");
  EXPECT_FALSE(decide({pictures(), lasting}).scan);
  SyntheticTrack late = sound({{packets, packet}}, {{70, -1}, {10000, 0}});
  EXPECT_EQ(decide({pictures(), late}).decision.description(), "editListOnly");
  EXPECT_TRUE(log_.contains("Repair decision: editListOnly"));
  EXPECT_EQ(AudioTranscoder::analyzeAudioConfig(files_, "/none.mp4").reason, "No audio track found");
}

TEST_F(AudioAnalysis, LooksAtLowRatesByTwoRules) {
  SyntheticTrack track = sound({{packets, packet}});
  track.sampleEntry = aacSampleEntry(24000, 2, {0x13, 0x10});
  track.timescale = 24000;
  write({track});
  const auto audio = AVAsset(files_, file_).tracks(AVMediaType::audio)[0];
  EXPECT_EQ(AudioTranscoder::detectAACType(audio), AACType::aacLC);
  EXPECT_EQ(AudioTranscoder::detectAACFrameSize(audio), 2048);
  EXPECT_EQ(AudioTranscoder::detectActualSampleRate(audio), 48000.0);
  EXPECT_TRUE(AudioTranscoder::analyzeAudioConfig(files_, file_).matchesPassthroughTarget);
  // Half of the length is missing by this count, so that such a track always counts as drifting.
  EXPECT_EQ(AudioTranscoder::analyzeAudioForProcessing(files_, file_).gapType, GapType::timelineDrift);
}

TEST_F(AudioAnalysis, LaysTheTimelinesSideBySide) {
  const auto gapsOf = [&](uint64_t milliseconds) {
    write({pictures(0, milliseconds)});
    const AVAsset asset(files_, file_);
    return AudioTranscoder::buildVideoTimeline(asset, asset.tracks(AVMediaType::video)[0], 0.5).gaps.size();
  };
  EXPECT_EQ(gapsOf(500), 0U);
  EXPECT_EQ(gapsOf(501), 1U);

  // A lag of the clock is one gap, found once, however it is found.
  for (double milliseconds : {30.0, 1000.0}) {
    write({sound(holed(milliseconds))});
    const AVAsset asset(files_, file_);
    const auto coverage =
        AudioTranscoder::buildAudioCoverage(asset, asset.tracks(AVMediaType::audio)[0], CMTime::zero(), 48000, 0.5);
    ASSERT_EQ(coverage.gaps.size(), 1U);
    EXPECT_NEAR(coverage.gaps[0].duration.seconds(), milliseconds / 1000, 1e-4);
    EXPECT_EQ(coverage.totalSampleCount, packets * 1024);
    const auto alone = AudioTranscoder::detectAudioGaps(asset, asset.tracks(AVMediaType::audio)[0], 48000, 2.0);
    ASSERT_EQ(alone.gaps.size(), 1U);
    EXPECT_EQ(alone.gaps[0].frameIndex, 100);
    EXPECT_EQ(alone.ptsMap.offsets.size(), packets);
  }

  const auto at = [](double start, double length) {
    return TimelineGap{CMTime::makeWithSeconds(start), CMTime::makeWithSeconds(start + length),
                       CMTime::makeWithSeconds(length)};
  };
  const auto merged =
      AudioTranscoder::mergeOverlappingGaps({at(5, 2), at(1, 0.5), at(1.55, 0.5), at(2.11, 0.1), at(5.5, 0.5)}, 0.05);
  ASSERT_EQ(merged.size(), 3U);
  EXPECT_NEAR(merged[0].duration.seconds(), 1.05, 1e-4);
  EXPECT_NEAR(merged[2].endPTS.seconds(), 7, 1e-4);
}

TEST_F(AudioAnalysis, InsertsSilenceForALateStartThatNoEditListGivesBack) {
  struct Row {
    double audioStart, syncOffset;
    size_t actions;
  };
  for (const Row& row : {Row{0.3, 0, 1}, Row{0.3, 0.3, 0}, Row{0.1, 0, 0}, Row{0.3, 0.01, 0}, Row{-0.3, 0, 0}}) {
    VideoTimeline video;
    video.duration = video.endPTS = CMTime::makeWithSeconds(10);
    video.rebaseOffset = CMTime::makeWithSeconds(1);
    AudioCoverage audio;
    audio.originalFirstPTS = CMTime::makeWithSeconds(1 + row.audioStart);
    audio.gaps = {{CMTime::makeWithSeconds(5), CMTime::makeWithSeconds(6), CMTime::makeWithSeconds(1)}};
    const auto actions = AudioTranscoder::detectSilenceActions(video, audio, 48000, row.syncOffset, 0.5);
    ASSERT_EQ(actions.size(), row.actions) << row.audioStart << " " << row.syncOffset;
    if (actions.empty()) continue;
    EXPECT_NEAR(actions[0].duration.seconds(), 0.3, 1e-4);
    const auto converted = AudioTranscoder::convertToAudioActions(actions, 48000, 1024);
    EXPECT_EQ(converted[0], (AudioAction{AudioAction::Kind::insertSilence, 0, 14400, "audioStartsLate"}));
  }
  // By the edit list the tracks start together, by the samples they do not: the scan overrides what else is found.
  const auto findings = decide({pictures(), sound({{packets, packet}}, {{300, -1}, {9700, 14400}})});
  EXPECT_EQ(findings.analysis.gapType, GapType::initialOffsetOnly);
  EXPECT_EQ(findings.decision.description(), "fullNormalize(Cross-track: 1 video gaps without matching audio gaps)");
  EXPECT_TRUE(log_.contains("Cross-track scan found 1 actions - overriding decision to fullNormalize"));
}

TEST_F(AudioAnalysis, MatchesGapsWithinTheTolerance) {
  const auto gapsAt = [](std::initializer_list<double> starts) {
    std::vector<TimelineGap> gaps;
    for (double start : starts) {
      gaps.push_back({CMTime::makeWithSeconds(start), CMTime::makeWithSeconds(start + 1), CMTime::make(1, 1)});
    }
    return gaps;
  };
  struct Row {
    std::vector<TimelineGap> video, audio;
    double offset;
    const char* stats;
  };
  const Row rows[] = {
      {gapsAt({10}), gapsAt({9.8}), 0, "Matched video gaps=1, Unmatched video gaps=0, Unmatched audio gaps=0"},
      {gapsAt({10}), gapsAt({9.5}), 0, "Matched video gaps=0, Unmatched video gaps=1, Unmatched audio gaps=1"},
      {gapsAt({10}), gapsAt({9.5}), 0.3, "Matched video gaps=1, Unmatched video gaps=0, Unmatched audio gaps=0"},
      {gapsAt({3, 10, 15}), gapsAt({3}), 0, "Matched video gaps=1, Unmatched video gaps=2, Unmatched audio gaps=0"},
      {gapsAt({10}), gapsAt({2, 10, 20}), 0, "Matched video gaps=1, Unmatched video gaps=0, Unmatched audio gaps=2"},
      // One that starts at the video's end stays, one behind it does not.
      {gapsAt({}), gapsAt({20, 20.1}), 0, "Matched video gaps=0, Unmatched video gaps=0, Unmatched audio gaps=1"},
  };
  for (const Row& row : rows) {
    const VideoTimeline video{.duration = CMTime::make(20, 1), .gaps = row.video};
    const AudioCoverage audio{.gaps = row.audio};
    log_.clear();
    EXPECT_TRUE(AudioTranscoder::detectSilenceActions(video, audio, 48000, row.offset, 0.5).empty());
    EXPECT_TRUE(log_.contains(std::string("AudioTranscoder: ") + row.stats)) << row.stats;
  }
}

/// An asset of one track whose buffers are given.
class ScriptedAsset : public AVAsset {
 public:
  ScriptedAsset(FileManager& files, const Path& url, std::vector<CMSampleBuffer> buffers)
      : AVAsset(files, url), buffers_(std::move(buffers)) {}

  std::unique_ptr<CompressedSampleSource> compressedSamples(const AVAssetTrack& /*track*/) const override {
    return std::make_unique<Source>(buffers_);
  }

 private:
  class Source : public CompressedSampleSource {
   public:
    explicit Source(const std::vector<CMSampleBuffer>& buffers) : buffers_(buffers) {}
    std::optional<CMSampleBuffer> next() override {
      return next_ < buffers_.size() ? std::optional(buffers_[next_++]) : std::nullopt;
    }
    Bytes data(int64_t /*sampleIndex*/) override { return {}; }

   private:
    const std::vector<CMSampleBuffer>& buffers_;
    size_t next_ = 0;
  };
  std::vector<CMSampleBuffer> buffers_;
};

TEST_F(AudioAnalysis, BearsBuffersThatStateNoTimes) {
  write({});
  const auto at = [](CMTime pts, CMTime duration = CMTime::invalid(), int64_t count = 1) {
    CMSampleBuffer buffer;
    buffer.presentationTimeStamp = pts;
    buffer.duration = duration;
    buffer.numSamples = count;
    return buffer;
  };
  const AVAssetTrack track;
  const auto ticks90 = [](int64_t value) { return CMTime::make(value, 90000); };

  // A thirtieth of a second stands for a duration that is missing; half a second is no gap, a tick more is one.
  for (int64_t more : {0, 1}) {
    const ScriptedAsset asset(files_, file_,
                              {at(CMTime::invalid()), at(ticks90(9000)), at(CMTime::indefinite()),
                               at(ticks90(9000 + 3000 + 45000 + more), ticks90(3000))});
    const auto timeline = AudioTranscoder::buildVideoTimeline(asset, track, 0.5);
    EXPECT_EQ(timeline.gaps.size(), static_cast<size_t>(more));
    EXPECT_DOUBLE_EQ(timeline.rebaseOffset.seconds(), 0.1);
    EXPECT_DOUBLE_EQ(timeline.endPTS.seconds(), static_cast<double>(51000 + more) / 90000);
  }
  // Buffers of three packets, the second without a time.
  const CMTime three = CMTime::make(3072, 48000);
  const ScriptedAsset sound(files_, file_,
                            {at(CMTime::make(0, 48000), three, 3), at(CMTime::invalid(), three, 3),
                             at(CMTime::make(3072 + 48000, 48000), CMTime::invalid(), 3)});
  const auto coverage = AudioTranscoder::buildAudioCoverage(sound, track, CMTime::zero(), 48000, 0.5);
  EXPECT_EQ(coverage.totalSampleCount, 9216);
  ASSERT_EQ(coverage.gaps.size(), 1U);
  EXPECT_NEAR(coverage.gaps[0].duration.seconds(), 1, 1e-4);
  EXPECT_NEAR(coverage.lastPTS.seconds(), (3072 * 2 + 48000) / 48000.0, 1e-9);
  AudioTranscoder::detectAudioGaps(sound, track, 48000, 2.0);
  EXPECT_TRUE(log_.contains("AudioTranscoder: Pass 1 counted 9 AAC frames × 1024 = 9216 PCM samples"));

  const ScriptedAsset nothing(files_, file_, {});
  EXPECT_THROW(AudioTranscoder::buildVideoTimeline(nothing, track, 0.5), AudioTranscoderError);
  EXPECT_THROW(AudioTranscoder::buildAudioCoverage(nothing, track, {}, 48000, 0.5), AudioTranscoderError);
  EXPECT_TRUE(AudioTranscoder::detectAudioGaps(nothing, track, 48000, 2.0).overlaps.empty());
}

TEST_F(AudioAnalysis, BearsTracksOfNothingButHolesAndClaimsWithoutMeasure) {
  write({sound({{200000, 1024 + 48000}})});
  const AVAsset asset(files_, file_);
  const auto began = std::chrono::steady_clock::now();
  const auto coverage =
      AudioTranscoder::buildAudioCoverage(asset, asset.tracks(AVMediaType::audio)[0], CMTime::zero(), 48000, 0.5);
  EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(20));
  EXPECT_EQ(coverage.totalSampleCount, 200000 * 1024);

  // Lengths and offsets that no 64 bits hold in frames.
  SyntheticTrack endless = sound({{packets, packet}});
  endless.timescale = 1;
  endless.longTimes = true;
  endless.mediaDuration = INT64_MAX;
  write({endless});
  const auto alone = AudioTranscoder::detectAudioGaps(asset, asset.tracks(AVMediaType::audio)[0], 48000, 2.0);
  EXPECT_EQ(alone.overlaps.back().framesToDrop, int64_t{1} << 62);
  const SilenceAction silence{.videoPTS = CMTime::zero(), .duration = CMTime::make(INT64_MAX, 1)};
  EXPECT_EQ(AudioTranscoder::convertToAudioActions(std::array{silence}, 48000, 1024)[0].durationTicks,
            int64_t{1} << 62);
}

}  // namespace
}  // namespace tarn::test
