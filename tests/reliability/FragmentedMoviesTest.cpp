#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fragments/FragmentsStep.h"
#include "presentation/Harms.h"
#include "reliability/RandomMovie.h"
#include "support/FileTest.h"
#include "support/Fragmenter.h"
#include "support/RunRecorder.h"

namespace tarn::test {
namespace {

class FragmentedMovies : public FileTest {
 protected:
  Bytes bytesOf(const TrackPresentation& track, const Path& path) {
    const auto file = files_.open(path, OpenMode::reading);
    SampleLocations locations = track.locations;
    Bytes bytes;
    for (uint32_t i = 0; i < locations.count(); ++i) {
      const SampleLocation place = locations.locate(i);
      file->seek(place.offset);
      const Bytes sample = file->read(place.size);
      bytes.insert(bytes.end(), sample.begin(), sample.end());
    }
    return bytes;
  }
};

/// A movie that was plain once is what it was: the same samples at the same times, and lists that show the same of
/// them.
TEST_F(FragmentedMovies, BecomeWhatTheyWere) {
  for (uint64_t seed = 1; seed <= 24; ++seed) {
    const RandomMovie movie = randomMovie(seed);
    SCOPED_TRACE(movie.story);
    const Path plain = directory_ / "plain.mp4";
    writeFileAtomically(files_, plain, movie.truth);
    write(inFragments(files_, plain, static_cast<uint32_t>(1 + seed * 7 % 40)));
    ASSERT_TRUE(isFragmented(files_, file_));
    RunRecorder recorder;
    ProcessingRun run = recorder.runOn(files_, file_);
    FragmentsStep().run(run);
    EXPECT_TRUE(run.outcome.leftAlone.empty()) << run.outcome.leftAlone.front();

    const auto before = Presentation::read(files_, plain), after = Presentation::read(files_, file_);
    const AnnouncedChange announced{.comparesBytes = false};
    EXPECT_THAT(harmsOf(comparePresentations(before, after, std::nullopt, announced), before, after, announced),
                testing::IsEmpty());
    ASSERT_EQ(before.tracks().size(), after.tracks().size());
    for (size_t i = 0; i < before.tracks().size(); ++i) {
      const TrackPresentation &old = before.tracks()[i], &made = after.tracks()[i];
      EXPECT_EQ(old.times, made.times);
      EXPECT_EQ(old.sampleDescriptions, made.sampleDescriptions);
      EXPECT_EQ(bytesOf(old, plain), bytesOf(made, file_));
    }
  }
}

}  // namespace
}  // namespace tarn::test
