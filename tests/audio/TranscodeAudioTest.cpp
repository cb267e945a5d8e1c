#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <thread>

#include "audio/AudioTranscoder.h"
#include "audio/NoiseTable.h"
#include "platform/Log.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxEditor.h"
#include "support/FaultyFileManager.h"
#include "support/LogCapture.h"
#include "support/MediaMaker.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;
using testing::AnyOf;

constexpr double packet = 1024.0 / 48000;

/// White frames and beeps of 1 kHz that begin half a second behind each whole one. The words go behind the inputs.
Path flashBeeps(const std::string& more, int rate = 48000, int seconds = 6, bool hasVideo = true) {
  const std::string time = std::to_string(seconds);
  std::vector<std::string> arguments{
      "-f", "lavfi", "-i",
      "aevalsrc='0.8*sin(2*PI*1000*t)*between(mod(t,1),0.5,0.54)':s=" + std::to_string(rate) + ":d=" + time};
  if (hasVideo) {
    arguments.insert(arguments.end(), {"-f", "lavfi", "-i",
                                       "color=black:s=64x48:r=25:d=" + time +
                                           ",drawbox=enable='between(mod(t,1),0.49,0.53)':color=white",
                                       "-c:v", "libx264", "-preset", "ultrafast", "-map", "1:v", "-map", "0:a"});
  }
  for (const std::string& word : words("-c:a aac -b:a 96k " + more)) arguments.push_back(word);
  return madeByFFmpeg(arguments);
}

/// The first audio track as ffmpeg's decoder plays it, first channel.
std::vector<int16_t> played(const Path& file) {
  auto pcm =
      runProcess({"ffmpeg", "-v", "error", "-i", file, "-map", "0:a:0", "-af", "pan=mono|c0=c0", "-f", "s16le", "-"});
  std::vector<int16_t> samples(pcm.output.size() / 2);
  std::memcpy(samples.data(), pcm.output.data(), samples.size() * 2);
  return samples;
}

/// When a beep begins, in seconds: the first loud sample for a fifth of a second.
std::vector<double> beeps(const std::vector<int16_t>& samples) {
  std::vector<double> times;
  size_t lastLoud = 0;
  for (size_t i = 0; i < samples.size(); ++i) {
    if (std::abs(samples[i]) < 6000) continue;
    if (times.empty() || i > lastLoud + 9600) times.push_back(static_cast<double>(i) / 48000);
    lastLoud = i;
  }
  return times;
}

struct Source {
  Path file;
  double emptyEditDelay = 0;
  std::optional<double> mediaDuration = {};
  double syncOffset = 0;
};

class TranscodeAudio : public testing::Test {
 protected:
  void transcode(const Source& source, const CancellationToken* token = nullptr,
                 const AudioTranscoder::ProgressCallback& progress = {}) {
    AudioTranscoder::transcodeAudio(files_, source.file, output_, std::nullopt, source.emptyEditDelay,
                                    source.mediaDuration, source.syncOffset, {}, token, progress);
  }
  std::string probed(const char* entry) {
    return runProcess(
               {"ffprobe", "-v", "error", "-show_entries", std::string("stream=") + entry, "-of", "csv=p=0", output_})
        .output;
  }
  Path copyOf(const Path& file) {
    writeFileAtomically(files_, directory_ / "damaged.mp4", readFile(files_, file));
    return directory_ / "damaged.mp4";
  }

  TempDirectory directory_;
  PosixFileManager disk_{directory_.path()};
  FaultyFileManager files_{disk_};
  Path output_ = directory_ / "out.m4a";
};

