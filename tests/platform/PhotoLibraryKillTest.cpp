#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "platform/ForwardingFileManager.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "support/TempDirectory.h"

namespace tarn {
namespace {

using testing::UnorderedElementsAre;

/// Counts the moments before and after each operation that opens, lists or changes files, and strikes at one of them.
class StruckFiles : public ForwardingFileManager {
 public:
  StruckFiles(FileManager& base, bool links) : ForwardingFileManager(base), links_(links) {}

  void strikeAt(size_t moment, std::function<void()> strike) {
    moment_ = moment;
    passed_ = 0;
    strike_ = std::move(strike);
  }
  bool struck() const { return passed_ >= moment_; }

  std::unique_ptr<FileHandle> open(const Path& path, OpenMode mode) override {
    return around([&] { return base().open(path, mode); });
  }
  std::vector<std::string> contentsOfDirectory(const Path& path) override {
    return around([&] { return base().contentsOfDirectory(path); });
  }
  void createDirectory(const Path& path) override {
    around([&] { base().createDirectory(path); });
  }
  void moveItem(const Path& from, const Path& to) override {
    around([&] { base().moveItem(from, to); });
  }
  void copyItem(const Path& from, const Path& to) override {
    around([&] { base().copyItem(from, to); });
  }
  void linkItem(const Path& from, const Path& to) override {
    if (!links_) throw PosixError(EOPNOTSUPP, "link");
    around([&] { base().linkItem(from, to); });
  }
  void removeItem(const Path& path) override {
    around([&] { base().removeItem(path); });
  }
  void synchronizeDirectory(const Path& path) override {
    around([&] { base().synchronizeDirectory(path); });
  }

 private:
  template <typename Work>
  auto around(Work work) -> decltype(work()) {
    pass();
    if constexpr (std::is_void_v<decltype(work())>) {
      work();
      pass();
    } else {
      auto result = work();
      pass();
      return result;
    }
  }

  void pass() {
    if (++passed_ == moment_) strike_();
  }

  const bool links_;
  size_t moment_ = 0;
  size_t passed_ = 0;
  std::function<void()> strike_;
};

/// All that a save does to the library: asset, album, entry, each a change of its own, and a change of all three kinds.
void save(PHPhotoLibrary& library, const Path& source) {
  PHObjectPlaceholder asset;
  std::string album;
  library.performChangesAndWait([&](PHChangeBlock& change) {
    asset = change.creationRequestForAssetFromVideo(source)->placeholderForCreatedAsset().value();
  });
  const auto albums = library.fetchAssetCollections("Trips");
  if (albums.empty()) {
    library.performChangesAndWait(
        [&](PHChangeBlock& change) { album = change.creationRequestForAssetCollection("Trips")->localIdentifier; });
  } else {
    album = albums.front().localIdentifier;
  }
  library.performChangesAndWait([&](PHChangeBlock& change) { change.addAssets(album, {asset}); });
}

class PhotoLibraryKillTest : public testing::TestWithParam<bool> {
 protected:
  struct Home {
    explicit Home(bool links) : files(posix, links) {
      std::filesystem::create_directories(root / "Trips");
      std::ofstream(source) << "video";
      // The user's own files, one of them under the name that the video would like to have.
      std::ofstream(root / "Trips/clip.mp4") << "the user's";
      std::ofstream(root / "Trips/note") << "the user's";
    }

    std::unique_ptr<SQLitePhotoLibrary> open() {
      return std::make_unique<SQLitePhotoLibrary>(files, dispatch, root, SQLitePhotoLibrary::Access::readWrite);
    }

    /// The regular files under the root, but for the asset's own file.
    std::vector<std::string> filesBeside(const std::string& asset) const {
      std::vector<std::string> found;
      for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
        if (entry.is_regular_file() && entry.path() != root / ".assets" / asset) {
          found.push_back(entry.path().lexically_relative(root));
        }
      }
      return found;
    }

    /// One asset, once in the album, and no file that belongs to nobody.
    void expectSavedOnce(PHPhotoLibrary& library) const {
      const auto assets = library.fetchAllAssets();
      const auto albums = library.fetchAssetCollections(std::nullopt);
      ASSERT_EQ(assets.size(), 1u);
      ASSERT_EQ(albums.size(), 1u);
      ASSERT_EQ(library.fetchAssets(albums[0], std::nullopt).size(), 1u);
      EXPECT_EQ(assets[0].path, root / "Trips/clip 2.mp4");
      EXPECT_EQ(std::filesystem::file_size(assets[0].path), 5u);
      EXPECT_EQ(std::filesystem::file_size(root / ".assets" / assets[0].localIdentifier), 5u);
      EXPECT_EQ(std::filesystem::file_size(root / "Trips/clip.mp4"), 10u);
      EXPECT_THAT(filesBeside(assets[0].localIdentifier),
                  UnorderedElementsAre(".catalogue.sqlite", "Trips/clip.mp4", "Trips/note", "Trips/clip 2.mp4"));
    }

