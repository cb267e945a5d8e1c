#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <utility>

#include "fragments/FragmentsTest.h"
#include "support/MediaMaker.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

using Samples = std::vector<Packet>;

struct Recorder {
  const char* name;
  std::string codec;
  std::string flags;  ///< of the muxer
  bool isPlain;
  double pictureStart;  ///< when the first picture is shown, in seconds
  double soundHidden;   ///< the part of the sound that the edit list hides, in seconds

  friend void PrintTo(const Recorder& recorder, std::ostream* out) { *out << recorder.name; }
};
const Recorder recorders[] = {
    {"PlainAVC", "libx264", "+faststart", true, 0, 1024.0 / 48000},
    {"PlainHEVC", "libx265", "+faststart", true, 0, 1024.0 / 48000},
    {"MoovAndFragmentsAVC", "libx264", "frag_keyframe", false, 0.08, 0},
    {"ShortFragmentsHEVC", "libx265", "frag_keyframe+empty_moov+delay_moov -frag_duration 300000", false, 0,
     1024.0 / 48000},
};

/// What is left of a recording of which the first so many bytes are there, worked out from ffprobe's list of its
/// samples: pictures as long as they are shown without a gap, and sound and pictures to a common end.
struct Kept {
  size_t pictures = 0;
  size_t packets = 0;
  double end = 0;    ///< of the pictures, in seconds of the movie
  double start = 0;  ///< the same
};

class Recording {
 public:
  explicit Recording(const Path& whole, const Recorder& recorder)
      : samples_(packetsOf(whole, false)), recorder_(recorder) {}

  const Samples& pictures() const { return samples_.at("video"); }
  const Samples& packets() const { return samples_.at("audio"); }

  Kept keptOf(uint64_t bytes) const {
    const size_t whole = countWhole(pictures(), bytes), sound = countWhole(packets(), bytes);
    Kept kept = picturesWithin(whole, 1e9);
    kept.packets = sound;
    if (sound == 0) {
      // The movie begins with the pictures.
      kept.end -= std::exchange(kept.start, 0);
      return kept;
    }
    if (kept.pictures == 0) return kept;
    const double soundEnd = soundTime(packets()[sound - 1].dts + 1024);
    // A track of which nothing would be left is no measure.
    if (sound < packets().size() && soundEnd < kept.end) {
      const Kept cut = picturesWithin(whole, soundEnd);
      if (cut.pictures == 0) return kept;
      kept = cut;
    }
    const auto isAhead = [&](const Packet& packet) { return soundTime(packet.dts) < kept.end - 1e-6; };
    kept.packets = std::min<size_t>(sound, static_cast<size_t>(std::ranges::count_if(packets(), isAhead)));
    return kept;
  }

 private:
  static constexpr double pictureTicks = 12800, pictureLength = 0.04, soundTicks = 48000;

  double soundTime(int64_t dts) const {
    return static_cast<double>(dts - packets().front().dts) / soundTicks - recorder_.soundHidden;
  }

  static size_t countWhole(const Samples& samples, uint64_t bytes) {
    const auto cut = std::ranges::find_if(
        samples, [&](const Packet& each) { return each.place + each.size > static_cast<int64_t>(bytes); });
    return static_cast<size_t>(cut - samples.begin());
  }

  /// The longest prefix of the first `whole` pictures behind which no picture is shown ahead of one in it.
  Kept picturesWithin(size_t whole, double end) const {
    const int64_t first = std::ranges::min(pictures(), {}, &Packet::pts).pts;
    Kept kept;
    for (size_t count = 1; count <= whole; ++count) {
      const auto middle = pictures().begin() + static_cast<ptrdiff_t>(count);
      const int64_t last = std::ranges::max_element(pictures().begin(), middle, {}, &Packet::pts)->pts;
      const bool hasGap = std::any_of(middle, pictures().end(), [&](const Packet& each) { return each.pts < last; });
      const double shown = static_cast<double>(last - first) / pictureTicks + pictureLength + recorder_.pictureStart;
      if (!hasGap && shown < end + 1e-6) kept = {count, 0, shown, recorder_.pictureStart};
    }
    return kept;
  }

