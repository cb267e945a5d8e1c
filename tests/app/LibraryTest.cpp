#include <tarn/engine.h>

#include <csignal>
#include <map>

#include "app/CommandTest.h"
#include "platform/JSObject.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"

// The commands of the library, over a real home.

namespace tarn::test {
namespace {

/// A sanitizer makes calls of the kernel that the program for posters has given up.
#ifdef TARN_SANITIZED
constexpr bool mustHavePosters = false;
#else
constexpr bool mustHavePosters = true;
#endif

class LibraryTest : public CommandTest {
 protected:
  /// Puts a video into an album, as an earlier save did; returns its identifier.
  std::string keep(const std::string& album, const std::string& filename, const std::string& content) {
    PosixFileManager files(home_);
    ManualDispatch dispatch;
    SQLitePhotoLibrary photos(files, dispatch, home_ / "Photos", SQLitePhotoLibrary::Access::readWrite);
    std::ofstream(place_ / filename) << content;
    std::string id;
    photos.performChangesAndWait([&](PHChangeBlock& block) {
      const auto asset = block.creationRequestForAssetFromVideo(place_ / filename)->placeholderForCreatedAsset();
      std::string& target = albums_[album];
      if (target.empty()) target = block.creationRequestForAssetCollection(album)->localIdentifier;
      block.addAssets(target, {*asset});
      id = asset->localIdentifier;
    });
    fs::remove(place_ / filename);
    return id;
  }

  TarnResult library(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "library");
    return run(arguments);
  }

  void expectDone(const std::vector<std::string>& arguments, const std::vector<std::string>& files) {
    const auto result = library(arguments);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(savedFiles(home_), files);
  }

  std::map<std::string, std::string> albums_;  ///< titles and identifiers
};

TEST_F(LibraryTest, VideosAreFoundByEachOfTheirNamesAndChanged) {
  const std::string first = keep("Trips", "clip.mp4", "first");
  const std::string second = keep("Trips", "clip.mp4", "second");
  keep("Home", "clip.mp4", "third");
  keep("Home", "tea.mp4", "fourth");
  const std::string trips = (home_ / "Photos/Trips").string() + "/";

  const auto ambiguous = library({"rename", "clip.mp4", "sea"});
  EXPECT_EQ(ambiguous.exitCode, 1);
  EXPECT_THAT(ambiguous.errors, HasSubstr("more than one video"));
  EXPECT_THAT(ambiguous.errors, HasSubstr(first + "  Trips/clip.mp4"));
  EXPECT_THAT(ambiguous.errors, HasSubstr("Home/clip.mp4"));
  EXPECT_THAT(library({"remove", "Trips/clip.mp4", "none.mp4"}).errors, HasSubstr("no video \"none.mp4\""));
  EXPECT_EQ(savedFiles(home_).size(), 4u) << "nothing is done unless all can be found";

  expectDone({"rename", "Trips/clip.mp4", "sea"},
             {"Home/clip.mp4", "Home/tea.mp4", "Trips/clip 2.mp4", "Trips/sea.mp4"});
  expectDone({"move", trips + "sea.mp4", "Home/tea.mp4", "--to", "New/album"},
             {"Home/clip.mp4", "New_album/sea.mp4", "New_album/tea.mp4", "Trips/clip 2.mp4"});
  expectDone({"remove", second, "sea.mp4"}, {"Home/clip.mp4", "New_album/tea.mp4"});
  EXPECT_THAT(library({"list", "--removed"}).output, HasSubstr(second));
  EXPECT_THAT(library({"rename", second, "x"}).errors, HasSubstr("no video"));
  expectDone({"restore", second}, {"Home/clip.mp4", "New_album/tea.mp4", "Trips/clip 2.mp4"});
  expectDone({"remove", "--now", "sea.mp4", "tea.mp4"}, {"Home/clip.mp4", "Trips/clip 2.mp4"});
  EXPECT_EQ(assetFiles(home_), 2u);
  EXPECT_EQ(library({"restore", "sea.mp4"}).exitCode, 1);

  const auto list = library({"--json", "--album", "Trips"});
  const auto asset = JSObject::parse(list.lastLine());
  ASSERT_TRUE(asset) << list.output;
  EXPECT_EQ(valueAt<std::string>(*asset, "assetId", ""), second);
  EXPECT_EQ(valueAt<std::string>(*asset, "filename", ""), "clip 2.mp4");
  EXPECT_EQ(valueAt<std::string>(*asset, "path", ""), trips + "clip 2.mp4");
  EXPECT_EQ(valueAt<int64_t>(*asset, "size", 0), 6);
}

TEST_F(LibraryTest, AnEmptyOneSaysHowItIsFilled) {
  for (const auto& [arguments, isFound] : std::vector<std::pair<std::vector<std::string>, bool>>{
           {{}, true}, {{"list"}, true}, {{"--album", "Trips"}, false}, {{"open"}, false}, {{"remove", "x"}, false}}) {
    const auto result = library(arguments);
    EXPECT_EQ(result.exitCode, isFound ? 0 : 1) << testing::PrintToString(arguments);
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, testing::AnyOf(HasSubstr("tarn save URL"), HasSubstr("`tarn library` lists all")));
  }
}

