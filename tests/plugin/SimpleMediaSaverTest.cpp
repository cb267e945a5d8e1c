#include <gtest/gtest.h>

#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "plugin/SimpleMediaSaver.h"
#include "support/FailureOf.h"
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

TEST_F(SimpleMediaSaverTest, EveryFailureSaysWhatIsMissingAndLeavesWhatWasDone) {
  const auto noAsset = [](const Path& source) {
    return "No placeholder for asset creation request, or no asset request (check if video exists at " +
           fileURLText(source) + ")";
  };
  const Path missing = home_ / "missing.mp4";
  struct Row {
    std::string error;  ///< empty when the save succeeds
    InMemoryPhotoLibrary::Failures failures;
    size_t assets, albums;
    Path source;
  };
  const Row rows[] = {
      {noAsset(source_), {.noAssetPlaceholder = true}, 0, 0, source_},
      {noAsset(missing), {}, 0, 0, missing},
      {"The change was refused", {.failingChange = 1}, 0, 0, source_},
      {"Failed to create album: The change was refused", {.failingChange = 2}, 1, 0, source_},
      {"Failed to create album: Failed to create album", {.noAlbumPlaceholder = true}, 1, 0, source_},
      {"Failed to create album: No created asset", {.createdAlbumNotFetched = true}, 1, 1, source_},
      {"The change was refused", {.failingChange = 3}, 1, 1, source_},
      {"", {.noAlbumChangeRequest = true}, 1, 1, source_},
  };
  for (const auto& [error, failures, assets, albums, source] : rows) {
    SCOPED_TRACE(error);
    InMemoryPhotoLibrary library(files_, dispatch_);
    library.setFailures(failures);
    EXPECT_EQ(failureOf([&, source = source] { save(library, source); }), error);
    EXPECT_EQ(library.fetchAllAssets().size(), assets);
    const auto made = library.fetchAssetCollections("Trips");
    EXPECT_EQ(made.size(), albums);
    EXPECT_TRUE(made.empty() || library.fetchAssets(made[0], std::nullopt).empty());
    EXPECT_FALSE(SimpleMediaSaver::checkIfFileExistsInAlbum(library, "any", "Trips"));
  }
}

}  // namespace
}  // namespace tarn::test
