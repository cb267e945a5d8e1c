#include <gmock/gmock.h>

#include <functional>

#include "fragments/FragmentsTest.h"
#include "support/BoxBuilder.h"
#include "support/MediaMaker.h"
#include "support/ProbedMovie.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;

/// 6 s with B-frames, a sync picture each second, and sound.
Path recording() {
  return encodedVideo({.parameters = "keyint=25:b-adapt=0",
                       .seconds = 6,
                       .more = words("-f lavfi -i sine=r=48000:d=6 -map 0:v -map 1:a -c:a aac -ac 1")});
}

Bytes withFlags(const std::string& flags) {
  return contentsOf(madeByFFmpeg(words("-i " + recording().string() + " -c copy -movflags " + flags)));
}

/// The beginning of a stream and these of its six segments, one behind the other; -1 is the beginning again.
Bytes segments(const std::vector<int>& numbers) {
  const TempDirectory place;
  const auto made = runProcess({"ffmpeg", "-v", "error", "-i", recording(), "-c", "copy", "-f", "hls", "-hls_time", "1",
                                "-hls_segment_type", "fmp4", "-hls_playlist_type", "vod", "-hls_segment_filename",
                                place / "%d.m4s", place / "list.m3u8"});
  EXPECT_EQ(made.output, "");
  Bytes movie = contentsOf(place / "init.mp4");
  for (const int number : numbers) {
    movie = joined({movie, contentsOf(place / (number < 0 ? "init.mp4" : fmt::format("{}.m4s", number)))});
  }
  return movie;
}

struct Shape {
  const char* name;
  std::function<Bytes()> make;
  std::string note = {};
  /// ffprobe shows the pictures of a movie in fragments later by this, if they are composed ahead of their decoding.
  double pictureDelay = 0;
  std::function<Bytes()> truth = {};  ///< what the result must show, if that is not all that the source holds
};

class FragmentShapes : public FragmentsTest, public testing::WithParamInterface<Shape> {};

/// The step's own result has the packets of the source, each at its time against all others; and the decoders have
/// nothing to say.
TEST_P(FragmentShapes, KeepAllSamplesAndTheirTimes) {
  const Bytes movie = GetParam().make();
  const Path source = directory_ / "source.mp4";
  writeFileAtomically(files_, source, GetParam().truth ? GetParam().truth() : movie);
  EXPECT_EQ(join(movie), GetParam().note);

  ProbedMovie before(source), after(file_);
  const auto shift = before.shown["audio"].front().seconds - after.shown["audio"].front().seconds;
  for (const char* kind : {"video", "audio"}) {
    SCOPED_TRACE(kind);
    const double delay = kind == std::string_view("video") ? GetParam().pictureDelay : 0;
    const auto &old = before.shown[kind], &plain = after.shown[kind];
    ASSERT_EQ(old.size(), plain.size());
    ASSERT_GT(old.size(), 90U);
    for (size_t i = 0; i < old.size(); ++i) {
      ASSERT_EQ(old[i].hash, plain[i].hash) << i;
      ASSERT_EQ(old[i].flags[0], plain[i].flags[0]) << i;
      ASSERT_NEAR(old[i].seconds - delay - shift, plain[i].seconds, 0.001) << i;
    }
  }
  std::vector<std::string> boxes;
  for (const auto& [type, bytes] : topLevel(after.bytes)) boxes.push_back(type);
  EXPECT_THAT(boxes, ElementsAre("ftyp", "moov", "mdat"));
  EXPECT_EQ(decoderComplaints(file_), "");

  const Bytes plain = written();
  EXPECT_EQ(join(plain), "");
  EXPECT_EQ(written(), plain);
}

std::function<Bytes()> flags(const std::string& flags) {
  return [flags] { return withFlags(flags); };
}
std::function<Bytes()> parts(const std::vector<int>& numbers) {
  return [numbers] { return segments(numbers); };
}

INSTANTIATE_TEST_SUITE_P(
    All, FragmentShapes,
    testing::Values(Shape{"MoovAndFragments", flags("frag_keyframe")},
                    Shape{"EmptyMoov", flags("frag_keyframe+empty_moov")},
                    Shape{"DefaultBaseIsMoof", flags("frag_keyframe+empty_moov+default_base_moof")},
                    Shape{"DelayedMoov", flags("frag_keyframe+delay_moov")},
                    Shape{"NegativeOffsets", flags("frag_keyframe+empty_moov+negative_cts_offsets"), "", 0.04},
                    Shape{"NoOffsetOfTheFragment", flags("frag_keyframe+empty_moov+omit_tfhd_offset")},
                    Shape{"Segments", parts({0, 1, 2, 3, 4, 5})}, Shape{"WithoutTheFirstTwo", parts({2, 3, 4, 5})},
                    Shape{"WithoutTheMiddleTwo", parts({0, 1, 4, 5}),
                          "Track 1 has 1 gap of 2.000 s in all between its fragments; Track 2 has 1 gap of 2.005 s in "
                          "all between its fragments"},
                    Shape{"BeginningTwice", parts({0, 1, 2, -1, 3, 4, 5})},
                    Shape{"ASegmentTwice", parts({0, 1, 2, 2, 3, 4, 5}),
                          "25 samples of track 1 are there twice; the later ones count; 47 samples of track 2 are "
                          "there twice; the later ones count",
                          0, parts({0, 1, 2, 3, 4, 5})}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace tarn::test
