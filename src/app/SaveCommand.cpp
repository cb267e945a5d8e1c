#include "app/SaveCommand.h"

#include <CLI/CLI.hpp>
#include <memory>
#include <utility>

#include "app/CommandEngine.h"
#include "app/Saves.h"
#include "app/TransferArguments.h"

namespace tarn {
namespace {

struct SaveArguments {
  std::vector<std::string> urls;
  std::string album = "Tarn";
  std::optional<std::string> filename = {};
  std::optional<std::string> list = {};
  SaveOptions options = {};
  TransferArguments transfer = {};
};

/// All that the user wants, looked at before anything starts. Throws UsageError.
std::vector<SaveItem> itemsOf(const SaveArguments& given) {
  std::vector<SaveItem> items;
  for (const std::string& url : given.urls) {
    items.push_back({.url = url, .album = given.album, .filename = given.filename});
    checkItem(items.back());
  }
  if (given.list) {
    const std::string name = *given.list == "-" ? "standard input" : *given.list;
    for (SaveItem& item : parseSaveList(readUserFile(*given.list), given.album, name)) items.push_back(std::move(item));
  }
  if (items.empty()) throw UsageError("Which video? Give a URL, or a list of them with -i.");
  if (given.filename && (given.list || items.size() > 1)) {
    throw UsageError("--filename is for one URL. A list has a name for each in its third column.");
  }
  return items;
}

int saveAll(const GlobalOptions& global, const std::vector<SaveItem>& items, SaveOptions options) {
  CommandEngine command(global);
  return command.leave(Saves(global, command.engine(), items, std::move(options)).run());
}

int saveCommand(const GlobalOptions& global, const SaveArguments& given) {
  SaveOptions options = given.options;
  options.transfer = given.transfer.options();
  return saveAll(global, itemsOf(given), std::move(options));
}

}  // namespace

int saveCommand(const GlobalOptions& global, const SaveItem& item) {
  return saveAll(global, {item}, {});
}

void addSaveCommand(CommandTable& table) {
  const auto given = std::make_shared<SaveArguments>();
  CLI::App* save = table.app.add_subcommand("save", "Save the videos at URLs into an album");
  save->add_option("URL", given->urls, "http or https URLs");
  save->add_option(
          "-i,--input", given->list,
          "A list of URLs, \"-\" for standard input: a line each, with album and file name after it, parted by "
          "tabs; # begins a comment")
      ->type_name("FILE");
  save->add_option("--album", given->album, "The album; it is made when there is none of this name")
      ->capture_default_str();
  save->add_option("--filename", given->filename,
                   "The file's name in the album (else the server's, or the URL's last part)");
  given->transfer.addTo(*save);
  save->add_flag("--skip-video-fix", given->options.skipVideoFix, "Leave the file as it comes");
  save->add_flag("--skip-audio-fix", given->options.skipAudioFix, "Leave sound and timing as they come");
  save->callback([&table, given] { table.chosen = [&table, given] { return saveCommand(table.global, *given); }; });
}

}  // namespace tarn
