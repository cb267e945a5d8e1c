#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "PhotoChanges.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

Path writeText(const Path& path, const std::string& text) {
  std::ofstream(path) << text;
  return path;
}

std::string textAt(const Path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

auto isAsset(const std::string& identifier) {
  return testing::Field(&PHAsset::localIdentifier, identifier);
}

enum class Kind { linking, copying, memory };

/// What holds for every photo library.
class PhotoLibraryTest : public testing::TestWithParam<Kind> {
 protected:
  PhotoLibraryTest() {
    if (GetParam() == Kind::memory) {
      hold(std::make_unique<InMemoryPhotoLibrary>(files_, dispatch_));
    } else {
      FileManager& files = GetParam() == Kind::copying ? static_cast<FileManager&>(noLinks_) : files_;
      hold(std::make_unique<SQLitePhotoLibrary>(files, dispatch_, home_ / "Photos",
                                                SQLitePhotoLibrary::Access::readWrite));
    }
  }

  template <typename Library>
  void hold(std::unique_ptr<Library> library) {
    authorization_ = &library->authorization();
    library_ = std::move(library);
  }

  TempDirectory home_;
  ManualDispatch dispatch_;
  PosixFileManager files_{home_.path()};
  NoLinks noLinks_{files_};
  std::unique_ptr<PHPhotoLibrary> library_;
  PhotoAuthorization* authorization_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Kinds, PhotoLibraryTest, testing::Values(Kind::linking, Kind::copying, Kind::memory));

TEST_P(PhotoLibraryTest, FetchesGiveWhatChangesMadeInTheOrderInWhichItCame) {
  const Path source = writeText(home_ / "b.mp4", "video b");
  const Date date = Date(std::chrono::nanoseconds(1234567890123456789));
  std::string second;
  const std::string first = makeAsset(*library_, writeText(home_ / "a.mp4", "a"));
  library_->performChangesAndWait([&](PHChangeBlock& change) {
    auto* const request = change.creationRequestForAssetFromVideo(source);
    request->setCreationDate(date);
    request->setFilename("named.mp4");
    second = request->placeholderForCreatedAsset()->localIdentifier;
    EXPECT_EQ(change.creationRequestForAssetFromVideo(source)->placeholderForCreatedAsset()->localIdentifier, second);
    EXPECT_EQ(change.creationRequestForAssetFromVideo(home_ / "missing.mp4"), nullptr);
    EXPECT_EQ(change.creationRequestForAssetFromVideo(home_.path()), nullptr);
  });
  const auto oldest = makeAlbum(*library_, "Trips");
  const auto newest = makeAlbum(*library_, "Trips");
  const auto other = makeAlbum(*library_, "Trip_");

  EXPECT_TRUE(join(*library_, oldest, {{second}, {first}, {second}}));
  EXPECT_TRUE(join(*library_, oldest, {{first}})) << "once is enough";
  EXPECT_TRUE(join(*library_, other, {{first}}));
  EXPECT_FALSE(join(*library_, "unknown", {{first}}));
  EXPECT_THROW(join(*library_, oldest, {{"unknown"}}), PHPhotosError);

  const auto named = library_->fetchAssetCollections("Trips");
  ASSERT_EQ(named.size(), 2u);
  EXPECT_EQ(named[0].localIdentifier, oldest);
  EXPECT_EQ(named[1].localIdentifier, newest);
  EXPECT_EQ(library_->fetchAssetCollections(std::nullopt).size(), 3u);
  EXPECT_EQ(library_->fetchAssetCollection(other)->title, "Trip_");
  EXPECT_THAT(library_->fetchAssets(named[0], std::nullopt), ElementsAre(isAsset(second), isAsset(first)));
  EXPECT_THAT(library_->fetchAssets(named[0], first), ElementsAre(isAsset(first)));
  EXPECT_THAT(library_->fetchAssets(named[1], first), IsEmpty());
  EXPECT_THAT(library_->fetchAllAssets(), ElementsAre(isAsset(first), isAsset(second)));
  const PHAsset asset = library_->fetchAssets(named[0], second).at(0);
  EXPECT_EQ(asset.filename, "named.mp4");
  EXPECT_EQ(asset.creationDate, date);
  EXPECT_EQ(asset.size, 7u);
  EXPECT_TRUE(asset.path.native().ends_with("Trips/named.mp4")) << asset.path;
}

TEST_P(PhotoLibraryTest, ASourceIsTakenOnceAndAnotherFileOfTheSameNameAnew) {
  const Path source = writeText(home_ / "clip.mp4", "first");
  const std::string asset = makeAsset(*library_, source);
  EXPECT_EQ(makeAsset(*library_, source), asset);
  if (GetParam() == Kind::linking) {
    std::filesystem::permissions(source, std::filesystem::perms::owner_read);  // moves the change time
    EXPECT_EQ(makeAsset(*library_, source), asset) << "it is still the asset's own file";
  }
  // The new file may well get the inode of the old one.
  std::filesystem::remove(source);
  writeText(source, "later");
  EXPECT_NE(makeAsset(*library_, source), asset);
}

TEST_P(PhotoLibraryTest, AChangeThatThrowsOrIsNotAllowedLeavesNothing) {
  const Path source = writeText(home_ / "clip.mp4", "video");
  const auto change = [&](PHChangeBlock& block) {
    const auto asset = block.creationRequestForAssetFromVideo(source)->placeholderForCreatedAsset();
    block.addAssets(block.creationRequestForAssetCollection("Trips")->localIdentifier, {*asset});
  };
  EXPECT_THROW(library_->performChangesAndWait([&](PHChangeBlock& block) {
    change(block);
    throw std::runtime_error("stop");
  }),
               std::runtime_error);
  for (const auto status : {PHAuthorizationStatus::notDetermined, PHAuthorizationStatus::restricted,
                            PHAuthorizationStatus::denied, PHAuthorizationStatus::limited}) {
    EXPECT_THAT(library_->fetchAllAssets(), IsEmpty());
    EXPECT_THAT(library_->fetchAssetCollections(std::nullopt), IsEmpty());
    authorization_->setStatus(status);
    if (status == PHAuthorizationStatus::limited) {
      EXPECT_NO_THROW(library_->performChangesAndWait(change));
    } else {
      EXPECT_THROW(library_->performChangesAndWait(change), PHPhotosError);
    }
  }
  EXPECT_EQ(library_->fetchAllAssets().size(), 1u);
}

/// What holds for the library on the disk.
class PhotoDirectoryTest : public testing::Test {
 protected:
  std::unique_ptr<SQLitePhotoLibrary> open(SQLitePhotoLibrary::Access access) {
    return std::make_unique<SQLitePhotoLibrary>(files_, dispatch_, root_, access);
  }

  TempDirectory home_;
  const Path root_ = home_ / "Photos";
  ManualDispatch dispatch_;
  PosixFileManager files_{home_.path()};
};

TEST_F(PhotoDirectoryTest, AnyTitleAndAnyFileNameGetAPlaceOfTheirOwnInsideTheLibrary) {
  const auto library = open(SQLitePhotoLibrary::Access::readWrite);
  writeText(root_ / "note", "the user's own");
  std::string longTitle;
  for (int i = 0; i < 100; ++i) longTitle += "\xE2\x82\xAC";  // 300 bytes, cut at 255: 85 characters
  struct Case {
    std::string title, filename, place;
  };
  const std::vector<Case> cases = {
      {"a/b", "clip.mp4", "a_b/clip.mp4"},
      {"a/b", "clip.mp4", "a_b/clip 2.mp4"},
      {"a/b", "clip.mp4", "a_b/clip 3.mp4"},
      {"a_b", "clip.mp4", "a_b 2/clip.mp4"},
      {"", "", "Untitled/video.mp4"},
      {"..", "../../x.mp4", "_./_._.._x.mp4"},
      {".assets", ".catalogue.sqlite", "_assets/_catalogue.sqlite"},
      {"note", "/etc/x", "note 2/_etc_x"},
      {"\xF0\x9F\x8F\x96", "\xF0\x9F\x8E\xAC.mp4", "\xF0\x9F\x8F\x96/\xF0\x9F\x8E\xAC.mp4"},
      {"line\nbreak", std::string("nul\0\x7F.mp4", 9), "line_break/nul__.mp4"},
      {"latin \xE9", "overlong \xC0\xAF.mp4", "latin _/overlong __.mp4"},
      {"v1.5", "no ending", "v1.5/no ending"},
      {longTitle, std::string(300, 'x') + ".mp4", longTitle.substr(0, 255) + "/" + std::string(251, 'x') + ".mp4"},
      {longTitle, std::string(300, 'x') + ".mp4", longTitle.substr(0, 255) + "/" + std::string(249, 'x') + " 2.mp4"},
      {longTitle + "!", "clip.mp4", longTitle.substr(0, 252) + " 2/clip.mp4"},
  };
  for (const auto& [title, filename, place] : cases) {
    SCOPED_TRACE(place);
    const Path source = writeText(home_ / makeUUID(), "video of " + place);
    const auto existing = library->fetchAssetCollections(title);
    const auto album = existing.empty() ? makeAlbum(*library, title) : existing.front().localIdentifier;
    join(*library, album, {{makeAsset(*library, source, filename)}});
    EXPECT_EQ(textAt(root_ / place), "video of " + place);
    EXPECT_EQ(library->fetchAllAssets().back().path, root_ / place);
    EXPECT_EQ(library->fetchAssetCollection(album)->title, title);
  }
}

TEST_F(PhotoDirectoryTest, AReaderSeesWhatIsCommittedAndWritesNothing) {
  using Access = SQLitePhotoLibrary::Access;
  const auto empty = open(Access::readOnly);
  EXPECT_THAT(empty->fetchAllAssets(), IsEmpty());
  EXPECT_THAT(empty->fetchAssetCollections(std::nullopt), IsEmpty());
  EXPECT_EQ(empty->fetchAssetCollection("x"), std::nullopt);
  EXPECT_FALSE(std::filesystem::exists(root_));
  std::filesystem::create_directory(root_);
  writeText(root_ / ".catalogue.sqlite", "");  // its maker was killed at once
  EXPECT_THAT(open(Access::readOnly)->fetchAllAssets(), IsEmpty());

  const auto writer = open(Access::readWrite);
  const auto asset = makeAsset(*writer, writeText(home_ / "clip.mp4", "video"));
  writeText(root_ / ".assets/stray", "of a change at work");
  const auto reader = open(Access::readOnly);
  const auto assets = reader->fetchAllAssets();
  ASSERT_EQ(assets.size(), 1u);
  EXPECT_EQ(assets[0].path, root_ / ".assets" / asset);
  EXPECT_THROW(makeAsset(*reader, home_ / "clip.mp4"), PHPhotosError);
  EXPECT_TRUE(std::filesystem::exists(root_ / ".assets/stray"));
}

TEST_F(PhotoDirectoryTest, ADamagedCatalogueIsRefusedAndNoFileIsLost) {
  open(SQLitePhotoLibrary::Access::readWrite).reset();
  writeText(root_ / ".assets/video", "video");
  writeText(root_ / ".catalogue.sqlite", std::string(8192, 'x'));
  EXPECT_THROW(open(SQLitePhotoLibrary::Access::readWrite), Error);
  EXPECT_THROW(open(SQLitePhotoLibrary::Access::readOnly), Error);
  EXPECT_TRUE(std::filesystem::exists(root_ / ".assets/video"));
}

}  // namespace
}  // namespace tarn::test