  Packets samples_;
  Recorder recorder_;
};

/// A recording of 1 MiB whose `moov` stands ahead of its media.
Path recording(const Recorder& recorder) {
  return encodedVideo({.codec = recorder.codec,
                       .parameters = "keyint=25:bframes=3",
                       .size = "320x240",
                       .seconds = 7,
                       .more = words("-f lavfi -i sine=frequency=500:sample_rate=48000 -c:a aac -b:v 1100k "
                                     "-movflags " +
                                     recorder.flags)});
}

/// The environment may ask for another one; 1 means a cut at every 1,009th byte.
size_t cutStride() {
  const char* const asked = std::getenv("TARN_CUT_STRIDE");  // NOLINT(concurrency-mt-unsafe): nobody sets it
  return asked ? std::max(1UL, std::stoul(asked)) : 50;
}

class CutSweep : public FragmentsTest, public testing::WithParamInterface<Recorder> {
 protected:
  /// The same but for the time at which the file begins.
  void expectFirst(const Samples& left, const Samples& all, size_t count) {
    ASSERT_EQ(left.size(), count);
    for (size_t i = 0; i < count; ++i) {
      Packet moved = left[i];
      moved.dts += all[0].dts - left[0].dts;
      moved.pts += all[0].dts - left[0].dts;
      ASSERT_TRUE(moved.isSame(all[i])) << "sample " << i;
    }
  }
};

TEST_P(CutSweep, KeepsExactlyTheWholeSamplesToACommonEnd) {
  const Path whole = recording(GetParam());
  const Bytes bytes = contentsOf(whole);
  const Recording truth(whole, GetParam());
  const size_t stride = 1009 * cutStride();
  size_t cuts = 0, refusals = 0;
  for (size_t end = stride; end < bytes.size() && !HasFailure(); end += stride, ++cuts) {
    SCOPED_TRACE(end);
    const Kept kept = truth.keptOf(end);
    const Bytes cut(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(end));
    const std::string failure = runStep(cut);
    if (kept.pictures == 0) {
      ++refusals;
      EXPECT_NE(failure.find(": download it again"), std::string::npos) << failure;
      EXPECT_EQ(written(), cut);
      continue;
    }
    ASSERT_EQ(failure, "");
    const bool isWhole = kept.pictures == truth.pictures().size() && kept.packets == truth.packets().size();
    ASSERT_EQ(outcome_.isPartly, !isWhole);
    if (isWhole) continue;  // what is cut is the index behind the media
    std::string told = fmt::format("the end of the file is missing: {:.1f}", kept.end);
    const size_t lost = truth.pictures().size() - kept.pictures;
    told += GetParam().isPlain ? fmt::format(" of 7.0 s kept, {} picture", lost) : " s kept";
    ASSERT_EQ(outcome_.leftAlone.size(), 1u);
    EXPECT_TRUE(outcome_.leftAlone.front().starts_with(told)) << outcome_.leftAlone.front() << ", not: " << told;
    Packets left = packetsOf(file_, false);
    expectFirst(left["video"], truth.pictures(), kept.pictures);
    expectFirst(left["audio"], truth.packets(), kept.packets);
    EXPECT_EQ(decoderComplaints(file_), "");
    EXPECT_NEAR(std::stod(probeVideo(file_, "duration")), kept.end - kept.start, 0.001);
  }
  std::cout << GetParam().name << ": " << cuts << " cuts, " << refusals << " refusals\n";
}

INSTANTIATE_TEST_SUITE_P(Recorders, CutSweep, testing::ValuesIn(recorders),
                         [](const auto& each) { return std::string(each.param.name); });

}  // namespace
}  // namespace tarn::test
