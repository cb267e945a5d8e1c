#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "plugin/SimpleMediaSaver.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

class FixedClock : public Clock {
 public:
  Date now() const override { return Date(std::chrono::seconds(1'700'000'000)); }
};

class SimpleMediaSaverTest : public testing::Test {
 protected:
  SimpleMediaSaverTest() { std::ofstream(source_) << "video"; }

  test::TempDirectory home_;
  const Path source_ = home_ / "a clip.mp4";
  ManualDispatch dispatch_;
  PosixFileManager files_{home_.path()};
  FixedClock clock_;
};

TEST_F(SimpleMediaSaverTest, SavesIntoOneAlbumWithTheNameAndThePresentDate) {
  SQLitePhotoLibrary library(files_, dispatch_, home_ / "Photos", SQLitePhotoLibrary::Access::readWrite);
  const auto first = SimpleMediaSaver::saveVideo(library, clock_, source_, "first.mp4", "Trips");
  EXPECT_EQ(SimpleMediaSaver::saveVideo(library, clock_, source_, "first.mp4", "Trips"), first) << "a retry";
  std::ofstream(home_ / "other.mp4") << "another video";
  const auto second = SimpleMediaSaver::saveVideo(library, clock_, home_ / "other.mp4", "first.mp4", "Trips");

  const auto albums = library.fetchAssetCollections(std::nullopt);
  ASSERT_EQ(albums.size(), 1u);
  const auto assets = library.fetchAssets(albums[0], std::nullopt);
  ASSERT_EQ(assets.size(), 2u);
  EXPECT_EQ(assets[0].localIdentifier, first);
  EXPECT_EQ(assets[0].path, home_ / "Photos/Trips/first.mp4");
  EXPECT_EQ(assets[0].creationDate, clock_.now());
  EXPECT_EQ(assets[1].localIdentifier, second);
  EXPECT_EQ(assets[1].path, home_ / "Photos/Trips/first 2.mp4");
  EXPECT_TRUE(files_.fileExists(source_));

  EXPECT_TRUE(SimpleMediaSaver::checkIfFileExistsInAlbum(library, first, "Trips"));
  EXPECT_FALSE(SimpleMediaSaver::checkIfFileExistsInAlbum(library, "unknown", "Trips"));
  EXPECT_FALSE(SimpleMediaSaver::checkIfFileExistsInAlbum(library, first, "New"));
  EXPECT_EQ(library.fetchAssetCollections("New").size(), 1u);
}

TEST_F(SimpleMediaSaverTest, EveryFailureSaysWhatIsMissingAndLeavesWhatWasDone) {
  const std::string noAsset =
      "No placeholder for asset creation request, or no asset request (check if video exists at " +
      fileURLText(source_) + ")";
  struct Case {
    std::string error;  ///< empty when the save succeeds
    InMemoryPhotoLibrary::Failures failures;
    size_t assets;
    size_t albums;
    bool sourceExists = true;
  };
  const std::vector<Case> cases = {
      {noAsset, {.noAssetPlaceholder = true}, 0, 0},
      {noAsset, {}, 0, 0, false},
      {"The change was refused", {.changes = {1}}, 0, 0},
      {"Failed to create album: The change was refused", {.changes = {2}}, 1, 0},
      {"Failed to create album: Failed to create album", {.noAlbumPlaceholder = true}, 1, 0},
      {"Failed to create album: No created asset", {.createdAlbumNotFetched = true}, 1, 1},
      {"The change was refused", {.changes = {3}}, 1, 1},
      {"", {.noAlbumChangeRequest = true}, 1, 1},
  };
  for (const auto& [error, failures, assets, albums, sourceExists] : cases) {
    SCOPED_TRACE(error);
    if (!sourceExists) std::filesystem::remove(source_);
    InMemoryPhotoLibrary library(files_, dispatch_);
    library.setFailures(failures);
    std::string thrown;
    try {
      SimpleMediaSaver::saveVideo(library, clock_, source_, "clip.mp4", "Trips");
    } catch (const Error& failure) {
      thrown = failure.description();
    }
    EXPECT_EQ(thrown, error);
    EXPECT_EQ(library.fetchAllAssets().size(), assets);
    const auto made = library.fetchAssetCollections("Trips");
    EXPECT_EQ(made.size(), albums);
    for (const auto& album : made) EXPECT_TRUE(library.fetchAssets(album, std::nullopt).empty());
    std::ofstream(source_) << "video";
  }

  InMemoryPhotoLibrary library(files_, dispatch_);
  library.setFailures({.noAlbumPlaceholder = true});
  EXPECT_FALSE(SimpleMediaSaver::checkIfFileExistsInAlbum(library, "any", "Trips"));
}

}  // namespace
}  // namespace tarn
