#include <gtest/gtest.h>

#include "PhotoChanges.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "support/TestHome.h"

namespace tarn::test {
namespace {

enum class Kind { linking, copying, memory };

/// What holds for every photo library.
class PhotoLibraryTest : public testing::TestWithParam<Kind>, protected HomeOnDisk {
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

  ManualDispatch dispatch_;
  NoLinks noLinks_{files_};
  std::unique_ptr<PHPhotoLibrary> library_;
  PhotoAuthorization* authorization_ = nullptr;
};

INSTANTIATE_TEST_SUITE_P(Kinds, PhotoLibraryTest, testing::Values(Kind::linking, Kind::copying, Kind::memory));

TEST_P(PhotoLibraryTest, FetchesGiveWhatChangesMadeInTheOrderInWhichItCame) {
  const Path source = put("b.mp4", "video b");
  const Date date = Date(std::chrono::nanoseconds(1234567890123456789));
  std::string second;
  const std::string first = makeAsset(*library_, put("a.mp4", "a"));
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
  makeAlbum(*library_, "Trips");
  const auto other = makeAlbum(*library_, "Trip_");

  EXPECT_TRUE(join(*library_, oldest, {{second}, {first}, {second}}));
  EXPECT_TRUE(join(*library_, oldest, {{first}})) << "once is enough";
  EXPECT_TRUE(join(*library_, other, {{first}}));
  EXPECT_FALSE(join(*library_, "unknown", {{first}}));
  EXPECT_THROW(join(*library_, oldest, {{"unknown"}}), PHPhotosError);

  EXPECT_EQ(contents(*library_), "Trips: named.mp4 a.mp4\nTrips:\nTrip_: a.mp4\nall: a.mp4 named.mp4\n");
  const auto named = library_->fetchAssetCollections("Trips");
  ASSERT_EQ(named.size(), 2u);
  EXPECT_EQ(library_->fetchAssetCollection(other)->title, "Trip_");
  EXPECT_TRUE(library_->fetchAssets(named[1], first).empty());
  const auto assets = library_->fetchAssets(named[0], second);
  ASSERT_EQ(assets.size(), 1u);
  EXPECT_EQ(assets[0].creationDate, date);
  EXPECT_EQ(assets[0].size, 7u);
  EXPECT_TRUE(assets[0].path.native().ends_with("Trips/named.mp4")) << assets[0].path;
}

TEST_P(PhotoLibraryTest, ASourceIsTakenOnceAndAnotherFileOfTheSameNameAnew) {
  const Path source = put("clip.mp4", "first");
  const std::string asset = makeAsset(*library_, source);
  EXPECT_EQ(makeAsset(*library_, source), asset);
  if (GetParam() == Kind::linking) {
    std::filesystem::permissions(source, std::filesystem::perms::owner_read);  // moves the change time
    EXPECT_EQ(makeAsset(*library_, source), asset) << "it is still the asset's own file";
  }
  // The new file may well get the inode of the old one.
  files_.removeItem(source);
  EXPECT_NE(makeAsset(*library_, put("clip.mp4", "later")), asset);
}

TEST_P(PhotoLibraryTest, AChangeThatThrowsOrIsNotAllowedLeavesNothing) {
  const Path source = put("clip.mp4", "video");
  bool throws = true;
  const auto save = [&] {
    library_->performChangesAndWait([&](PHChangeBlock& block) {
      const auto asset = block.creationRequestForAssetFromVideo(source)->placeholderForCreatedAsset();
      block.addAssets(block.creationRequestForAssetCollection("Trips")->localIdentifier, {*asset});
      if (throws) throw std::runtime_error("stop");
    });
  };
  EXPECT_THROW(save(), std::runtime_error);
  throws = false;
  using enum PHAuthorizationStatus;
  for (const auto status : {notDetermined, restricted, denied}) {
    authorization_->setStatus(status);
    EXPECT_THROW(save(), PHPhotosError);
    EXPECT_EQ(contents(*library_), "all:\n");
  }
  authorization_->setStatus(limited);
  save();
  EXPECT_EQ(contents(*library_), "Trips: clip.mp4\nall: clip.mp4\n");
}

/// What holds for the library on the disk.
class PhotoDirectoryTest : public testing::Test, protected HomeOnDisk {
 protected:
  using Access = SQLitePhotoLibrary::Access;
  std::unique_ptr<SQLitePhotoLibrary> open(Access access = Access::readWrite) {
    return std::make_unique<SQLitePhotoLibrary>(files_, dispatch_, root_, access);
  }
  void putInRoot(const std::string& name, std::string_view text) {
    writeFileAtomically(files_, root_ / name, bytesOf(text));
  }

  const Path root_ = home_ / "Photos";
  ManualDispatch dispatch_;
};

TEST_F(PhotoDirectoryTest, AnyTitleAndAnyFileNameGetAPlaceOfTheirOwnInsideTheLibrary) {
  const auto library = open();
  putInRoot("note", "the user's own");
  std::string longTitle;
  for (int i = 0; i < 100; ++i) longTitle += "\xE2\x82\xAC";  // 300 bytes, cut at 255: 85 characters
  const std::tuple<std::string, std::string, std::string> rows[] = {
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
  for (const auto& [title, filename, place] : rows) {
    SCOPED_TRACE(place);
    const Path source = put(makeUUID(), place);
    const auto existing = library->fetchAssetCollections(title);
    const auto album = existing.empty() ? makeAlbum(*library, title) : existing.front().localIdentifier;
    join(*library, album, {{makeAsset(*library, source, filename)}});
    EXPECT_EQ(textOf(readFile(files_, root_ / place)), place);
    EXPECT_EQ(library->fetchAllAssets().back().path, root_ / place);
    EXPECT_EQ(library->fetchAssetCollection(album)->title, title);
  }
}

TEST_F(PhotoDirectoryTest, AReaderSeesWhatIsCommittedAndWritesNothing) {
  EXPECT_EQ(contents(*open(Access::readOnly)), "all:\n");
  EXPECT_EQ(open(Access::readOnly)->fetchAssetCollection("x"), std::nullopt);
  EXPECT_FALSE(files_.fileExists(root_));
  files_.createDirectory(root_);
  putInRoot(".catalogue.sqlite", "");  // its maker was killed at once
  EXPECT_EQ(contents(*open(Access::readOnly)), "all:\n");

  const auto writer = open();
  const auto asset = makeAsset(*writer, put("clip.mp4", "video"));
  putInRoot(".assets/stray", "of a change at work");
  const auto reader = open(Access::readOnly);
  EXPECT_EQ(reader->fetchAllAssets().at(0).path, root_ / ".assets" / asset);
  EXPECT_THROW(makeAsset(*reader, put("other.mp4", "video")), PHPhotosError);
  EXPECT_TRUE(files_.fileExists(root_ / ".assets/stray"));
}

TEST_F(PhotoDirectoryTest, ADamagedCatalogueIsRefusedAndNoFileIsLost) {
  open().reset();
  putInRoot(".assets/video", "video");
  putInRoot(".catalogue.sqlite", std::string(8192, 'x'));
  EXPECT_THROW(open(), Error);
  EXPECT_THROW(open(Access::readOnly), Error);
  EXPECT_TRUE(files_.fileExists(root_ / ".assets/video"));
}

}  // namespace
}  // namespace tarn::test
