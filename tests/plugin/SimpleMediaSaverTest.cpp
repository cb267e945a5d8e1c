#include <gtest/gtest.h>

#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "plugin/SimpleMediaSaver.h"
#include "support/FailureOf.h"
#include "support/FaultyServices.h"
#include "support/ManualClock.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

class SimpleMediaSaverTest : public testing::Test, protected TestHome {
 protected:
  std::string save(PHPhotoLibrary& library, const Path& source) {
    return SimpleMediaSaver::saveVideo(library, clock_, source, "first.mp4", "Trips");
  }

  const Path source_ = put("a clip.mp4", "video");
  ManualDispatch dispatch_;
  ManualClock clock_;
};

TEST_F(SimpleMediaSaverTest, SavesIntoOneAlbumWithTheNameAndThePresentDate) {
  InMemoryPhotoLibrary library(files_, dispatch_);
  const auto first = save(library, source_);
  EXPECT_EQ(save(library, source_), first) << "a retry";
  save(library, put("other.mp4", "another video"));
  const auto albums = library.fetchAssetCollections(std::nullopt);
  ASSERT_EQ(albums.size(), 1u);
  const auto assets = library.fetchAssets(albums[0], std::nullopt);
  ASSERT_EQ(assets.size(), 2u);
  EXPECT_EQ(assets[0].filename, "first.mp4");
  EXPECT_EQ(assets[0].creationDate, clock_.now());
  EXPECT_TRUE(SimpleMediaSaver::checkIfFileExistsInAlbum(library, first, "Trips"));
  EXPECT_FALSE(SimpleMediaSaver::checkIfFileExistsInAlbum(library, first, "New"));
}

TEST_F(SimpleMediaSaverTest, AFailureSaysWhatIsMissing) {
  const std::string fault = PosixError(EIO, "fault of a test").description();
  const std::string noAsset =
      "No placeholder for asset creation request, or no asset request (check if video exists at ";
  // Which call of the library fails, and in which words the save then does.
  const std::pair<uint64_t, std::string> rows[] = {{1, fault},
                                                   {2, noAsset + fileURLText(source_) + ")"},
                                                   {3, noAsset + fileURLText(source_) + ")"},
                                                   {7, "Failed to create album: Failed to create album"},
                                                   {8, "Failed to create album: " + fault},
                                                   {10, "Failed to create album: No created asset"},
                                                   {11, fault},
                                                   {12, ""}};
  for (const auto& [call, words] : rows) {
    SCOPED_TRACE(call);
    InMemoryPhotoLibrary library(files_, dispatch_);
    FaultyCalls calls;
    FaultyPhotoLibrary faulty(library, calls);
    calls.arm(call, false);
    EXPECT_EQ(failureOf([&] { save(faulty, source_); }), words);
  }
}

}  // namespace
}  // namespace tarn::test
