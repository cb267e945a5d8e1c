#include <fmt/format.h>

#include <utility>

#include "app/Commands.h"
#include "app/FileNames.h"
#include "app/HostSession.h"
#include "app/Output.h"
#include "app/ProgressPrinter.h"
#include "platform/JSObject.h"

namespace tarn {
namespace {

std::optional<PHAsset> findAsset(PHPhotoLibrary& photos, const std::string& album, const std::string& assetId) {
  for (const PHAssetCollection& collection : photos.fetchAssetCollections(album)) {
    auto assets = photos.fetchAssets(collection, assetId);
    if (!assets.empty()) return assets.front();
  }
  return std::nullopt;
}

/// Follows one download through its events to the completion event; nothing after an interrupt.
std::optional<JSObject> waitForCompletion(EngineClient& client, int64_t id, bool json) {
  std::optional<ProgressPrinter> printer;
  if (!json) printer.emplace();
  const std::string key = std::to_string(id);
  while (auto event = client.nextEvent()) {
    if (json) printJSON({{"event", event->name}, {"data", event->data}});
    if (event->name == "downloadProgress") {
      const auto* entry = valueAt<JSObject>(event->data, key);
      if (entry && printer) printer->show(*entry);
    } else if (event->name == "downloadComplete" && valueAt<int64_t>(event->data, "id", 0) == id) {
      return event->data;
    }
  }
  return std::nullopt;
}

int reportFailure(const GlobalOptions& global, int64_t id, const std::string& words) {
  if (global.json) printJSON({{"result", "failed"}, {"id", id}, {"error", words}});
  printFailure(fmt::format(
      "The video was not saved: {}. Check the URL and the free space, then run the same command again.", words));
  return ExitCode::failed;
}

}  // namespace

int saveCommand(const GlobalOptions& global, const SaveOptions& options) {
  HostSession session(global);
  Host& host = session.host();
  EngineClient& client = session.client();
  auto answer = client.call("saveVideo", {{"url", options.url},
                                          {"album", options.album},
                                          {"filename", options.filename.value_or(defaultFilename(options.url))},
                                          {"skipVideoFix", options.skipVideoFix},
                                          {"skipAudioFix", options.skipAudioFix}});
  if (!answer.resolved) {
    printFailure(answer.message + " Give an http or https URL.");
    return ExitCode::failed;
  }
  const int64_t id = valueAt<int64_t>(answer.data, "id", 0);
  auto completion = waitForCompletion(client, id, global.json);
  if (!completion) {
    printFailure("Interrupted; what has been done is kept. `tarn resume` goes on with it.");
    return ExitCode::interrupted;
  }
  client.waitUntilGone(id);
  if (valueAt<std::string>(*completion, "status", "") != "STATUS_SUCCESSFUL") {
    return reportFailure(global, id, host.outcomes().failure(id).value_or("the reason is in the log"));
  }
  auto asset = findAsset(host.photos(), options.album, valueAt<std::string>(*completion, "assetId", ""));
  if (!asset) return reportFailure(global, id, "the saved file is not in its album any more");
  if (global.json) {
    printJSON({{"result", "saved"}, {"id", id}, {"album", options.album}, {"path", asset->path.string()}});
  } else {
    printLine(asset->path.string());
  }
  return ExitCode::done;
}

}  // namespace tarn
