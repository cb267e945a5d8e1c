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

    bool isKilledAt(size_t moment, const std::function<void()>& work) {
      files.arm(at(moment, die));
      const bool killed = isKilled(work);
      files.disarm();
      return killed;
    }

    /// Beside an empty album.
    std::string makeSavedOne() {
      const auto library = open();
      makeAlbum(*library, "Home");
      return save(*library, source);
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

    /// The asset is once at one of the places, or deleted, or gone, if those are among them, and no file is nobody's.
    void expectOnce(PHPhotoLibrary& library, const std::string& places) const {
      const auto assets = library.fetchAllAssets(), deleted = library.fetchDeletedAssets();
      ASSERT_LE(assets.size() + deleted.size(), 1u);
      std::string asset = "none", place = "gone";
      std::vector<std::string> expected{".catalogue.sqlite", "Trips/clip.mp4", "Trips/note"};
      if (!assets.empty()) {
        asset = assets[0].localIdentifier;
        place = assets[0].path.lexically_relative(root);
        EXPECT_EQ(contentOf(assets[0].path), "video");
        if (place == ".assets/" + asset) {
          place = "no album";
        } else {
          expected.push_back(place);
        }
      } else if (!deleted.empty()) {
        asset = deleted[0].localIdentifier;
        place = "deleted";
      }
      EXPECT_THAT(places, testing::HasSubstr(place));
      EXPECT_EQ(std::filesystem::exists(root / ".assets" / asset), asset != "none");
      EXPECT_THAT(filesBeside(asset), testing::UnorderedElementsAreArray(expected));
      if (deleted.empty()) return;
      change(library, &PHChangeBlock::recoverAssets, asset);
      EXPECT_EQ(contentOf(root / "Trips/clip 2.mp4"), "video") << "it can be recovered";
    }

    void expectSavedOnce(PHPhotoLibrary& library) const {
      EXPECT_EQ(contents(library), "Trips: clip.mp4\nall: clip.mp4\n");
      expectOnce(library, "Trips/clip 2.mp4");
      EXPECT_EQ(contentOf(root / "Trips/clip.mp4"), "the user's");
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

/// What is done with the library, and at which places its asset may be when that stopped in its middle, and at the end.
struct Handling {
  std::string name, between, after;
  std::function<void(PHPhotoLibrary& library, const std::string& asset)> work;
};

std::vector<Handling> handlings(const Path& source) {
  const std::string there = "Trips/clip 2.mp4";
  const auto album = [](PHPhotoLibrary& library, const char* title) {
    return library.fetchAssetCollections(title).at(0).localIdentifier;
  };
  const auto deleteIt = [](auto& library, auto& asset) { change(library, &PHChangeBlock::deleteAssets, asset); };
  return {
      {"saved", "gone, no album, ", there, [source](auto& library, auto&) { save(library, source); }},
      {"renamed", there, "Trips/other.mp4", [](auto& library, auto& asset) { rename(library, asset, "other.mp4"); }},
      {"moved", there, "Home/clip.mp4",
       [album](auto& library, auto& asset) { move(library, asset, album(library, "Trips"), album(library, "Home")); }},
      {"expunged", there + "deleted", "gone",
       [deleteIt](auto& library, auto& asset) {
         deleteIt(library, asset);
         change(library, &PHChangeBlock::expungeAssets, asset);
       }},
      {"recovered", there + "deleted", there,
       [deleteIt](auto& library, auto& asset) {
         deleteIt(library, asset);
         change(library, &PHChangeBlock::recoverAssets, asset);
       }},
  };
}

// At every moment a real kill -9, and a second one at every tenth moment of the clearing up; or a failure.
TEST_P(PhotoLibraryKillTest, AKillOrAFailureLeavesAnAssetWhereItWasOrWhereItShallBe) {
  for (size_t which = 0; which < handlings("").size(); ++which) {
    size_t moment = 1;
    for (bool finished = false; !finished && !HasFailure(); ++moment) {
      for (const bool kills : {true, false}) {
        Home home(GetParam());
        const auto [name, between, after, work] = handlings(home.source).at(which);
        SCOPED_TRACE(fmt::format("{} {} {}", name, kills ? "killed" : "failed", moment));
        const std::string asset = name == "saved" ? "" : home.makeSavedOne();
        std::unique_ptr<SQLitePhotoLibrary> library;
        bool isDone = false;
        if (kills) {
          isDone = finished = !home.isKilledAt(moment, [&, act = work] { act(*home.open(), asset); });
          if (!isDone) home.isKilledAt(1 + moment % 10, [&] { home.open(); });
        } else {
          library = home.open();
          home.files.arm(at(moment));
          try {
            work(*library, asset);
            isDone = true;
          } catch (const PosixError& error) {
            EXPECT_EQ(error.code(), ENOSPC);
          }
          EXPECT_TRUE(name != "saved" || isDone != home.files.fired());
          home.files.disarm();
        }
        // A save that failed has left nothing when it returns. An old name may stay until the library is opened again.
        if (kills || name != "saved") library.reset(), library = home.open();
        home.expectOnce(*library, isDone ? after : between + after);
        if (name != "saved") continue;
        save(*library, home.source);
        home.expectSavedOnce(*library);
      }
    }
    EXPECT_GT(moment, 4u);
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
