#include <gtest/gtest.h>

#include "media/AVAssetReader.h"
#include "platform/host/PosixFileManager.h"
#include "support/BoxEditor.h"
#include "support/SyntheticMovie.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using namespace test;
using Status = AVAssetReaderStatus;

class AVAssetReaderTest : public testing::Test {
 protected:
  std::shared_ptr<AVAssetReaderTrackOutput> output() {
    return std::make_shared<AVAssetReaderTrackOutput>(asset.tracks(AVMediaType::audio).at(0));
  }
  void write(const Bytes& content) { writeFileAtomically(files, asset.url(), content); }

  TempDirectory directory;
  PosixFileManager files{directory.path()};
  AVAsset asset{files, directory / "clip.mp4"};
  const Bytes movie = syntheticMovie({{.stts = {{3, 1024}}, .samples = 3}});
};

TEST_F(AVAssetReaderTest, EndsWhenAllItsOutputsDoOrWhenCancelled) {
  EXPECT_THROW(AVAssetReader{asset}, PosixError) << "no file";
  write(movie);
  AVAssetReader reader(asset);
  auto first = output();
  auto second = output();
  for (const auto& each : {first, second}) {
    ASSERT_TRUE(reader.canAddOutput(*each));
    reader.addOutput(each);
    EXPECT_FALSE(reader.canAddOutput(*each)) << "it is in use";
  }
  EXPECT_FALSE(first->copyNextSampleBuffer()) << "not started";
  ASSERT_TRUE(reader.startReading());
  EXPECT_FALSE(reader.startReading());
  EXPECT_FALSE(reader.canAddOutput(*output()));
  for (int64_t i = 0; i < 3; ++i) EXPECT_EQ(first->copyNextSampleBuffer().value().sampleIndex, i);
  EXPECT_FALSE(first->copyNextSampleBuffer());
  EXPECT_EQ(reader.status(), Status::reading);
  while (second->copyNextSampleBuffer()) continue;
  EXPECT_EQ(reader.status(), Status::completed);

  AVAssetReader cancelled(asset);
  auto only = output();
  cancelled.addOutput(only);
  ASSERT_TRUE(cancelled.startReading());
  cancelled.cancelReading();
  EXPECT_FALSE(only->copyNextSampleBuffer());
  EXPECT_EQ(cancelled.status(), Status::cancelled);
}

TEST_F(AVAssetReaderTest, TellsWhyItFailed) {
  BoxEditor damaged(movie);
  damaged.setField(damaged.at("moov/trak/mdia/minf/stbl/stco").offset + 12, 0);
  write(damaged.bytes);
  AVAssetReader breaksOff(asset);
  auto broken = output();
  breaksOff.addOutput(broken);
  ASSERT_TRUE(breaksOff.startReading());
  EXPECT_FALSE(broken->copyNextSampleBuffer());
  EXPECT_EQ(breaksOff.status(), Status::failed);
  EXPECT_EQ(breaksOff.error().value().description(), "Sample 0 does not lie in the file");

  damaged.rename("moov/trak/mdia/minf/stbl/stts", "free");
  write(damaged.bytes);
  AVAssetReader refuses(asset);
  refuses.addOutput(output());
  EXPECT_FALSE(refuses.startReading());
  EXPECT_EQ(refuses.error().value().description(), "stts box not found");
}

}  // namespace
}  // namespace tarn