TEST_F(TranscodeAudio, KeepsBeepsInTimeWithFlashes) {
  // Packets 94 to 186 are those from second 2 to 4.
  const std::string hole = "-bsf:a noise=drop='between(n,94,186)'";
  const Path clean = flashBeeps("");
  const Path late = flashBeeps("-af asetpts=PTS+0.3/TB");
  struct Case {
    const char* what;
    Source source;
    std::vector<double> beeps;
    double seconds;
    int channels = 1;
  };
  const Case cases[] = {
      {"whole", {clean}, {0.5, 1.5, 2.5, 3.5, 4.5, 5.5}, 6},
      {"two channels", {flashBeeps("-ac 2")}, {0.5, 1.5, 2.5, 3.5, 4.5, 5.5}, 6, 2},
      {"six channels", {flashBeeps("-ac 6")}, {0.5, 1.5, 2.5, 3.5, 4.5, 5.5}, 6, 2},
      {"44100 Hz", {flashBeeps("", 44100)}, {0.5, 1.5, 2.5, 3.5, 4.5, 5.5}, 6},
      {"a hole", {flashBeeps(hole)}, {0.5, 1.5, 4.5, 5.5}, 6},
      {"a late start", {late}, {0.8, 1.8, 2.8, 3.8, 4.8, 5.8}, 6},
      {"a late start kept by the edit list", {late, 0.3, {}, 0.3}, {0.5, 1.5, 2.5, 3.5, 4.5, 5.5}, 5.7},
      {"more than the edit list shows", {clean, 0, 3.25}, {0.5, 1.5, 2.5}, 3.25},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    transcode(c.source);
    const auto samples = played(output_);
    ASSERT_EQ(beeps(samples).size(), c.beeps.size()) << testing::PrintToString(beeps(samples));
    for (size_t i = 0; i < c.beeps.size(); ++i) EXPECT_NEAR(beeps(samples)[i], c.beeps[i], 0.002);
    EXPECT_NEAR(static_cast<double>(samples.size()) / 48000, c.seconds, packet);
    EXPECT_EQ(probed("channels,sample_rate"), "48000," + std::to_string(c.channels) + "\n");
    EXPECT_EQ(decoderComplaints(output_), "");
  }
}

TEST_F(TranscodeAudio, WithoutVideoFillsGapsAndCutsOverlapsAtTheirBuffer) {
  // From packet 150 on, that is sample 153600, less the one that the edit list hides.
  auto shifted = [](const std::string& ticks) { return "-bsf:a setts=ts='if(gte(N,150),TS" + ticks + ",TS)'"; };
  struct Case {
    const char* what;
    Path file;
    std::vector<double> beeps;
    double seconds;
  };
  const Case cases[] = {
      // The buffer with sample 152576 begins at 147456, that is 3.072 s.
      {"a gap", flashBeeps(shifted("+48000"), 48000, 6, false), {0.5, 1.5, 2.5, 4.5, 5.5, 6.5}, 7},
      {"an overlap", flashBeeps(shifted("-480"), 48000, 6, false), {0.5, 1.5, 2.5, 3.49, 4.49, 5.49}, 5.99},
      // At 44100 Hz sample 152576 is at 166069 of the output, in the buffer from 163840 on.
      {"a gap at another rate", flashBeeps(shifted("+44100"), 44100, 6, false), {0.5, 1.5, 2.5, 4.5, 5.5, 6.5}, 7},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    transcode({c.file});
    const auto samples = played(output_);
    ASSERT_EQ(beeps(samples).size(), c.beeps.size()) << testing::PrintToString(beeps(samples));
    for (size_t i = 0; i < c.beeps.size(); ++i) EXPECT_NEAR(beeps(samples)[i], c.beeps[i], 0.002);
    EXPECT_NEAR(static_cast<double>(samples.size()) / 48000, c.seconds, packet);
  }
}

TEST_F(TranscodeAudio, CancelledAtAnyMomentLeavesNoFile) {
  const Path clip = flashBeeps("-ac 2", 48000, 2);
  bool wasCancelled = true;
  int moment = 0;
  for (; wasCancelled; ++moment) {
    CancellationToken token;
    int line = 0;
    bool isOver = false;
    setLogSink([&](std::string_view text) {
      isOver = isOver || text == "AudioTranscoder: Completed successfully";
      if (line++ == moment && !isOver) token.cancel();
    });
    wasCancelled = false;
    try {
      transcode({clip}, &token);
    } catch (const CancellationError&) {
      wasCancelled = true;
    }
    setLogSink({});
    EXPECT_EQ(files_.fileExists(output_), !wasCancelled) << moment;
    if (!wasCancelled) EXPECT_TRUE(isOver && !token.isCancelled()) << moment;
  }
  EXPECT_GT(moment, 40);
}

TEST_F(TranscodeAudio, CancelEndsTheWaitForTheWriterWithinASecond) {
  const Path clip = madeByFFmpeg(words("-f lavfi -i anoisesrc=r=48000:d=120 -ac 2 -c:a aac -b:a 128k"));
  CancellationToken token;
  std::thread canceller;
  setLogSink([&](std::string_view line) {
    if (line.starts_with("  Source samples read"))
      canceller = std::thread([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        token.cancel();
      });
  });
  std::vector<double> reports;
  EXPECT_THROW(transcode({clip}, &token, [&](double progress, const std::string&) { reports.push_back(progress); }),
               CancellationError);
  setLogSink({});
  canceller.join();
  EXPECT_FALSE(files_.fileExists(output_));
  EXPECT_TRUE(std::ranges::is_sorted(reports));
}

