#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <sstream>

#include "fragments/CutMovie.h"
#include "fragments/FragmentsStep.h"
#include "support/BoxEditor.h"
#include "support/FileTest.h"
#include "support/MediaMaker.h"
#include "support/RunRecorder.h"

namespace tarn::test {
namespace {

/// A sample as ffprobe tells it, edit lists left aside.
struct Sample {
  int64_t pts;
  int64_t dts;
  uint64_t size;
  uint64_t place;
  std::string flags;
  std::string hash;

  bool isSame(const Sample& other) const {
    return pts == other.pts && dts == other.dts && flags == other.flags && hash == other.hash;
  }
};
using Samples = std::map<std::string, std::vector<Sample>>;

Samples samplesOf(const Path& file) {
  std::string text =
      runProcess({"ffprobe", "-v", "error", "-ignore_editlist", "1", "-show_data_hash", "CRC32", "-of", "csv=p=0",
                  "-show_entries", "packet=codec_type,pts,dts,size,pos,flags,data_hash", file})
          .output;
  std::ranges::replace(text, ',', ' ');
  std::istringstream words(text);
  Samples samples;
  Sample sample;
  for (std::string kind;
       words >> kind >> sample.pts >> sample.dts >> sample.size >> sample.place >> sample.flags >> sample.hash;) {
    samples[kind].push_back(sample);
  }
  EXPECT_TRUE(words.eof()) << text;
  return samples;
}

/// What is left of a recording of which the first so many bytes are there, worked out from ffprobe's list of its
/// samples: pictures as long as they are shown without a gap, and sound and pictures to a common end.
struct Kept {
  size_t pictures = 0;
  size_t packets = 0;
  double seconds = 0;
};

class Recording {
 public:
  static constexpr double pictureTicks = 12800, pictureLength = 0.04, packetLength = 1024.0 / 48000;

  explicit Recording(const Path& whole) : samples_(samplesOf(whole)) {}

  const std::vector<Sample>& pictures() const { return samples_.at("video"); }
  const std::vector<Sample>& packets() const { return samples_.at("audio"); }

  Kept keptOf(uint64_t bytes) const {
    const size_t whole = countWhole(pictures(), bytes), sound = countWhole(packets(), bytes);
    const double soundEnd = static_cast<double>(sound) * packetLength - priming;
    Kept kept = picturesWithin(whole, 1e9);
    const bool isSoundCut = sound < packets().size();
    kept.packets = sound;
    if (sound == 0 || kept.pictures == 0) return kept;
    // A track of which nothing would be left is no measure.
    if (isSoundCut && soundEnd < kept.seconds) {
      const Kept cut = picturesWithin(whole, soundEnd);
      if (cut.pictures == 0) return kept;
      kept = cut;
    }
    const auto packetsAhead = static_cast<size_t>(std::ceil((kept.seconds + priming) / packetLength - 1e-6));
    kept.packets = std::min(sound, packetsAhead);
    return kept;
  }

 private:
  static constexpr double priming = packetLength;  // hidden by the edit list

  static size_t countWhole(const std::vector<Sample>& samples, uint64_t bytes) {
    const auto cut = std::ranges::find_if(samples, [&](const Sample& each) { return each.place + each.size > bytes; });
    return static_cast<size_t>(cut - samples.begin());
  }

  /// The longest prefix of the first `whole` pictures behind which no picture is shown ahead of one in it.
  Kept picturesWithin(size_t whole, double end) const {
    const int64_t first = std::ranges::min(pictures(), {}, &Sample::pts).pts;
    Kept kept;
    for (size_t count = 1; count <= whole; ++count) {
      const auto middle = pictures().begin() + static_cast<ptrdiff_t>(count);
      const int64_t last = std::ranges::max_element(pictures().begin(), middle, {}, &Sample::pts)->pts;
      const bool hasGap = std::any_of(middle, pictures().end(), [&](const Sample& each) { return each.pts < last; });
      const double seconds = static_cast<double>(last - first) / pictureTicks + pictureLength;
      if (!hasGap && seconds < end + 1e-6) kept = {count, 0, seconds};
    }
    return kept;
  }

  Samples samples_;
};

/// A recording of 1 MiB whose `moov` stands ahead of its media.
Path recording(const std::string& codec) {
  return encodedVideo({.codec = codec,
                       .parameters = "keyint=25:bframes=3",
                       .size = "320x240",
                       .seconds = 7,
                       .more = words("-f lavfi -i sine=frequency=500:sample_rate=48000 -c:a aac -b:v 1100k "
                                     "-movflags +faststart")});
}

/// The environment may ask for another one; 1 means a cut at every 1,009th byte.
size_t cutStride() {
  const char* const asked = std::getenv("TARN_CUT_STRIDE");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return asked ? std::max(1UL, std::stoul(asked)) : 50;
}

class CutMovieTest : public FileTest {
 protected:
  /// Runs the step on the file; what it throws, in words.
  std::string runStep(const Bytes& bytes) {
    RunRecorder recorder;
    ProcessingRun run = recorder.runOn(files_, write(bytes));
    const std::string failure = failureOf([&] { FragmentsStep().run(run); });
    outcome_ = run.outcome;
    return failure;
  }

  void expectFirst(const std::vector<Sample>& left, const std::vector<Sample>& all, size_t count) {
    ASSERT_EQ(left.size(), count);
    for (size_t i = 0; i < count; ++i) ASSERT_TRUE(left[i].isSame(all[i])) << "sample " << i;
  }

  RunOutcome outcome_;
};

class CutSweep : public CutMovieTest, public testing::WithParamInterface<const char*> {};

TEST_P(CutSweep, KeepsExactlyTheWholeSamplesToACommonEnd) {
  const Path whole = recording(GetParam());
  const Bytes bytes = readFile(files_, whole);
  const Recording truth(whole);
  const size_t stride = 1009 * cutStride();
  size_t cuts = 0, refusals = 0;
  for (size_t end = stride; end < bytes.size() && !HasFailure(); end += stride, ++cuts) {
    SCOPED_TRACE(end);
    const Kept kept = truth.keptOf(end);
    const Bytes cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(end));
    const std::string failure = runStep(cut);
    if (kept.pictures == 0) {
      ++refusals;
      EXPECT_TRUE(failure.starts_with("The file ends ")) << failure;
      EXPECT_EQ(written(), cut);
      continue;
    }
    ASSERT_EQ(failure, "");
    EXPECT_TRUE(outcome_.isPartly);
    const std::string told = fmt::format("the end of the file is missing: {:.1f} of 7.0 s kept, {} picture",
                                         kept.seconds, truth.pictures().size() - kept.pictures);
    ASSERT_EQ(outcome_.leftAlone.size(), 1u);
    EXPECT_TRUE(outcome_.leftAlone.front().starts_with(told)) << outcome_.leftAlone.front();
    Samples left = samplesOf(file_);
    expectFirst(left["video"], truth.pictures(), kept.pictures);
    expectFirst(left["audio"], truth.packets(), kept.packets);
    EXPECT_EQ(decoderComplaints(file_), "");
    EXPECT_NEAR(std::stod(probeVideo(file_, "duration")), kept.seconds, 0.001);
  }
  std::cout << GetParam() << ": " << cuts << " cuts, " << refusals << " refusals\n";
}

INSTANTIATE_TEST_SUITE_P(Codecs, CutSweep, testing::Values("libx264", "libx265"),
                         [](const auto& each) { return std::string(each.param); });

}  // namespace
}  // namespace tarn::test
