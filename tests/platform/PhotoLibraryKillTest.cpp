#include <fmt/format.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>

#include "PhotoChanges.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"
#include "support/FaultyFileManager.h"
#include "support/TarnProcess.h"
#include "support/TempDirectory.h"

namespace tarn::test {
namespace {

using testing::UnorderedElementsAre;

/// All that a save does to the library: asset, album, entry, each a change of its own.
void save(PHPhotoLibrary& library, const Path& source) {
  const std::string asset = makeAsset(library, source);
  const auto albums = library.fetchAssetCollections("Trips");
  join(library, albums.empty() ? makeAlbum(library, "Trips") : albums.front().localIdentifier, {{asset}});
}

/// The moments before (odd numbers) and after (even numbers) each operation on files.
Fault at(size_t moment, std::function<void()> strike = {}) {
  const auto effect = moment % 2 == 1 ? Fault::Effect::none : Fault::Effect::whole;
  return {.call = (moment + 1) / 2, .errnum = ENOSPC, .effect = effect, .strike = std::move(strike)};
}

/// Runs the work in a process of its own; true when it was killed.
bool isKilled(const std::function<void()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    work();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFSIGNALED(status) ? WTERMSIG(status) == SIGKILL : WEXITSTATUS(status) == 0);
  return WIFSIGNALED(status);
}

/// In memory, if that is there: no power is cut here, and a disk would take its time for each flush.
Path fastDirectory() {
  const Path memory = "/dev/shm";
  return std::filesystem::exists(memory) ? memory : std::filesystem::temp_directory_path();
}

void die() {
  kill(getpid(), SIGKILL);
}

class PhotoLibraryKillTest : public testing::TestWithParam<bool> {
 protected:
  struct Home {
    explicit Home(bool links) : seen(links ? static_cast<FileManager&>(files) : noLinks) {
      std::filesystem::create_directories(root / "Trips");
      std::ofstream(source) << "video";
      // The user's own files, one of them under the name that the video would like to have.
      std::ofstream(root / "Trips/clip.mp4") << "the user's";
      std::ofstream(root / "Trips/note") << "the user's";
    }

    using Access = SQLitePhotoLibrary::Access;
    std::unique_ptr<SQLitePhotoLibrary> open(Access access = Access::readWrite) {
      return std::make_unique<SQLitePhotoLibrary>(seen, dispatch, root, access);
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
      ASSERT_EQ(contents(library), "Trips: clip.mp4\nall: clip.mp4\n");
      const PHAsset asset = library.fetchAllAssets()[0];
      EXPECT_EQ(asset.path, root / "Trips/clip 2.mp4");
      EXPECT_EQ(std::filesystem::file_size(asset.path), 5u);
      EXPECT_EQ(std::filesystem::file_size(root / ".assets" / asset.localIdentifier), 5u);
      EXPECT_EQ(std::filesystem::file_size(root / "Trips/clip.mp4"), 10u);
      EXPECT_THAT(filesBeside(asset.localIdentifier),
                  UnorderedElementsAre(".catalogue.sqlite", "Trips/clip.mp4", "Trips/note", "Trips/clip 2.mp4"));
    }

    /// The asset at the one place or the other, at the other if that is sure, or gone or deleted if that is empty.
    void expectOnce(const std::string& asset, const std::string& before, const std::string& after, bool isAfter) {
      const auto library = open();
      const auto assets = library->fetchAllAssets();
      const auto deleted = library->fetchDeletedAssets();
      std::vector<std::string> expected{".catalogue.sqlite", "Trips/clip.mp4", "Trips/note"};
      if (!assets.empty()) {
        const std::string place = assets[0].path.lexically_relative(root);
        EXPECT_TRUE(place == after || (place == before && !isAfter)) << place;
        EXPECT_EQ(contentOf(root / place), "video");
        expected.push_back(place);
      } else if (after.empty() || !isAfter) {
        EXPECT_TRUE(after.empty() || deleted.size() == 1) << "lost";
      } else {
        ADD_FAILURE() << "lost";
      }
      EXPECT_EQ(std::filesystem::exists(root / ".assets" / asset), assets.size() + deleted.size() == 1);
      EXPECT_THAT(filesBeside(asset), testing::UnorderedElementsAreArray(expected));
      if (deleted.empty()) return;
      change(*library, &PHChangeBlock::recoverAssets, asset);
      EXPECT_EQ(contentOf(root / before), "video") << "it can be recovered";
    }