TEST_F(TranscodeAudio, FailuresAreToldAndLeaveNoFile) {
  using Case = AudioTranscoderError::Case;
  auto failure = [&](const Path& file) -> std::optional<Case> {
    try {
      transcode({file});
      return std::nullopt;
    } catch (const AudioTranscoderError& error) {
      EXPECT_FALSE(files_.fileExists(output_));
      return error.kind();
    }
  };
  EXPECT_EQ(failure(directory_ / "missing.mp4"), Case::noAudioTrack);
  EXPECT_EQ(failure(encodedVideo({})), Case::noAudioTrack);

  const Path clip = flashBeeps("-movflags faststart");
  const Path damaged = copyOf(clip);
  files_.open(damaged, OpenMode::updating)->truncate(files_.attributes(damaged)->size * 6 / 10);
  EXPECT_EQ(failure(damaged), Case::assetReadFailed);

  files_.arm({});
  EXPECT_EQ(failure(clip), Case::noAudioTrack) << "the first call opens the source";
  uint64_t call = 1;
  do {
    files_.arm({.call = call++, .errnum = ENOSPC, .lasting = true, .among = {FileOperation::write}});
    auto kind = failure(clip);
    if (files_.fired()) EXPECT_EQ(kind, Case::assetWriteFailed) << call;
  } while (files_.fired() && call < 100);
  EXPECT_GT(call, 3u);
  EXPECT_TRUE(files_.fileExists(output_));
}

TEST_F(TranscodeAudio, ACorruptPacketIsAShortSilenceAndMovesNothing) {
  const Path file = copyOf(flashBeeps(""));
  const auto mdat = BoxEditor(readFile(files_, file)).at("mdat");
  auto handle = files_.open(file, OpenMode::updating);
  handle->seek(mdat.offset + mdat.size / 2);
  handle->write(Bytes(1500, 0xFF));
  handle->close();
  transcode({file});
  const auto samples = played(output_);
  EXPECT_NEAR(static_cast<double>(samples.size()) / 48000, 6, packet);
  const auto times = beeps(samples);
  EXPECT_GE(times.size(), 5u);
  EXPECT_NEAR(times.front(), 0.5, 0.002);
  EXPECT_NEAR(times.back(), 5.5, 0.002);
}

TEST_F(TranscodeAudio, TellsTheRunInTheLogAndReplacesTheOutput) {
  const Path clip = flashBeeps("-af asetpts=PTS+0.3/TB");
  writeFileAtomically(files_, output_, bytesOf("an old file"));
  std::vector<std::pair<double, std::string>> reports;
  LogCapture log;
  NoiseTable::shared() = NoiseTable(1);
  transcode({clip}, nullptr, [&](double progress, const std::string& stage) { reports.emplace_back(progress, stage); });
  EXPECT_EQ(reports.front(), std::pair(0.0, std::string("Transcoding")));
  EXPECT_EQ(reports.back(), std::pair(1.0, std::string("Transcoding complete")));
  for (const std::string& line :
       {"AudioTranscoder: Starting transcoding from " + clip.filename().string(),
        std::string("AudioTranscoder: Source has 1 channels, outputting 1"),
        std::string("AudioTranscoder: Pass 1 - Analyzing timelines..."),
        std::string("AudioTranscoder: Using video-based gap detection (video track found)"),
        std::string("AudioTranscoder: Detected 1 gaps totaling 0.300s"),
        std::string("AudioTranscoder: No overlaps detected"),
        std::string("AudioTranscoder: Session started at 0.0s (fixed: always 0)"),
        std::string("AudioTranscoder: Epoch offset for rebasing: -0.300s"),
        std::string("AudioTranscoder: Completed successfully"),
        std::string("  Silence inserted: 14400 samples (0.300s)"), std::string("  Gaps filled: 1"),
        std::string("  ✓ SYNC OK: Audio matches video timeline")}) {
    EXPECT_TRUE(log.contains(line)) << line;
  }
  const Bytes first = readFile(files_, output_);
  NoiseTable::shared() = NoiseTable(1);
  transcode({clip});
  EXPECT_EQ(readFile(files_, output_), first) << "the same noise, the same bytes";
}

}  // namespace
}  // namespace tarn
