#include <fmt/chrono.h>
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <memory>

#include "app/Commands.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "engine/Home.h"
#include "platform/host/AsioDispatch.h"
#include "platform/host/PosixFileManager.h"
#include "platform/host/SQLitePhotoLibrary.h"

namespace tarn {
namespace {

std::string dateText(Date date) {
  return fmt::format("{:%FT%TZ}", fmt::gmtime(std::chrono::system_clock::to_time_t(date)));
}

void printAlbum(const GlobalOptions& global, PHPhotoLibrary& photos, const PHAssetCollection& album) {
  const auto assets = photos.fetchAssets(album, std::nullopt);
  if (!global.json) printLine(fmt::format("{} ({})", album.title, assets.size()));
  for (const PHAsset& asset : assets) {
    if (global.json) {
      printJSON({{"album", album.title},
                 {"assetId", asset.localIdentifier},
                 {"filename", asset.filename},
                 {"size", static_cast<int64_t>(asset.size)},
                 {"created", dateText(asset.creationDate)},
                 {"path", asset.path.string()}});
    } else {
      printLine(fmt::format("  {}  {}  {}", dateText(asset.creationDate), byteText(static_cast<double>(asset.size)),
                            asset.path.string()));
    }
  }
}

int libraryCommand(const GlobalOptions& global, const std::optional<std::string>& album) {
  const Path home = homeDirectory(global.home);
  PosixFileManager files(home);
  AsioDispatch dispatch;
  SQLitePhotoLibrary photos(files, dispatch, home / "Photos", SQLitePhotoLibrary::Access::readOnly);
  const auto albums = photos.fetchAssetCollections(album);
  if (album && albums.empty()) {
    printFailure(fmt::format("There is no album \"{}\". `tarn library` lists all.", *album));
    return ExitCode::failed;
  }
  for (const PHAssetCollection& collection : albums) printAlbum(global, photos, collection);
  return ExitCode::done;
}

}  // namespace

void addLibraryCommands(CommandTable& table) {
  const auto album = std::make_shared<std::optional<std::string>>();
  CLI::App* library = table.app.add_subcommand("library", "List the albums and what is in them");
  library->add_option("--album", *album, "Only this album");
  library->callback(
      [&table, album] { table.chosen = [&table, album] { return libraryCommand(table.global, *album); }; });
}

}  // namespace tarn
