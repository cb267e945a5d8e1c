#include "api/EngineClient.h"

#include <thread>
#include <utility>

#include "engine/HistoryEntry.h"
#include "engine/HostPlugin.h"
#include "engine/LibraryJSON.h"

namespace tarn {
namespace {

constexpr const char* bridge = "TarnBridge";

template <typename T>
std::vector<T> arrayAt(const JSObject& object, std::string_view key) {
  std::vector<T> values;
  const auto* array = valueAt<JSValue::Array>(object, key);
  if (!array) return values;
  for (const JSValue& value : *array) {
    if (const T* typed = value.get<T>()) values.push_back(*typed);
  }
  return values;
}

TransferState transferState(const JSObject& object) {
  TransferState state{.received = static_cast<uint64_t>(valueAt<int64_t>(object, "received", 0)),
                      .isPaused = valueAt(object, "paused", false)};
  if (const auto* const expected = valueAt<int64_t>(object, "expected")) {
    state.expected = static_cast<uint64_t>(*expected);
  }
  if (const auto* const retry = valueAt<JSObject>(object, "retry")) {
    const std::chrono::duration<double> wait(valueAt<double>(*retry, "seconds", 0));
    state.retry = {.number = static_cast<int>(valueAt<int64_t>(*retry, "number", 0)),
                   .most = static_cast<int>(valueAt<int64_t>(*retry, "most", 0)),
                   .in = std::chrono::round<std::chrono::milliseconds>(wait),
                   .why = valueAt<std::string>(*retry, "why", "")};
  }
  return state;
}

JSObject resolved(EngineClient::Answer answer) {
  if (!answer.resolved) throw EngineRefused(answer.message, valueAt<std::string>(answer.data, "advice", ""));
  return std::move(answer.data);
}

std::optional<Path> pathIn(const EngineClient::Answer& answer) {
  const auto* path = valueAt<std::string>(answer.data, "path");
  return path ? std::optional<Path>(*path) : std::nullopt;
}

}  // namespace

EngineClient::Answer EngineClient::call(const std::string& method, JSObject options) {
  return call(bridge, method, std::move(options));
}

int64_t EngineClient::saveVideo(JSObject options) {
  return valueAt<int64_t>(resolved(call(HostPlugin::name(), "saveVideo", std::move(options))), "id", 0);
}

JSObject EngineClient::downloads() {
  return call("getActiveDownloads").data;
}

int64_t EngineClient::changeDownload(int64_t id, const std::string& action) {
  const JSObject options{{"id", id}, {"action", action}};
  return valueAt<int64_t>(resolved(call(HostPlugin::name(), "changeDownload", options)), "id", 0);
}

std::map<int64_t, TransferState> EngineClient::transfers() {
  const Answer answer = call(HostPlugin::name(), "getTransfers", {});
  std::map<int64_t, TransferState> transfers;
  if (const auto* const told = valueAt<JSObject>(answer.data, "transfers")) {
    for (const auto& [id, state] : told->members()) {
      if (const auto* const object = state.get<JSObject>()) transfers[std::stoll(id)] = transferState(*object);
    }
  }
  return transfers;
}

EngineClient::Outcome EngineClient::outcome(int64_t id) {
  const JSObject answer = call(HostPlugin::name(), "getOutcome", {{"id", id}}).data;
  return {.failure = optionalAt<std::string>(answer, "failure"),
          .assetId = optionalAt<std::string>(answer, "assetId"),
          .advice = valueAt<std::string>(answer, "advice", ""),
          .isRefused = valueAt(answer, "isRefused", false),
          .mayTryAgain = valueAt(answer, "mayTryAgain", false),
          .maySaveAsItCame = valueAt(answer, "maySaveAsItCame", false),
          .isPartly = valueAt(answer, "isPartly", false),
          .leftAlone = arrayAt<std::string>(answer, "leftAlone")};
}

std::optional<Path> EngineClient::assetPath(const std::string& assetId, const std::optional<std::string>& album) {
  JSObject options{{"assetId", assetId}};
  if (album) options.set("album", *album);
  return pathIn(call(HostPlugin::name(), "getAsset", std::move(options)));
}

std::optional<Path> EngineClient::savedSince(Date start, const std::string& album, const std::string& filename) {
  const JSObject options{{"filename", filename}, {"since", secondsSince1970(start)}, {"album", album}};
  return pathIn(call(HostPlugin::name(), "getAsset", options));
}

EngineClient::StoredWork EngineClient::storedWork() {
  const JSObject answer = call(HostPlugin::name(), "getStoredWork", {}).data;
  return {.runs = arrayAt<int64_t>(answer, "runs"),
          .records = arrayAt<int64_t>(answer, "records"),
          .transfers = arrayAt<int64_t>(answer, "transfers"),
          .hasTransfers = valueAt(answer, "hasTransfers", false),
          .isProcessing = valueAt(answer, "isProcessing", false),
          .problems = arrayAt<std::string>(answer, "problems"),
          .notices = arrayAt<std::string>(answer, "notices")};
}

std::vector<EngineClient::HistoryEntry> EngineClient::history(const std::optional<int64_t>& limit) {
  const Answer answer = call(HostPlugin::name(), "getHistory", limit ? JSObject{{"limit", *limit}} : JSObject());
  std::vector<HistoryEntry> entries;
  for (const JSObject& entry : arrayAt<JSObject>(answer.data, "entries")) entries.push_back(historyEntryOf(entry));
  return entries;
}

void EngineClient::clearHistory(const std::optional<int64_t>& id) {
  resolved(call(HostPlugin::name(), "clearHistory", id ? JSObject{{"id", *id}} : JSObject()));
}

std::vector<LibraryAlbum> EngineClient::library(const std::optional<std::string>& album) {
  JSObject options;
  if (album) options.set("album", *album);
  std::vector<LibraryAlbum> albums;
  for (const JSObject& each : arrayAt<JSObject>(resolved(call(HostPlugin::name(), "getLibrary", options)), "albums")) {
    albums.push_back(libraryAlbumOf(each));
  }
  return albums;
}

std::vector<LibraryAsset> EngineClient::removedAssets() {
  std::vector<LibraryAsset> assets;
  for (const JSObject& asset : arrayAt<JSObject>(resolved(call(HostPlugin::name(), "getLibrary", {})), "removed")) {
    assets.push_back(libraryAssetOf(asset));
  }
  return assets;
}

std::optional<LibraryAsset> EngineClient::changeAsset(const AssetChange& change) {
  const JSObject asset = resolved(call(HostPlugin::name(), "changeAsset", jsonOf(change)));
  return asset.empty() ? std::nullopt : std::optional(libraryAssetOf(asset));
}

std::optional<Path> EngineClient::poster(const std::string& assetId) {
  return pathIn(call(HostPlugin::name(), "getPoster", {{"assetId", assetId}}));
}

void EngineClient::takeUpStoredRun() {
  call(HostPlugin::name(), "takeUpStoredRun", {});
}

void EngineClient::waitUntilGone(int64_t id) {
  const std::string key = std::to_string(id);
  for (int looks = 0; looks < 2000 && downloads().find(key); ++looks) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

}  // namespace tarn