TEST_F(LibraryTest, ExportsCopyWholeFilesAndReplaceNoneUnasked) {
  const std::string first = keep("Trips", "clip.mp4", "first");
  const std::string second = keep("Home", "clip.mp4", "second");
  const Path target = place_ / "out";
  const auto exported = [&](const std::string& name) { return contentOf(target / name); };

  EXPECT_EQ(library({"export", target, first, second}).exitCode, 0);
  EXPECT_EQ(exported("clip.mp4") + exported("clip 2.mp4"), "firstsecond");
  EXPECT_EQ(library({"export", target}).exitCode, 0);
  EXPECT_EQ(exported("Trips/clip.mp4") + exported("Home/clip.mp4"), "firstsecond");

  std::ofstream(target / "clip.mp4") << "the user's";
  const auto refused = library({"export", target, "--album", "Home"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_THAT(refused.errors, HasSubstr("--force"));
  EXPECT_EQ(exported("clip.mp4"), "the user's");
  EXPECT_EQ(library({"export", target, "--album", "Home", "--force"}).exitCode, 0);
  EXPECT_EQ(exported("clip.mp4"), "second");
  EXPECT_EQ(std::distance(fs::directory_iterator(target), fs::directory_iterator()), 4) << "and nothing else is there";

  // What is done with a copy does nothing to the library.
  std::ofstream(target / "clip 2.mp4") << "changed";
  EXPECT_EQ(contentOf(home_ / "Photos/Home/clip.mp4"), "second");
}

TEST_F(LibraryTest, OpenShowsThePathOnTheDesktopOrPrintsIt) {
  keep("Trips", "clip.mp4", "first");
  ::unsetenv("DISPLAY");
  ::unsetenv("WAYLAND_DISPLAY");
  EXPECT_EQ(library({"open"}).lastLine(), home_ / "Photos");
  EXPECT_EQ(library({"open", "clip.mp4"}).lastLine(), home_ / "Photos/Trips/clip.mp4");

  const Path program = place_ / "programs/xdg-open";
  fs::create_directories(program.parent_path());
  std::ofstream(program) << "#!/bin/sh\necho \"$1\" >'" << (place_ / "told").string() << "'\n";
  fs::permissions(program, fs::perms::owner_all);
  const std::string path = std::getenv("PATH");
  ::setenv("DISPLAY", ":0", 1);
  ::setenv("PATH", program.parent_path().c_str(), 1);
  const auto shown = library({"open"});
  ::setenv("PATH", path.c_str(), 1);
  ::unsetenv("DISPLAY");
  EXPECT_EQ(shown.output, "") << shown.errors;
  EXPECT_EQ(contentOf(place_ / "told"), (home_ / "Photos").string() + "\n");
}

// The engine of the home makes the change, whichever process that is.
TEST_F(LibraryTest, ChangesGoThroughTheEngineOfAnotherProcess) {
  keep("Trips", "clip.mp4", contentOf(encodedVideo({})));
  put(place_ / "web/index.html", "<!doctype html>");
  ChildProgram server(tarnCommand(home_, {"serve", "--web", place_ / "web"}), place_.path());
  ASSERT_TRUE(eventually([&] { return server.output().find("token") != std::string::npos; })) << server.errors();
  expectDone({"rename", "clip.mp4", "sea.mp4"}, {"Trips/sea.mp4"});
  expectDone({"remove", "sea.mp4"}, {});

  // An application uses it too, and the engine finds the program for posters by itself.
  {
    Engine engine({.home = home_});
    engine.open();
    ASSERT_EQ(engine.removedAssets().size(), 1u);
    const std::string id = engine.removedAssets()[0].assetId;
    EXPECT_TRUE(engine.library().empty());
    EXPECT_EQ(engine.changeAsset({.assetId = id, .action = AssetChange::Action::restore})->filename, "sea.mp4");
    EXPECT_EQ(engine.library("Trips").at(0).assets.at(0).path, home_ / "Photos/Trips/sea.mp4");
    EXPECT_TRUE(engine.library("Trip").empty());
    EXPECT_THROW(engine.changeAsset({.assetId = "none"}), EngineRefused);
    const auto poster = engine.poster(id);
    ASSERT_TRUE(poster || !mustHavePosters);
    if (poster) {
      EXPECT_EQ(contentOf(*poster).substr(0, 2), "\xFF\xD8");
    }
    EXPECT_FALSE(engine.changeAsset({.assetId = id, .action = AssetChange::Action::erase}));
    EXPECT_FALSE(poster && fs::exists(*poster));
    EXPECT_FALSE(engine.poster(id));
  }
  server.signal(SIGTERM);
  EXPECT_EQ(server.wait(), 130);
}

/// A user with a desktop, whose home is the default one.
class AlbumsLinkTest : public LibraryTest {
 protected:
  AlbumsLinkTest() {
    server_.serve("/clip.mp4", ServedFile::of(damagedMovie("avc3 with avcC")));
    fs::create_directories(user_ / ".config");
    fs::create_directories(user_ / "My Videos");
    nameVideos("\"$HOME/My \\Videos/\"");
  }

  void nameVideos(const std::string& value) {
    std::ofstream(user_ / ".config/user-dirs.dirs")
        << "# comment\nXDG_MUSIC_DIR=\"$HOME/Music\"\n XDG_VIDEOS_DIR=" << value << "\n";
  }

  void save(const std::vector<std::string>& more = {}) {
    const std::string tarn = tarnCommand(home_, {})[0];
    std::vector<std::string> command{
        "/usr/bin/env", "-i", "HOME=" + user_.string(), tarn, "save", server_.url("/clip.mp4"), "--album", "Trips"};
    command.insert(command.end(), more.begin(), more.end());
    const auto saved = ended(startOther(command));
    EXPECT_EQ(saved.exitCode, 0) << saved.errors;
  }

  const Path user_ = place_ / "user";
  const Path link_ = user_ / "My Videos/Tarn";
};

TEST_F(AlbumsLinkTest, TheFirstSaveOfTheDefaultHomeShowsTheAlbumsAmongTheVideos) {
  save({"--home", home_});
  EXPECT_FALSE(fs::exists(fs::symlink_status(link_))) << "another home";
  nameVideos("\"$HOME\"");
  save();
  nameVideos("\"$HOME/My \\Videos/\"");
  save();
  EXPECT_TRUE(fs::is_regular_file(link_ / "Trips/clip.mp4"));
  EXPECT_EQ(fs::read_symlink(link_), user_ / ".local/share/tarn/Photos");
  EXPECT_FALSE(fs::exists(user_ / "Tarn"));
  fs::remove(link_);
  save();
  EXPECT_FALSE(fs::exists(fs::symlink_status(link_))) << "the user has removed it";
}

TEST_F(AlbumsLinkTest, WhatTheUserHasUnderThatNameStays) {
  fs::create_directory_symlink("/nowhere", link_);
  save();
  EXPECT_EQ(fs::read_symlink(link_), "/nowhere");
}

}  // namespace
}  // namespace tarn::test
