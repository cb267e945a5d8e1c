#include <gtest/gtest.h>

#include <atomic>
#include <thread>

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

TEST_P(PhotoLibraryTest, AssetsAreRenamedMovedDeletedAndRecovered) {
  const std::string a = makeAsset(*library_, put("a.mp4", "a"));
  const std::string b = makeAsset(*library_, put("b.mp4", "b"));
  const auto trips = makeAlbum(*library_, "Trips");
  const auto home = makeAlbum(*library_, "Home");
  join(*library_, trips, {{a}, {b}});
  const auto expectContents = [&](const std::string& expected) { EXPECT_EQ(contents(*library_), expected); };

  rename(*library_, a, "up/../c.mp4");
  expectContents("Trips: up_.._c.mp4 b.mp4\nHome:\nall: up_.._c.mp4 b.mp4\n");
  move(*library_, b, trips, home);
  expectContents("Trips: up_.._c.mp4\nHome: b.mp4\nall: up_.._c.mp4 b.mp4\n");
  EXPECT_EQ(library_->fetchAssetCollectionsContaining(b).at(0).title, "Home");
  join(*library_, trips, {{b}});
  // In one change an asset may leave the album (-) and join it (+), again and again.
  for (const std::string steps : {"-+", "+-", "+-++", "--", "+-+-", "+"}) {
    library_->performChangesAndWait([&](PHChangeBlock& block) {
      for (const char step : steps) {
        EXPECT_TRUE(step == '+' ? block.addAssets(trips, {{a}}) : block.removeAssets(trips, {{a}}));
      }
    });
    const bool isIn = steps.ends_with('+');
    expectContents(std::string(isIn ? "Trips: b.mp4 up_.._c.mp4" : "Trips: b.mp4") +
                   "\nHome: b.mp4\nall: up_.._c.mp4 b.mp4\n");
    EXPECT_EQ(library_->fetchAsset(a)->path.native().ends_with("Trips/up_.._c.mp4"), isIn) << "it keeps its name";
  }
  library_->performChangesAndWait([&](PHChangeBlock& block) {
    block.removeAssets(trips, {{b}});
    block.addAssets(trips, {{b}});
    block.changeRequestForAsset(b)->setFilename("d.mp4");
  });
  expectContents("Trips: up_.._c.mp4 d.mp4\nHome: d.mp4\nall: up_.._c.mp4 d.mp4\n");
  rename(*library_, b, "b.mp4");

  library_->performChangesAndWait([&](PHChangeBlock& block) { block.deleteAssets({{a}, {b}, {a}}); });
  library_->performChangesAndWait([&](PHChangeBlock& block) { block.recoverAssets({{b}, {b}}); });
  expectContents("Trips: b.mp4\nHome: b.mp4\nall: b.mp4\n");
  EXPECT_EQ(library_->fetchDeletedAssets().at(0).localIdentifier, a);
  EXPECT_TRUE(library_->fetchAssetCollectionsContaining(a).empty());
  EXPECT_FALSE(library_->fetchAsset("unknown"));
  EXPECT_FALSE(library_->fetchAsset(a));
  EXPECT_THROW(join(*library_, home, {{a}}), PHPhotosError);
  library_->performChangesAndWait([&](PHChangeBlock& block) {
    EXPECT_EQ(block.changeRequestForAsset(a), nullptr);
    EXPECT_EQ(block.changeRequestForAsset("unknown"), nullptr);
    EXPECT_FALSE(block.removeAssets("unknown", {{b}}));
    block.recoverAssets({{b}});  // it is not deleted
  });
  EXPECT_NE(makeAsset(*library_, files_.documentsDirectory(true) / "a.mp4"), a) << "a deleted asset is no answer";

  change(*library_, &PHChangeBlock::recoverAssets, a);
  expectContents("Trips: up_.._c.mp4 b.mp4\nHome: b.mp4\nall: up_.._c.mp4 b.mp4 a.mp4\n");
  EXPECT_TRUE(library_->fetchDeletedAssets().empty());
  change(*library_, &PHChangeBlock::deleteAssets, a);
  change(*library_, &PHChangeBlock::expungeAssets, a);
  change(*library_, &PHChangeBlock::expungeAssets, b);
  expectContents("Trips:\nHome:\nall: a.mp4\n");
  EXPECT_TRUE(library_->fetchDeletedAssets().empty());
  EXPECT_THROW(change(*library_, &PHChangeBlock::recoverAssets, a), PHPhotosError);
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
    const auto asset = save(*library, put(makeUUID(), place), title, filename);
    EXPECT_EQ(textOf(readFile(files_, root_ / place)), place);
    EXPECT_EQ(library->fetchAllAssets().back().path, root_ / place);
    EXPECT_EQ(library->fetchAssetCollectionsContaining(asset).at(0).title, title);
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

TEST_F(PhotoDirectoryTest, AnAssetThatIsMovedIsInOneAlbumAtEachMoment) {
  const auto writer = open();
  const auto asset = save(*writer, put("clip.mp4", "video"), "0", "clip.mp4");
  const auto reader = open(Access::readOnly);
  std::atomic<bool> isDone = false;
  std::thread moving([&] {
    for (int i = 1; i <= 200; ++i) {
      const auto from = writer->fetchAssetCollectionsContaining(asset).at(0).localIdentifier;
      writer->performChangesAndWait([&](PHChangeBlock& block) {
        block.addAssets(block.creationRequestForAssetCollection(std::to_string(i))->localIdentifier, {{asset}});
        block.removeAssets(from, {{asset}});
      });
    }
    isDone = true;
  });
  while (!isDone) {
    size_t places = 0;
    for (const auto& [album, assets] : reader->fetchContents(std::nullopt)) places += assets.size();
    EXPECT_EQ(places, 1U);
  }
  moving.join();
}

TEST_F(PhotoDirectoryTest, NamesInTheAlbumsFollowAndFilesOfTheUserStay) {
  const auto library = open();
  const auto first = save(*library, put("1.mp4", "first"), "Trips", "clip.mp4");
  const auto second = save(*library, put("2.mp4", "second"), "Trips", "clip.mp4");
  const auto expectNames = [&](const std::set<std::string>& names) {
    const auto found = files_.contentsOfDirectory(root_ / "Trips");
    EXPECT_EQ(std::set<std::string>(found.begin(), found.end()), names);
    EXPECT_EQ(files_.contentsOfDirectory(root_ / ".assets").size(), library->fetchAllAssets().size() + 1);
  };
  const auto third = makeAsset(*library, put("3.mp4", "third"));
  change(*library, &PHChangeBlock::deleteAssets, third);

  rename(*library, second, "clip.mp4");
  expectNames({"clip.mp4", "clip 2.mp4"});  // the name that it has is the best there is
  rename(*library, second, "other.mp4");
  expectNames({"clip.mp4", "other.mp4"});
  rename(*library, second, "clip.mp4");
  rename(*library, first, "a.mp4");
  expectNames({"a.mp4", "clip 2.mp4"});

  // An editor has put another file in the place of the asset's, and the user a file under its next name.
  files_.removeItem(root_ / "Trips/a.mp4");
  putInRoot("Trips/a.mp4", "edited");
  putInRoot("Trips/b.mp4", "the user's");
  rename(*library, first, "b.mp4");
  expectNames({"a.mp4", "b.mp4", "b 2.mp4", "clip 2.mp4"});
  EXPECT_EQ(textOf(readFile(files_, root_ / "Trips/a.mp4")), "edited");
  EXPECT_EQ(textOf(readFile(files_, root_ / "Trips/b 2.mp4")), "first");

  // Somebody takes the file out of the folder: the asset keeps its own.
  files_.removeItem(root_ / "Trips/b 2.mp4");
  EXPECT_EQ(library->fetchAllAssets()[0].path, root_ / ".assets" / first);
  change(*library, &PHChangeBlock::expungeAssets, third);
  const auto fourth = makeAsset(*library, put("4.mp4", "fourth"));
  change(*library, &PHChangeBlock::deleteAssets, fourth);
  expectNames({"a.mp4", "b.mp4", "clip 2.mp4"});
}

TEST_F(PhotoDirectoryTest, ADeletedAssetKeepsItsPlaceForADay) {
  auto library = open();
  const auto first = save(*library, put("clip.mp4", "first"));
  change(*library, &PHChangeBlock::deleteAssets, first);
  EXPECT_FALSE(files_.fileExists(root_ / "Trips/clip.mp4"));
  library = open();
  const auto second = save(*library, put("clip.mp4", "second"));
  change(*library, &PHChangeBlock::recoverAssets, first);
  const auto assets = library->fetchAssets(library->fetchAssetCollections("Trips").at(0), std::nullopt);
  ASSERT_EQ(assets.size(), 2u);
  EXPECT_EQ(assets[0].localIdentifier, first) << "it has its old place in the order";
  EXPECT_EQ(assets[0].path, root_ / "Trips/clip 2.mp4");

  for (const bool isOpenedAnew : {true, false}) {
    const auto old = isOpenedAnew ? first : second;
    change(*library, &PHChangeBlock::deleteAssets, old);
    executeSQL(root_,
               "UPDATE assets SET deletion_date = deletion_date - 86400000000000 "
               "WHERE deletion_date IS NOT NULL");
    isOpenedAnew ? (library = open()).get() : (makeAlbum(*library, "Other"), nullptr);
    EXPECT_TRUE(library->fetchDeletedAssets().empty());
    EXPECT_FALSE(files_.fileExists(root_ / ".assets" / old));
  }
}

// A catalogue of the first version, in which nothing could be deleted.
TEST_F(PhotoDirectoryTest, AnOlderCatalogueIsReadAsItIsAndBroughtUpToDate) {
  const auto asset = save(*open(), put("clip.mp4", "video"));
  executeSQL(root_,
             "DROP TABLE deleted_entries; ALTER TABLE assets DROP COLUMN deletion_date; PRAGMA user_version = 1");
  EXPECT_EQ(contents(*open(Access::readOnly)), "Trips: clip.mp4\nall: clip.mp4\n");
  EXPECT_TRUE(open(Access::readOnly)->fetchDeletedAssets().empty());
  const auto library = open();
  EXPECT_EQ(contents(*library), "Trips: clip.mp4\nall: clip.mp4\n");
  change(*library, &PHChangeBlock::deleteAssets, asset);
  EXPECT_EQ(contents(*open(Access::readOnly)), "Trips:\nall:\n");
  change(*library, &PHChangeBlock::recoverAssets, asset);
  EXPECT_EQ(contents(*library), "Trips: clip.mp4\nall: clip.mp4\n");
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