    TempDirectory directory{fastDirectory()};
    const Path root = directory / "Photos";
    const Path source = directory / "clip.mp4";
    ManualDispatch dispatch;
    PosixFileManager posix{directory.path()};
    FaultyFileManager files{posix};
    NoLinks noLinks{files};
    FileManager& seen;  ///< by the library
  };
};

INSTANTIATE_TEST_SUITE_P(LinkedAndCopied, PhotoLibraryKillTest, testing::Bool());

// A real kill -9 at every moment of opening and saving, and a second one at every tenth moment of the clearing up.
TEST_P(PhotoLibraryKillTest, AKillAtAnyMomentAndARetryGiveTheAssetOnce) {
  size_t moment = 1;
  for (bool finished = false; !finished; ++moment) {
    SCOPED_TRACE(moment);
    Home home(GetParam());
    const auto killedAt = [&](size_t death) {
      home.files.arm(at(death, die));
      const bool killed = isKilled([&] { save(*home.open(), home.source); });
      home.files.disarm();
      return killed;
    };
    finished = !killedAt(moment);
    if (!finished) killedAt(1 + moment % 10);
    const auto library = home.open();
    save(*library, home.source);
    home.expectSavedOnce(*library);
    if (HasFailure()) return;
  }
  EXPECT_GT(moment, 20u);
}

// The same moments as failures: the change tells of it, has left nothing when it returns, and can be asked for again.
TEST_P(PhotoLibraryKillTest, AFailureAtAnyMomentLeavesNothingOfItsChange) {
  for (size_t moment = 1;; ++moment) {
    SCOPED_TRACE(moment);
    Home home(GetParam());
    const auto library = home.open();
    home.files.arm(at(moment));
    bool failed = false;
    try {
      save(*library, home.source);
    } catch (const PosixError& error) {
      failed = error.code() == ENOSPC;
    }
    ASSERT_EQ(failed, home.files.fired());
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

/// An asset in one album, under the name of its own, and what is done with it.
struct Handling {
  std::string name;
  std::string after;  ///< the place in the end; empty for an asset that is gone
  std::function<void(PHPhotoLibrary& library, const std::string& asset)> work;
};

const std::vector<Handling>& handlings() {
  const auto album = [](PHPhotoLibrary& library, const char* title) {
    return library.fetchAssetCollections(title).at(0).localIdentifier;
  };
  static const std::vector<Handling> all = {
      {"renamed", "Trips/other.mp4", [](auto& library, auto& asset) { rename(library, asset, "other.mp4"); }},
      {"moved", "Home/clip.mp4",
       [album](auto& library, auto& asset) { move(library, asset, album(library, "Trips"), album(library, "Home")); }},
      {"expunged", "",
       [](auto& library, auto& asset) {
         change(library, &PHChangeBlock::deleteAssets, asset);
         change(library, &PHChangeBlock::expungeAssets, asset);
       }},
      {"recovered", "Trips/clip 2.mp4",
       [](auto& library, auto& asset) {
         change(library, &PHChangeBlock::deleteAssets, asset);
         change(library, &PHChangeBlock::recoverAssets, asset);
       }},
  };
  return all;
}

// At every moment a real kill or a failure: then the asset is where it was or where it shall be, once and whole, and no
// file belongs to nobody.
TEST_P(PhotoLibraryKillTest, AKillOrAFailureLeavesAnAssetWhereItWasOrWhereItShallBe) {
  for (const Handling& handling : handlings()) {
    size_t moment = 1;
    for (bool finished = false; !finished && !HasFailure(); ++moment) {
      for (const bool kills : {true, false}) {
        SCOPED_TRACE(fmt::format("{} {} {}", handling.name, kills ? "killed" : "failed", moment));
        Home home(GetParam());
        std::string asset;
        {
          const auto library = home.open();
          makeAlbum(*library, "Home");
          save(*library, home.source);
          asset = library->fetchAllAssets()[0].localIdentifier;
        }
        bool isDone = false;
        if (kills) {
          home.files.arm(at(moment, die));
          isDone = finished = !isKilled([&] { handling.work(*home.open(), asset); });
          home.files.disarm();
        } else {
          const auto library = home.open();
          home.files.arm(at(moment));
          try {
            handling.work(*library, asset);
            isDone = true;
          } catch (const PosixError&) {
            isDone = false;
          }
          home.files.disarm();
        }
        home.expectOnce(asset, "Trips/clip 2.mp4", handling.after, isDone);
      }
    }
    EXPECT_GT(moment, 4u) << handling.name;
  }
}

// What stands under a name that an unfinished change had meant to use is the user's when it is another file.
TEST_P(PhotoLibraryKillTest, AFileOfTheUserUnderAnIntendedNameStays) {
  Home home(GetParam());
  home.open().reset();
  const auto own = home.files.attributes(home.root / "Trips/note").value();
  executeSQL(home.root,
             fmt::format("INSERT INTO intended_links VALUES ('Trips', 'clip.mp4', {}, {})", own.device, own.inode));
  save(*home.open(), home.source);
  home.expectSavedOnce(*home.open());
}

// A kill in the middle of SQLite's commit leaves a journal that the next one to open must roll back: a reader too.
TEST_P(PhotoLibraryKillTest, AReaderAfterAKillInMidCommitSeesTheLastCommit) {
  Home home(GetParam());
  save(*home.open(), home.source);
  EXPECT_TRUE(isKilled([&] {
    // A tiny cache makes SQLite write into the file before the commit.
    executeSQL(home.root,
               "PRAGMA cache_size = 1; BEGIN; DELETE FROM entries; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL "
               "SELECT i + 1 FROM n WHERE i < 5000) INSERT INTO albums SELECT NULL, i, 'junk', i FROM n;",
               die);
  }));
  ASSERT_GT(std::filesystem::file_size(home.root / ".catalogue.sqlite-journal"), 0u);
  home.expectSavedOnce(*home.open(Home::Access::readOnly));
}

}  // namespace
}  // namespace tarn::test
