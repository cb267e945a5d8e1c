#include <fmt/format.h>
#include <tarn/library.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <memory>
#include <set>

#include "app/CommandEngine.h"
#include "app/Commands.h"
#include "app/FailureReport.h"
#include "app/Interrupt.h"
#include "app/LibraryExport.h"
#include "app/LibraryNames.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "engine/Home.h"
#include "engine/Library.h"
#include "engine/LibraryJSON.h"
#include "platform/DateText.h"
#include "platform/SafeName.h"
#include "platform/host/AsioDispatch.h"
#include "platform/host/Desktop.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"

namespace tarn {
namespace {

constexpr const char* videoHelp = "Its path, \"Album/file name\", its file name or its assetId";

struct LibraryOptions {
  std::optional<std::string> album = {};
  std::string video = {};
  std::vector<std::string> names = {};
  std::string to = {};
  bool removed = false;  ///< lists what can be restored
  bool forGood = false;
  bool force = false;
};

/// The library as it stands on the disk: whoever lists it need not be the engine, nor wait for it.
class StoredLibrary {
 public:
  explicit StoredLibrary(const GlobalOptions& global)
      : home_(homeDirectory(global.home)),
        files_(home_),
        photos_(files_, dispatch_, root(), SQLitePhotoLibrary::Access::readOnly),
        library_(photos_) {}

  Path root() const { return home_ / "Photos"; }
  PosixFileManager& files() { return files_; }
  Library& library() { return library_; }

  /// The albums, or the one that is asked for. Throws Error when there is none of this title.
  std::vector<LibraryAlbum> albums(const std::optional<std::string>& title) {
    if (title && !library_.hasAlbum(*title)) {
      throw Error("Library", -1, fmt::format("There is no album \"{}\". `tarn library` lists all.", *title));
    }
    return library_.albums(title);
  }

 private:
  const Path home_;
  PosixFileManager files_;
  AsioDispatch dispatch_;
  SQLitePhotoLibrary photos_;
  Library library_;
};

/// A video of an album, or one that was removed.
JSObject assetObject(const std::optional<std::string>& album, const LibraryAsset& asset) {
  JSObject object = jsonOf(asset);
  album ? object.set("album", *album) : object.set("removed", true);
  return object;
}

void printAlbum(const GlobalOptions& global, const LibraryAlbum& album) {
  if (!global.json) printLine(fmt::format("{} ({})", album.title, album.assets.size()));
  for (const LibraryAsset& asset : album.assets) {
    if (global.json) {
      printJSON(assetObject(album.title, asset));
    } else {
      printLine(fmt::format("  {}  {}  {}", dateText(asset.created), byteText(static_cast<double>(asset.size)),
                            asset.path.string()));
    }
  }
}

int listCommand(const GlobalOptions& global, const LibraryOptions& options) {
  const InterruptWatcher watcher = endAtInterrupt(global);
  StoredLibrary stored(global);
  if (options.removed) {
    const auto removed = stored.library().removed();
    for (const LibraryAsset& asset : removed) {
      global.json ? printJSON(assetObject(std::nullopt, asset))
                  : printLine(fmt::format("{}  {}  {}", asset.assetId, byteText(static_cast<double>(asset.size)),
                                          asset.filename));
    }
    if (removed.empty() && !global.json) printNote("No removed video is left to be restored.");
    return ExitCode::done;
  }
  const auto albums = stored.albums(options.album);
  for (const LibraryAlbum& album : albums) printAlbum(global, album);
  if (albums.empty() && !global.json) {
    printNote(fmt::format("{} no videos. `tarn save URL` puts one into an album.",
                          options.album ? "The album has" : "The library has"));
  }
  return ExitCode::done;
}

const char* resultOf(AssetChange::Action action) {
  using enum AssetChange::Action;
  switch (action) {
    case remove:
      return "removed";
    case erase:
      return "erased";
    case restore:
      return "restored";
    case rename:
      return "renamed";
    case move:
      return "moved";
  }
  return "";
}

/// Does the same to all that are named, by the engine of the home, so that nobody else changes the library meanwhile.
class ChangeCommand {
 public:
  ChangeCommand(const GlobalOptions& global, const LibraryOptions& options) : global_(global), options_(options) {}

