#include "engine/HostPlugin.h"

#include <algorithm>
#include <array>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include "engine/Host.h"
#include "engine/Library.h"
#include "engine/LibraryJSON.h"
#include "inspect/FailureAdvice.h"
#include "platform/Clock.h"
#include "platform/TransferRules.h"
#include "platform/URL.h"
#include "platform/host/Desktop.h"

namespace tarn {
namespace {

/// The assets of an album, or all; with an identifier that one alone.
std::vector<PHAsset> assetsFor(PHPhotoLibrary& photos, const std::optional<std::string>& album,
                               const std::optional<std::string>& assetId) {
  if (!album && !assetId) return photos.fetchAllAssets();
  std::vector<PHAsset> assets;
  if (!album) {
    if (auto asset = photos.fetchAsset(*assetId)) assets.push_back(std::move(*asset));
    return assets;
  }
  for (const PHAssetCollection& collection : photos.fetchAssetCollections(*album)) {
    std::ranges::move(photos.fetchAssets(collection, assetId), std::back_inserter(assets));
  }
  return assets;
}

/// Rejects the call with the words of a failure, and if the same may work later, with advice.
template <typename Work>
void orReject(const CAPPluginCallPointer& call, const Work& work) {
  try {
    work();
  } catch (const Error& failure) {
    const auto advice = adviceFor(RunOutcome::failed(0, RunOutcome::Where::start, std::current_exception()));
    call->reject(failure.description(), advice.mayTryAgain ? JSObject{{"advice", advice.words}} : JSObject());
  }
}

template <typename Values>
JSValue::Array arrayOf(const Values& values) {
  return {values.begin(), values.end()};
}

JSObject outcomeJSON(const RunOutcome& outcome) {
  JSObject answer;
  if (outcome.kind == RunOutcome::Kind::failed) {
    const FailureAdvice advice = adviceFor(outcome);
    answer.set("failure", outcome.words);
    if (!advice.words.empty()) answer.set("advice", advice.words);
    if (outcome.isRefused) answer.set("isRefused", true);
    if (advice.mayTryAgain) answer.set("mayTryAgain", true);
    if (advice.maySaveAsItCame) answer.set("maySaveAsItCame", true);
  }
  if (outcome.assetId) answer.set("assetId", *outcome.assetId);
  if (outcome.isPartly) answer.set("isPartly", true);
  if (!outcome.leftAlone.empty()) answer.set("leftAlone", arrayOf(outcome.leftAlone));
  return answer;
}

}  // namespace

const std::string& HostPlugin::name() {
  static const std::string name = "TarnHost";
  return name;
}

const std::vector<CAPPluginMethod>& HostPlugin::pluginMethods() const {
  static const std::vector<CAPPluginMethod> methods = {
      {"saveVideo", "promise"},       {"getOutcome", "promise"},   {"getAsset", "promise"},
      {"getStoredWork", "promise"},   {"getTransfers", "promise"}, {"changeDownload", "promise"},
      {"takeUpStoredRun", "promise"}, {"getHistory", "promise"},   {"clearHistory", "promise"},
      {"importLocal", "promise"},     {"getLibrary", "promise"},   {"changeAsset", "promise"},
      {"showAsset", "promise"},       {"getPage", "promise"},      {"getPoster", "promise"},
  };
  return methods;
}

CAPPlugin::Handler HostPlugin::handler(const std::string& method) {
  struct Row {
    std::string_view method;
    void (HostPlugin::*member)(const CAPPluginCallPointer&);
    std::string_view changes = {};
  };
  static constexpr std::array<Row, 15> rows{{
      {"saveVideo", &HostPlugin::saveVideo, "downloads"},
      {"getOutcome", &HostPlugin::getOutcome},
      {"getAsset", &HostPlugin::getAsset},
      {"getStoredWork", &HostPlugin::getStoredWork},
      {"getTransfers", &HostPlugin::getTransfers},
      {"changeDownload", &HostPlugin::changeDownload, "downloads"},
      {"takeUpStoredRun", &HostPlugin::takeUpStoredRun},
      {"getHistory", &HostPlugin::getHistory},
      {"clearHistory", &HostPlugin::clearHistory, "history"},
      {"importLocal", &HostPlugin::importLocal, "downloads"},
      {"getLibrary", &HostPlugin::getLibrary},
      {"changeAsset", &HostPlugin::changeAsset, "library"},
      {"showAsset", &HostPlugin::showAsset},
      {"getPage", &HostPlugin::getPage},
      {"getPoster", &HostPlugin::getPoster},
  }};
  const auto row = std::ranges::find(rows, method, &Row::method);
  if (row == rows.end()) return nullptr;
  return [this, row](const CAPPluginCallPointer& call) {
    (this->*row->member)(row->changes.empty() ? call : tellingOf(row->changes, call));
  };
}

CAPPluginCallPointer HostPlugin::tellingOf(std::string_view what, const CAPPluginCallPointer& call) {
  return std::make_shared<CAPPluginCall>(call->method(), call->options(),
                                         [this, what, call](const CAPPluginCall::Answer& answer) {
                                           if (!answer.resolved) return call->reject(answer.message, answer.data);
                                           call->resolve(answer.data);
                                           notifyListeners("changed", {{"what", std::string(what)}});
                                         });
}

void HostPlugin::saveVideo(const CAPPluginCallPointer& call) {
  auto request = TarnBridge::requestOf(call);
  if (!request) return;
  request->url = encodedURL(request->url);
  request->takesServersName = call->getBool("takesServersName").value_or(false);
  request->transfer = transferOptions(call->getObject("transfer").value_or(JSObject()));
  if (const auto why = whyRefused(request->transfer)) return call->reject(*why);
  host_.plugin().save(*request, call->getInt("id"), call);
}

void HostPlugin::getOutcome(const CAPPluginCallPointer& call) {
  const auto id = call->getInt("id");
  if (!id) return call->reject("No such download");
  const auto outcome = host_.outcomes().of(*id);
  call->resolve(outcome ? outcomeJSON(*outcome) : JSObject());
}

void HostPlugin::getAsset(const CAPPluginCallPointer& call) {
  const auto assetId = call->getString("assetId");
  const auto assets = assetsFor(host_.photos(), call->getString("album"), assetId);
  const auto filename = call->getString("filename");
  const int64_t since = call->getInt("since").value_or(0);
  const auto found = std::find_if(assets.rbegin(), assets.rend(), [&](const PHAsset& asset) {
    if (assetId) return true;
    return asset.filename == filename && secondsSince1970(asset.creationDate) >= since;
  });
  JSObject answer;
  if (found != assets.rend()) answer.set("path", found->path.string());
  call->resolve(std::move(answer));
}

void HostPlugin::getStoredWork(const CAPPluginCallPointer& call) {
  call->resolve({{"runs", arrayOf(host_.pendingRuns())},
                 {"records", arrayOf(host_.records())},
                 {"transfers", arrayOf(host_.transfers())},
                 {"hasTransfers", host_.hasTransfers()},
                 {"isProcessing", host_.isProcessing()},
                 {"problems", arrayOf(host_.storeProblems())},
                 {"notices", arrayOf(host_.notices())}});
}

void HostPlugin::getHistory(const CAPPluginCallPointer& call) {
  const auto limit = call->getInt("limit");
  if (limit && *limit < 0) return call->reject("limit is a number from 0 on");
  JSValue::Array entries;
  for (const HistoryEntry& entry : host_.history().entries(limit)) entries.emplace_back(jsonOf(entry));
  JSObject answer{{"entries", std::move(entries)}};
  if (const auto log = host_.logFile()) answer.set("log", log->string());
  if (const auto problem = host_.history().problem()) answer.set("problem", *problem);
  call->resolve(std::move(answer));
}

void HostPlugin::clearHistory(const CAPPluginCallPointer& call) {
  const auto id = call->getInt("id");
  const auto entry = id ? host_.history().entry(*id) : std::nullopt;
  if (id && !entry) return call->reject("No such download");
  if (entry && entry->state == HistoryEntry::State::pending) return call->reject("The download has not ended");
  if (!host_.history().clear(id)) return call->reject("The history cannot be changed just now; the log says why");
  call->resolve();
}

void HostPlugin::getTransfers(const CAPPluginCallPointer& call) {
  JSObject transfers;
  for (const auto& [id, state] : host_.plugin().downloadManager().getTransferStates()) {
    transfers.set(std::to_string(id), objectOf(state));
  }
  call->resolve({{"transfers", std::move(transfers)}});
}

void HostPlugin::changeDownload(const CAPPluginCallPointer& call) {
  using Action = void (HostPlugin::*)(int64_t id, const CAPPluginCallPointer& call);
  static constexpr std::array<std::pair<std::string_view, Action>, 5> actions{{
      {"pause", &HostPlugin::pause},
      {"resume", &HostPlugin::resume},
      {"cancel", &HostPlugin::cancel},
      {"retry", &HostPlugin::retry},
      {"retryAsItCame", &HostPlugin::retryAsItCame},
  }};
  const auto id = call->getInt("id");
  if (!id) return call->reject("No such download");
  const auto wanted = call->getString("action");
  for (const auto& [name, action] : actions) {
    if (name == wanted) return orReject(call, [&, action = action] { (this->*action)(*id, call); });
  }
  call->reject("No such action");
}

void HostPlugin::pause(int64_t id, const CAPPluginCallPointer& call) {
  if (!host_.plugin().downloadManager().pauseDownloadFileBy(id)) return call->reject("The download has no transfer");
  call->resolve({{"id", id}});
}

void HostPlugin::resume(int64_t id, const CAPPluginCallPointer& call) {
  if (!host_.plugin().downloadManager().resumeDownloadFileBy(id)) return call->reject("The download is not paused");
  call->resolve({{"id", id}});
}

void HostPlugin::importLocal(const CAPPluginCallPointer& call) {
  const auto path = call->getString("path");
  const auto filename = call->getString("filename");
  const auto album = call->getString("album");
  if (!path || !filename || !album || album->empty()) return call->reject("A path, a filename and an album are needed");
  orReject(call, [&] { call->resolve({{"id", host_.importLocal(*path, *filename, *album)}}); });
}

void HostPlugin::cancel(int64_t id, const CAPPluginCallPointer& call) {
  actions_.cancel(id, call);
}

void HostPlugin::retry(int64_t id, const CAPPluginCallPointer& call) {
  actions_.retry(id, false, call);
}

void HostPlugin::retryAsItCame(int64_t id, const CAPPluginCallPointer& call) {
  actions_.retry(id, true, call);
}

void HostPlugin::takeUpStoredRun(const CAPPluginCallPointer& call) {
  host_.takeUpStoredRun();
  call->resolve();
}

void HostPlugin::getLibrary(const CAPPluginCallPointer& call) {
  orReject(call, [&] {
    Library library(host_.photos());
    const auto album = call->getString("album");
    JSObject answer{{"albums", jsonArrayOf(library.albums(album))}};
    if (!album) answer.set("removed", jsonArrayOf(library.removed()));
    call->resolve(std::move(answer));
  });
}

void HostPlugin::changeAsset(const CAPPluginCallPointer& call) {
  const auto change = assetChangeOf(*call);
  if (!change) return call->reject("An asset and an action are needed");
  orReject(call, [&] {
    const auto asset = Library(host_.photos()).change(*change);
    if (change->action == AssetChange::Action::erase) host_.sweepPosters();
    call->resolve(asset ? jsonOf(*asset) : JSObject());
  });
}

void HostPlugin::showAsset(const CAPPluginCallPointer& call) {
  orReject(call, [&] {
    const auto asset = assetNamed(*call);
    if (!asset) return call->reject("No such video");
    const Path folder = asset->path.parent_path();
    showOnDesktop(folder, [call, folder](bool isShown) {
      if (isShown) return call->resolve();
      call->reject("No program here can open the folder. The video is in " + folder.string());
    });
  });
}

void HostPlugin::setPage(const std::string& address) {
  std::lock_guard guard(mutex_);
  page_ = address;
}

void HostPlugin::getPage(const CAPPluginCallPointer& call) {
  std::unique_lock guard(mutex_);
  const auto page = page_;
  guard.unlock();
  call->resolve(page ? JSObject{{"address", *page}} : JSObject());
}

void HostPlugin::getPoster(const CAPPluginCallPointer& call) {
  orReject(call, [&] {
    const auto asset = assetNamed(*call);
    if (!asset) return call->resolve();
    host_.posters().tell(asset->localIdentifier, asset->path, [call](const std::optional<Path>& poster) {
      call->resolve(poster ? JSObject{{"path", poster->string()}} : JSObject());
    });
  });
}

std::optional<PHAsset> HostPlugin::assetNamed(const CAPPluginCall& call) {
  return host_.photos().fetchAsset(call.getString("assetId").value_or(""));
}

}  // namespace tarn
