#include <tarn/engine.h>

#include "api/FileNames.h"
#include "api/detail/DefaultLog.h"
#include "api/detail/EngineSession.h"
#include "platform/TransferRules.h"

namespace tarn {

Engine::Engine(EngineOptions options) {
  dropLogByDefault();
  session_ = std::make_unique<EngineSession>(std::move(options));
}

Engine::~Engine() = default;

void Engine::open() {
  session_->join();
}

bool Engine::openRunning() {
  return session_->joinRunning();
}

int64_t Engine::save(const SaveRequest& request) {
  if (const auto why = whyNoAlbum(request.album)) throw EngineRefused(*why);
  const auto why = request.filename ? whyNoFilename(*request.filename) : std::nullopt;
  if (why) throw EngineRefused(*why);
  TransferOptions transfer = request.transfer;
  transfer.cookies = cookiesFor(request.url, transfer.cookies);
  if (const auto whyNot = whyRefused(transfer)) throw EngineRefused(*whyNot);
  JSObject options{{"url", request.url},
                   {"album", request.album},
                   {"filename", request.filename.value_or(defaultFilename(request.url))},
                   {"skipVideoFix", request.skipVideoFix},
                   {"skipAudioFix", request.skipAudioFix},
                   {"takesServersName", !request.filename},
                   {"transfer", objectOf(transfer)}};
  if (request.id) options.set("id", *request.id);
  return session_->saveVideo(std::move(options));
}

void Engine::cancel(int64_t id) {
  session_->changeDownload(id, "cancel");
}

void Engine::pause(int64_t id) {
  session_->changeDownload(id, "pause");
}

void Engine::resume(int64_t id) {
  session_->changeDownload(id, "resume");
}

std::map<int64_t, TransferState> Engine::transfers() {
  return session_->transfers();
}

std::vector<Engine::Download> Engine::downloads() {
  std::vector<Download> downloads;
  const JSObject tasks = session_->downloads();
  for (const auto& [key, value] : tasks.members()) {
    const JSObject& task = *value.get<JSObject>();
    downloads.push_back({.id = valueAt<int64_t>(task, "id", 0),
                         .status = valueAt<std::string>(task, "status", ""),
                         .filename = valueAt<std::string>(task, "filename", key),
                         .json = task.json()});
  }
  return downloads;
}

Engine::Outcome Engine::outcome(int64_t id) {
  return session_->outcome(id);
}

std::optional<std::filesystem::path> Engine::assetPath(const std::string& assetId,
                                                       const std::optional<std::string>& album) {
  return session_->assetPath(assetId, album);
}

std::optional<std::filesystem::path> Engine::savedSince(std::chrono::system_clock::time_point start,
                                                        const std::string& album, const std::string& filename) {
  return session_->savedSince(start, album, filename);
}

Engine::StoredWork Engine::storedWork() {
  return session_->storedWork();
}

std::vector<LibraryAlbum> Engine::library(const std::optional<std::string>& album) {
  return session_->library(album);
}

std::vector<LibraryAsset> Engine::removedAssets() {
  return session_->removedAssets();
}

std::optional<LibraryAsset> Engine::changeAsset(const AssetChange& change) {
  return session_->changeAsset(change);
}

std::optional<std::filesystem::path> Engine::poster(const std::string& assetId) {
  return session_->poster(assetId);
}

std::vector<Engine::HistoryEntry> Engine::history(std::optional<int64_t> limit) {
  return session_->history(limit);
}

void Engine::clearHistory(std::optional<int64_t> id) {
  session_->clearHistory(id);
}

int64_t Engine::retry(int64_t id, bool asItCame) {
  return session_->changeDownload(id, asItCame ? "retryAsItCame" : "retry");
}

void Engine::takeUpStoredRun() {
  session_->takeUpStoredRun();
}

void Engine::waitUntilGone(int64_t id) {
  session_->waitUntilGone(id);
}

Engine::Answer Engine::call(const std::string& method, const std::string& options) {
  auto object = JSObject::parse(options);
  if (!object) return {.isResolved = false, .data = {}, .message = "The options are no JSON object"};
  const auto answer = session_->call(method, std::move(*object));
  return {.isResolved = answer.resolved, .data = answer.resolved ? answer.data.json() : "", .message = answer.message};
}

std::optional<Engine::Event> Engine::nextEvent(std::optional<std::chrono::milliseconds> timeout) {
  const auto event = session_->nextEvent(timeout);
  if (!event) return std::nullopt;
  return Event{event->name, event->data.json()};
}

bool Engine::interrupt() {
  return session_->end();
}

bool Engine::isInterrupted() const {
  return session_->isInterrupted();
}

bool Engine::isShared() const {
  return session_->isShared();
}

void Engine::waitUntilUnused() {
  session_->waitUntilUnused();
}

}  // namespace tarn
