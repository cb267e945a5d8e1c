#include <tarn/engine.h>

#include <algorithm>
#include <csignal>
#include <map>

#include "app/CommandTest.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"
#include "platform/memory/ManualDispatch.h"

// The commands of the library, over a real home.

namespace tarn::test {
namespace {

class LibraryTest : public CommandTest {
 protected:
  /// Puts a video into an album, as an earlier save did; returns its identifier.
  std::string keep(const std::string& album, const std::string& filename, const std::string& content) {
    PosixFileManager files(home_);
    ManualDispatch dispatch;
    SQLitePhotoLibrary photos(files, dispatch, home_ / "Photos", SQLitePhotoLibrary::Access::readWrite);
    const Path source = put(place_ / filename, content);
    std::string id;
    photos.performChangesAndWait([&](PHChangeBlock& block) {
      const auto asset = block.creationRequestForAssetFromVideo(source)->placeholderForCreatedAsset();
      std::string& target = albums_[album];
      if (target.empty()) target = block.creationRequestForAssetCollection(album)->localIdentifier;
      block.addAssets(target, {*asset});
      id = asset->localIdentifier;
    });
    fs::remove(source);
    return id;
  }

  TarnResult expect(int code, std::vector<std::string> arguments, const std::string& words = "") const {
    arguments.insert(arguments.begin(), "library");
    return CommandTest::expect(code, arguments, words);
  }

  void expectDone(const std::vector<std::string>& arguments, const std::vector<std::string>& files) const {
    expect(0, arguments);
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

  const auto ambiguous = expect(1, {"rename", "clip.mp4", "sea"}, "more than one video");
  EXPECT_THAT(ambiguous.errors, HasSubstr(first + "  Trips/clip.mp4"));
  EXPECT_THAT(ambiguous.errors, HasSubstr("Home/clip.mp4"));
  expect(1, {"remove", "Trips/clip.mp4", "none.mp4"}, "no video \"none.mp4\"");
  EXPECT_EQ(savedFiles(home_).size(), 4u) << "nothing is done unless all can be found";

  expectDone({"rename", "Trips/clip.mp4", "sea"},
             {"Home/clip.mp4", "Home/tea.mp4", "Trips/clip 2.mp4", "Trips/sea.mp4"});
  expectDone({"move", trips + "sea.mp4", "Home/tea.mp4", "--to", "New/album"},
             {"Home/clip.mp4", "New_album/sea.mp4", "New_album/tea.mp4", "Trips/clip 2.mp4"});
  expectDone({"remove", second, "sea.mp4"}, {"Home/clip.mp4", "New_album/tea.mp4"});
  expect(0, {"list", "--removed"}, second);
  expect(1, {"rename", second, "x"}, "no video");
  expectDone({"restore", second}, {"Home/clip.mp4", "New_album/tea.mp4", "Trips/clip 2.mp4"});
  expectDone({"remove", "--now", "sea.mp4", "tea.mp4"}, {"Home/clip.mp4", "Trips/clip 2.mp4"});
  EXPECT_EQ(assetFiles(home_), 2u);
  expect(1, {"restore", "sea.mp4"});

  expect(0, {"--json", "--album", "Trips"}, "\"path\":\"" + trips + "clip 2.mp4\"");
}

TEST_F(LibraryTest, AnEmptyOneSaysHowItIsFilled) {
  const std::pair<const char*, int> rows[] = {
      {"library", 0}, {"library list", 0}, {"library --album Trips", 1}, {"library open", 1}, {"library remove x", 1}};
  for (const auto& [line, code] : rows) {
    const auto result = CommandTest::expect(code, words(line));
    EXPECT_EQ(result.output, "");
    EXPECT_THAT(result.errors, testing::AnyOf(HasSubstr("tarn save URL"), HasSubstr("`tarn library` lists all")));
  }
}

TEST_F(LibraryTest, ExportsCopyWholeFilesAndReplaceNoneUnasked) {
  const std::string first = keep("Trips", "clip.mp4", "first");
  const std::string second = keep("Home", "clip.mp4", "second");
  const Path target = place_ / "out";
  const auto exported = [&](const std::string& name) { return contentOf(target / name); };

  expect(0, {"export", target, first, second});
  EXPECT_EQ(exported("clip.mp4") + exported("clip 2.mp4"), "firstsecond");
  expect(0, {"export", target});
  EXPECT_EQ(exported("Trips/clip.mp4") + exported("Home/clip.mp4"), "firstsecond");

  put(target / "clip.mp4", "the user's");
  expect(1, {"export", target, "--album", "Home"}, "--force");
  EXPECT_EQ(exported("clip.mp4"), "the user's");
  expect(0, {"export", target, "--album", "Home", "--force"});
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
  EXPECT_EQ(expect(0, {"open"}).lastLine(), home_ / "Photos");
  EXPECT_EQ(expect(0, {"open", "clip.mp4"}).lastLine(), home_ / "Photos/Trips/clip.mp4");

  const Path program = put(place_ / "bin/xdg-open", "#!/bin/sh\necho \"$1\" >'" + (place_ / "told").string() + "'\n");
  fs::permissions(program, fs::perms::owner_all);
  std::vector<std::string> command{"/usr/bin/env", "DISPLAY=:0", "PATH=" + (place_ / "bin").string()};
  std::ranges::copy(tarnCommand(home_, {"library", "open"}), std::back_inserter(command));
  const TarnResult shown = ended(startOther(command));
  EXPECT_EQ(shown.output, "") << shown.errors;
  EXPECT_EQ(contentOf(place_ / "told"), (home_ / "Photos").string() + "\n");
}

// The engine of the home makes the change, whichever process that is.
TEST_F(LibraryTest, ChangesGoThroughTheEngineOfAnotherProcess) {
  keep("Trips", "clip.mp4", contentOf(encodedVideo({})));
  put(place_ / "web/index.html", "<!doctype html>");
  const Child server = start({"serve", "--web", place_ / "web"});
  ASSERT_TRUE(eventually([&] { return server->output().ends_with('\n'); })) << server->errors();
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
#ifndef TARN_SANITIZED  // a sanitizer makes calls of the kernel that the program for posters has given up
    ASSERT_TRUE(poster);
    EXPECT_EQ(contentOf(*poster).substr(0, 2), "\xFF\xD8");
#endif
    EXPECT_FALSE(engine.changeAsset({.assetId = id, .action = AssetChange::Action::erase}));
    EXPECT_FALSE(poster && fs::exists(*poster));
    EXPECT_FALSE(engine.poster(id));
  }
  server->signal(SIGTERM);
  EXPECT_EQ(server->wait(), 130);
}

/// A user with a desktop, whose home is the default one.
class AlbumsLinkTest : public CommandTest {
 protected:
  AlbumsLinkTest() {
    server_.serve("/clip.mp4", ServedFile::of(recording()));
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
  fs::create_directory_symlink("/nowhere", link_);
  save();
  EXPECT_EQ(fs::read_symlink(link_), "/nowhere") << "what the user has under that name stays";
  fs::remove(link_);
  fs::remove_all(user_ / ".local");
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

}  // namespace
}  // namespace tarn::test
