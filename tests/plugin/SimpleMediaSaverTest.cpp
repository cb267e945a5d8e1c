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

TEST_F(SimpleMediaSaverTest, EveryFailureSaysWhatIsMissingAndLeavesWhatWasDone) {
  const auto noAsset = [](const Path& source) {
    return "No placeholder for asset creation request, or no asset request (check if video exists at " +
           fileURLText(source) + ")";
  };
  const std::string fault = PosixError(EIO, "fault of a test").description(), noAlbum = "Failed to create album: ";
  // Of each call to the library in its turn: how the save fails then, and how many assets and albums are there.
  const std::tuple<std::string, size_t, size_t> rows[] = {{fault, 0, 0},
                                                          {noAsset(source_), 0, 0},
                                                          {noAsset(source_), 0, 0},
                                                          {fault, 0, 0},
                                                          {fault, 1, 0},
                                                          {noAlbum + fault, 1, 0},
                                                          {noAlbum + "Failed to create album", 1, 0},
                                                          {noAlbum + fault, 1, 0},
                                                          {noAlbum + fault, 1, 1},
                                                          {noAlbum + "No created asset", 1, 1},
                                                          {fault, 1, 1},
                                                          {"", 1, 1},
                                                          {fault, 1, 1}};
  for (uint64_t call = 1; call <= std::size(rows); ++call) {
    SCOPED_TRACE(call);
    const auto& [error, assets, albums] = rows[call - 1];
    InMemoryPhotoLibrary library(files_, dispatch_);
    FaultyCalls calls;
    FaultyPhotoLibrary faulty(library, calls);
    calls.arm(call, false);
    EXPECT_EQ(failureOf([&] { save(faulty, source_); }), error);
    EXPECT_EQ(library.fetchAllAssets().size(), assets);
    const auto made = library.fetchAssetCollections("Trips");
    EXPECT_EQ(made.size(), albums);
    EXPECT_TRUE(made.empty() || library.fetchAssets(made[0], std::nullopt).empty());
  }
  InMemoryPhotoLibrary library(files_, dispatch_);
  EXPECT_EQ(failureOf([&] { save(library, home_ / "missing.mp4"); }), noAsset(home_ / "missing.mp4"));
  FaultyCalls calls;
  FaultyPhotoLibrary withoutAlbum(library, calls);
  calls.arm(3, false);
  EXPECT_FALSE(SimpleMediaSaver::checkIfFileExistsInAlbum(withoutAlbum, "any", "Trips"));
}

}  // namespace
}  // namespace tarn::test
