#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "platform/memory/InMemoryPhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "support/TempDirectory.h"

namespace tarn {
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

std::string makeAsset(PHPhotoLibrary& library, const Path& source, const std::optional<std::string>& filename = {}) {
  std::string identifier;
  library.performChangesAndWait([&](PHChangeBlock& change) {
    auto* const request = change.creationRequestForAssetFromVideo(source);
    if (filename) request->setFilename(*filename);
    identifier = request->placeholderForCreatedAsset()->localIdentifier;
  });
  return identifier;
}

PHAssetCollection makeAlbum(PHPhotoLibrary& library, const std::string& title) {
  std::string identifier;
  library.performChangesAndWait(
      [&](PHChangeBlock& change) { identifier = change.creationRequestForAssetCollection(title)->localIdentifier; });
  return library.fetchAssetCollection(identifier).value();
}

bool join(PHPhotoLibrary& library, const PHAssetCollection& album, const std::vector<std::string>& assets) {
  bool joined = false;
  library.performChangesAndWait([&](PHChangeBlock& change) {
    std::vector<PHObjectPlaceholder> placeholders;
    for (const auto& asset : assets) placeholders.push_back({asset});
    joined = change.addAssets(album.localIdentifier, placeholders);
  });
  return joined;
}

std::vector<std::string> identifiers(const std::vector<PHAsset>& assets) {
  std::vector<std::string> identifiers;
  for (const auto& asset : assets) identifiers.push_back(asset.localIdentifier);
  return identifiers;
}

/// A file system without second names.
class NoLinks : public PosixFileManager {
 public:
  using PosixFileManager::PosixFileManager;
  void linkItem(const Path& from, const Path&) override { throw PosixError(EPERM, from.native()); }
};

enum class Kind { linking, copying, memory };

/// What holds for every photo library.
class PhotoLibraryTest : public testing::TestWithParam<Kind> {
 protected:
  PhotoLibraryTest() {
    files_ = GetParam() == Kind::copying ? std::make_unique<NoLinks>(home_.path())
                                         : std::make_unique<PosixFileManager>(home_.path());
    if (GetParam() == Kind::memory) {
      auto library = std::make_unique<InMemoryPhotoLibrary>(*files_, dispatch_);
      authorization_ = &library->authorization();
      library_ = std::move(library);
    } else {
      auto library = std::make_unique<SQLitePhotoLibrary>(*files_, dispatch_, home_ / "Photos",
                                                          SQLitePhotoLibrary::Access::readWrite);
      authorization_ = &library->authorization();
      library_ = std::move(library);
    }
  }

  test::TempDirectory home_;
  ManualDispatch dispatch_;
  std::unique_ptr<FileManager> files_;
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

  EXPECT_TRUE(join(*library_, oldest, {second, first, second}));
  EXPECT_TRUE(join(*library_, oldest, {first})) << "once is enough";
  EXPECT_TRUE(join(*library_, other, {first}));
  EXPECT_FALSE(join(*library_, {"unknown", "Trips"}, {first}));
  EXPECT_THROW(join(*library_, oldest, {"unknown"}), PHPhotosError);

  const auto named = library_->fetchAssetCollections("Trips");
  ASSERT_EQ(named.size(), 2u);
  EXPECT_EQ(named[0].localIdentifier, oldest.localIdentifier);
  EXPECT_EQ(named[1].localIdentifier, newest.localIdentifier);
  EXPECT_EQ(library_->fetchAssetCollections(std::nullopt).size(), 3u);
  EXPECT_THAT(identifiers(library_->fetchAssets(oldest, std::nullopt)), ElementsAre(second, first));
  EXPECT_THAT(identifiers(library_->fetchAssets(oldest, first)), ElementsAre(first));
  EXPECT_THAT(library_->fetchAssets(newest, first), IsEmpty());
  EXPECT_THAT(identifiers(library_->fetchAllAssets()), ElementsAre(first, second));
  const PHAsset asset = library_->fetchAssets(oldest, second).at(0);
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

TEST_P(PhotoLibraryTest, TheUserIsAskedOnceAndAnswersElsewhere) {
  using enum PHAuthorizationStatus;
  std::vector<PHAuthorizationStatus> answers;
  const auto ask = [&] {
    library_->requestAuthorization(PHAccessLevel::readWrite, [&](auto status) { answers.push_back(status); });
  };
  authorization_->setStatus(notDetermined);
  authorization_->setAnswer(denied);
  EXPECT_EQ(library_->authorizationStatus(PHAccessLevel::readWrite), notDetermined);
  ask();
  EXPECT_THAT(answers, IsEmpty());
  authorization_->setAnswer(authorized);
  ask();
  dispatch_.runUntilIdle();
  EXPECT_THAT(answers, ElementsAre(denied, denied));
  EXPECT_EQ(library_->authorizationStatus(PHAccessLevel::readWrite), denied);
}

/// What holds for the library on the disk.
class PhotoDirectoryTest : public testing::Test {
 protected:
  std::unique_ptr<SQLitePhotoLibrary> open(SQLitePhotoLibrary::Access access) {
    return std::make_unique<SQLitePhotoLibrary>(files_, dispatch_, root_, access);
  }

  test::TempDirectory home_;
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
    std::string title;
    std::string filename;
    std::string place;
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
  size_t count = 0;
  for (const auto& [title, filename, place] : cases) {
    SCOPED_TRACE(place);
    const auto existing = library->fetchAssetCollections(title);
    const auto album = existing.empty() ? makeAlbum(*library, title) : existing.front();
    const std::string text = "video " + std::to_string(++count);
    const auto asset = makeAsset(*library, writeText(home_ / ("source" + std::to_string(count)), text), filename);
    join(*library, album, {asset});
    const Path path = library->fetchAssets(album, asset).at(0).path;
    EXPECT_EQ(path.native(), (root_ / place).native());
    EXPECT_EQ(textAt(path), text);
    EXPECT_EQ(library->fetchAssetCollection(album.localIdentifier)->title, title);
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
}  // namespace tarn