  int run(AssetChange::Action action) {
    CommandEngine command(global_);
    return command.leave(changeAll(command.engine(), action));
  }

 private:
  int changeAll(Engine& engine, AssetChange::Action action) {
    auto names = options_.names;
    if (!options_.video.empty()) names.push_back(options_.video);
    for (const LibraryAsset& asset : videosNamed(candidates(engine, action), names)) {
      AssetChange change{.assetId = asset.assetId, .action = action};
      change.filename = change.album = options_.to;
      report(asset, action, engine.changeAsset(change));
    }
    return ExitCode::done;
  }

  /// What can be named: the albums, and what was removed where that helps.
  static std::vector<LibraryAlbum> candidates(Engine& engine, AssetChange::Action action) {
    std::vector<LibraryAlbum> albums;
    if (action != AssetChange::Action::restore) albums = engine.library();
    if (action == AssetChange::Action::restore || action == AssetChange::Action::erase) {
      albums.push_back({"removed", engine.removedAssets()});
    }
    return albums;
  }

  void report(const LibraryAsset& before, AssetChange::Action action, const std::optional<LibraryAsset>& after) {
    using enum AssetChange::Action;
    const bool isGone = action == remove || action == erase;
    if (global_.json) {
      const JSObject asset = jsonOf(after.value_or(before));
      JSObject object{{"result", resultOf(action)}};
      for (const auto& [name, value] : asset.members()) {
        if (!isGone || name != "path") object.set(name, value);
      }
      printJSON(object);
    } else if (action == remove) {
      printLine(fmt::format("{} is removed. For 24 hours `tarn library restore {}` brings it back.", before.filename,
                            before.assetId));
    } else if (action == erase) {
      printLine(fmt::format("{} is removed for good.", before.filename));
    } else {
      printPath(after ? after->path : before.path);
    }
  }

  const GlobalOptions& global_;
  const LibraryOptions& options_;
};

/// Copies videos into a folder: those that are named, an album, or all albums, each into a folder of its own then.
class ExportCommand {
 public:
  ExportCommand(const GlobalOptions& global, const LibraryOptions& options)
      : global_(global), options_(options), stored_(global), watcher_([this] {
          isStopped_ = true;
          return true;
        }) {}

  int run() {
    const Path target = absolutePath(options_.to);
    auto albums = stored_.albums(options_.album);
    if (!options_.names.empty()) albums = {LibraryAlbum{.title = "", .assets = videosNamed(albums, options_.names)}};
    size_t videos = 0;
    for (const LibraryAlbum& album : albums) videos += album.assets.size();
    isSeveral_ = videos > 1;
    int code = ExitCode::done;
    const bool isOneFolder = options_.album || !options_.names.empty();
    for (const LibraryAlbum& album : albums) {
      const Path folder = isOneFolder ? target : target / safeName(album.title, NameKind::directory);
      code = std::max(code, exportAll(album, folder));
      if (isStopped_) break;
    }
    if (!isStopped_) return code;
    return reportInterrupt(global_, "the copies that are there are whole.");
  }

 private:
  int exportAll(const LibraryAlbum& album, const Path& folder) {
    stored_.files().createDirectory(folder);
    std::set<std::string> taken;  // two videos of one name, of two albums
    int code = ExitCode::done;
    for (const LibraryAsset& asset : album.assets) {
      const std::string name = uniqueName(asset.filename, NameKind::file, taken);
      taken.insert(name);
      try {
        const auto isStopped = [this] { return isStopped_.load(); };
        if (!exportFile(stored_.files(), asset.path, folder / name, options_.force, isStopped)) return code;
        if (global_.json) {
          printJSON({{"result", "exported"}, {"assetId", asset.assetId}, {"path", (folder / name).string()}});
        } else {
          printPath(folder / name);
        }
      } catch (const Error&) {
        const int failure = reportFailure(global_, std::current_exception(), {{"assetId", asset.assetId}});
        code = isSeveral_ ? ExitCode::failed : failure;
      }
    }
    return code;
  }