    test::TempDirectory directory;
    const Path root = directory / "Photos";
    const Path source = directory / "clip.mp4";
    ManualDispatch dispatch;
    PosixFileManager posix{directory.path()};
    StruckFiles files;
  };
};

INSTANTIATE_TEST_SUITE_P(LinkedAndCopied, PhotoLibraryKillTest, testing::Bool());

// A real kill -9 at every moment of opening and saving, and a second one at every tenth moment of the clearing up.
TEST_P(PhotoLibraryKillTest, AKillAtAnyMomentAndARetryGiveTheAssetOnce) {
  size_t kills = 0;
  for (bool finished = false; !finished;) {
    Home home(GetParam());
    const auto killedAt = [&](size_t moment) {
      const pid_t child = fork();
      if (child == 0) {
        home.files.strikeAt(moment, [] { kill(getpid(), SIGKILL); });
        save(*home.open(), home.source);
        _exit(0);
      }
      int status = 0;
      waitpid(child, &status, 0);
      EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGKILL : WEXITSTATUS(status) == 0);
      return WIFSIGNALED(status);
    };
    const size_t moment = kills + 1;
    SCOPED_TRACE(moment);
    finished = !killedAt(moment);
    if (!finished) {
      ++kills;
      killedAt(1 + moment % 10);
    }
    const auto library = home.open();
    save(*library, home.source);
    home.expectSavedOnce(*library);
    if (HasFailure()) return;
  }
  EXPECT_GE(kills, 20u);
}

// The same moments as failures: the change tells of it, has left nothing when it returns, and can be asked for again.
TEST_P(PhotoLibraryKillTest, AFailureAtAnyMomentLeavesNothingOfItsChange) {
  for (size_t moment = 1;; ++moment) {
    SCOPED_TRACE(moment);
    Home home(GetParam());
    const auto library = home.open();
    home.files.strikeAt(moment, [] { throw PosixError(ENOSPC, "write"); });
    bool failed = false;
    try {
      save(*library, home.source);
    } catch (const PosixError& error) {
      failed = true;
      EXPECT_EQ(error.code(), ENOSPC);
    }
    ASSERT_EQ(failed, home.files.struck());
    const auto assets = library->fetchAllAssets();
    if (failed) {
      EXPECT_THAT(home.filesBeside(assets.empty() ? "none" : assets[0].localIdentifier),
                  UnorderedElementsAre(".catalogue.sqlite", "Trips/clip.mp4", "Trips/note"));
      save(*library, home.source);
    }
    home.expectSavedOnce(*library);
    if (!failed || HasFailure()) return;
  }
}

// What stands under a name that an unfinished change had meant to use is the user's when it is another file.
TEST_P(PhotoLibraryKillTest, AFileOfTheUserUnderAnIntendedNameStays) {
  Home home(GetParam());
  home.open().reset();
  sqlite3* database = nullptr;
  ASSERT_EQ(sqlite3_open((home.root / ".catalogue.sqlite").c_str(), &database), SQLITE_OK);
  const auto own = home.files.attributes(home.root / "Trips/note").value();
  const std::string sql = "INSERT INTO intended_links VALUES ('Trips', 'clip.mp4', " + std::to_string(own.device) +
                          ", " + std::to_string(own.inode) + ")";
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(database);
  save(*home.open(), home.source);
  home.expectSavedOnce(*home.open());
}

// A kill in the middle of SQLite's commit leaves a journal that the next one to open must roll back: a reader too.
TEST(PhotoLibraryJournal, AReaderAfterAKillInMidCommitSeesTheLastCommit) {
  test::TempDirectory directory;
  const Path root = directory / "Photos";
  ManualDispatch dispatch;
  PosixFileManager files(directory.path());
  std::ofstream(directory / "clip.mp4") << "video";
  save(*std::make_unique<SQLitePhotoLibrary>(files, dispatch, root, SQLitePhotoLibrary::Access::readWrite),
       directory / "clip.mp4");
  const pid_t child = fork();
  if (child == 0) {
    sqlite3* database = nullptr;
    sqlite3_open((root / ".catalogue.sqlite").c_str(), &database);
    // A tiny cache makes SQLite write into the file before the commit.
    sqlite3_exec(database,
                 "PRAGMA cache_size = 1; BEGIN; DELETE FROM entries; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL "
                 "SELECT i + 1 FROM n WHERE i < 5000) INSERT INTO albums SELECT NULL, i, 'junk', i FROM n;",
                 nullptr, nullptr, nullptr);
    kill(getpid(), SIGKILL);
  }
  waitpid(child, nullptr, 0);
  ASSERT_GT(std::filesystem::file_size(root / ".catalogue.sqlite-journal"), 0u);
  SQLitePhotoLibrary reader(files, dispatch, root, SQLitePhotoLibrary::Access::readOnly);
  EXPECT_EQ(reader.fetchAssetCollections(std::nullopt).size(), 1u);
  EXPECT_EQ(reader.fetchAllAssets().at(0).path, root / "Trips/clip.mp4");
}

}  // namespace
}  // namespace tarn