  const GlobalOptions& global_;
  const LibraryOptions& options_;
  StoredLibrary stored_;
  bool isSeveral_ = false;  ///< videos are to be copied
  std::atomic<bool> isStopped_ = false;
  InterruptWatcher watcher_;
};

int openCommand(const GlobalOptions& global, const LibraryOptions& options) {
  const InterruptWatcher watcher = endAtInterrupt(global);
  StoredLibrary stored(global);
  Path path = stored.root();
  if (!options.video.empty()) path = videoNamed(stored.albums({}), options.video).path;
  if (!stored.files().fileExists(path)) {
    throw Error("Library", -1, "The library has no videos yet. `tarn save URL` puts one into an album.");
  }
  const bool isShown = !global.json && showOnDesktop(path);
  if (global.json) printJSON({{"result", "found"}, {"path", path.string()}});
  if (!global.json && !isShown) printPath(path);
  return ExitCode::done;
}

}  // namespace

void addLibraryCommands(CommandTable& table) {
  const auto options = std::make_shared<LibraryOptions>();
  CLI::App* library = table.app.add_subcommand("library", "List the albums and what is in them, and change them");
  library->require_subcommand(0, 1);
  // The callback of `library` itself comes after that of its command.
  const auto choose = [&table, options](CLI::App* command, auto run) {
    command->callback([&table, options, run, command] {
      if (!command->get_subcommands().empty()) return;
      table.chosen = [&table, options, run] { return run(table.global, *options); };
    });
  };
  const auto addList = [&](CLI::App* command) {
    command->add_option("--album", options->album, "Only this album");
    command->add_flag("--removed", options->removed, "What was removed and can be restored");
    choose(command, listCommand);
  };
  const auto addNames = [&](CLI::App* command) { return command->add_option("VIDEO", options->names, videoHelp); };
  const auto addChange = [&](CLI::App* command, AssetChange::Action action) {
    choose(command, [action](const GlobalOptions& global, const LibraryOptions& given) {
      const bool erases = action == AssetChange::Action::remove && given.forGood;
      return ChangeCommand(global, given).run(erases ? AssetChange::Action::erase : action);
    });
  };

  CLI::App* list = library->add_subcommand("list", "List them");
  addList(library);
  addList(list);
  CLI::App* remove = library->add_subcommand("remove", "Remove videos; for 24 hours they can be restored");
  addNames(remove)->required();
  remove->add_flag("--now", options->forGood, "For good, and free their space at once");
  addChange(remove, AssetChange::Action::remove);
  CLI::App* restore = library->add_subcommand("restore", "Put removed videos back into their albums");
  addNames(restore)->required();
  addChange(restore, AssetChange::Action::restore);
  CLI::App* rename = library->add_subcommand("rename", "Give a video another file name");
  rename->add_option("VIDEO", options->video, videoHelp)->required();
  rename->add_option("NAME", options->to, "The new one; without an ending it keeps that of before")->required();
  addChange(rename, AssetChange::Action::rename);
  CLI::App* move = library->add_subcommand("move", "Move videos to another album");
  addNames(move)->required();
  move->add_option("--to", options->to, "The album; it is made if there is none of this name")->required();
  addChange(move, AssetChange::Action::move);

  CLI::App* exported = library->add_subcommand("export", "Copy videos into a folder: those named, an album, or all");
  exported->add_option("DIR", options->to, "The folder; it is made if it is missing")->required()->type_name("");
  addNames(exported);
  exported->add_option("--album", options->album, "All of this album");
  exported->add_flag("--force", options->force, "Replace files that are there");
  choose(exported,
         [](const GlobalOptions& global, const LibraryOptions& given) { return ExportCommand(global, given).run(); });
  CLI::App* open = library->add_subcommand("open", "Open a video, or the folder of the albums");
  open->add_option("VIDEO", options->video, videoHelp);
  choose(open, openCommand);
}

}  // namespace tarn
