#include "plugin/TarnBridgePlugin.h"

#include <array>

#include "platform/Log.h"
#include "plugin/detail/TaskPayload.h"

namespace tarn {
namespace {

constexpr const char* downloadProgress = "downloadProgress";
constexpr const char* downloadComplete = "downloadComplete";

}  // namespace

std::shared_ptr<TarnBridge> TarnBridge::create(const Platform& platform, const ProcessingSteps& steps,
                                               DownloadListener* listener) {
  // NOLINTNEXTLINE: the constructor is private
  std::shared_ptr<TarnBridge> plugin(new TarnBridge(platform, steps, listener));
  plugin->watcher_ = std::make_unique<ProgressWatcher>(platform.dispatch, [weak = plugin->weak_from_this()] {
    auto self = weak.lock();
    return self && self->sendProgress();
  });
  return plugin;
}

TarnBridge::TarnBridge(const Platform& platform, const ProcessingSteps& steps, DownloadListener* listener)
    : platform_(platform), steps_(steps), listener_(listener) {}

TarnBridge::~TarnBridge() = default;

const std::string& TarnBridge::identifier() const {
  static const std::string name = "TarnBridge";
  return name;
}

const std::string& TarnBridge::jsName() const {
  return identifier();
}

const std::vector<CAPPluginMethod>& TarnBridge::pluginMethods() const {
  static const std::vector<CAPPluginMethod> methods = {
      {"getActiveDownloads", "promise"}, {"saveVideo", "promise"},        {"cancel", "promise"},
      {"cancelAllDownloads", "promise"}, {"clearAllStates", "promise"},   {"cleanupFiles", "promise"},
      {"setDownloadLimit", "promise"},   {"getDownloadLimit", "promise"},
  };
  return methods;
}

CAPPlugin::Handler TarnBridge::handler(const std::string& method) {
  using Member = void (TarnBridge::*)(const CAPPluginCallPointer&);
  static constexpr std::array<std::pair<std::string_view, Member>, 7> handlers{{
      {"getActiveDownloads", &TarnBridge::getActiveDownloads},
      {"saveVideo", &TarnBridge::saveVideo},
      {"cancel", &TarnBridge::cancel},
      {"cancelAllDownloads", &TarnBridge::cancelAllDownloads},
      {"clearAllStates", &TarnBridge::clearAllStates},
      {"setDownloadLimit", &TarnBridge::setDownloadLimit},
      {"getDownloadLimit", &TarnBridge::getDownloadLimit},
  }};
  for (const auto& [name, member] : handlers) {
    if (name == method) return [this, member = member](const CAPPluginCallPointer& call) { (this->*member)(call); };
  }
  return nullptr;
}

void TarnBridge::load() {
  CAPPlugin::load();
  platform_.application.addObserver(weak_from_this());
  downloadManager().performPeriodicCleanup();
  downloadManager().checkAndResumePendingProcessing();
}

DownloadManager& TarnBridge::downloadManager() {
  std::lock_guard guard(downloadManagerMutex_);
  if (!downloadManager_) downloadManager_ = DownloadManager::create(platform_, steps_, weak_from_this(), listener_);
  return *downloadManager_;
}

Path TarnBridge::getDocumentsDirectory() {
  return platform_.files.documentsDirectory(true);
}

// --- Commands ---

void TarnBridge::saveVideo(const CAPPluginCallPointer& call) {
  if (const auto request = requestOf(call)) save(*request, std::nullopt, call);
}

std::optional<DownloadRequest> TarnBridge::requestOf(const CAPPluginCallPointer& call) {
  const char* const missing = !call->getString("url")        ? "Must provide the data path"
                              : !call->getString("album")    ? "Must provide the album"
                              : !call->getString("filename") ? "Must provide filename"
                                                             : nullptr;
  if (missing) {
    call->reject(missing);
    return std::nullopt;
  }
  return DownloadRequest{.url = *call->getString("url"),
                         .album = call->getString("album"),
                         .filename = call->getString("filename"),
                         .skipVideoFix = call->getBool("skipVideoFix").value_or(false),
                         .skipAudioFix = call->getBool("skipAudioFix").value_or(false)};
}

void TarnBridge::save(const DownloadRequest& request, std::optional<int64_t> id, const CAPPluginCallPointer& call) {
  checkAuthorization([self = shared_from_this(), request, id, call] { self->startSaving(request, id, call); },
                     [call] { call->reject("Access to photos not allowed by user"); });
}

void TarnBridge::checkAuthorization(const std::function<void()>& allowed, const std::function<void()>& notAllowed) {
  auto decide = [allowed, notAllowed](PHAuthorizationStatus status) {
    const bool isAllowed = status == PHAuthorizationStatus::authorized || status == PHAuthorizationStatus::limited;
    isAllowed ? allowed() : notAllowed();
  };
  PHAuthorizationStatus status = platform_.photos.authorizationStatus(PHAccessLevel::readWrite);
  if (status != PHAuthorizationStatus::notDetermined) return decide(status);
  platform_.photos.requestAuthorization(PHAccessLevel::readWrite,
                                        [decide, &dispatch = platform_.dispatch](PHAuthorizationStatus answer) {
                                          dispatch.mainQueue().async([decide, answer] { decide(answer); });
                                        });
}

void TarnBridge::startSaving(const DownloadRequest& request, std::optional<int64_t> id,
                             const CAPPluginCallPointer& call) {
  const auto task = downloadManager().startDownloadFileBy(request, shared_from_this(), id);
  if (!task) return call->reject("Invalid download URL.");
  task->update([weak = weak_from_this()](DownloadTask::Snapshot& fields) {
    fields.onDownloadComplete = [weak](const DownloadTaskPointer& download, const std::optional<Path>&) {
      if (auto self = weak.lock()) self->handleDownloadComplete(download);
    };
  });
  watcher_->startCheckingProgress();
  call->resolve(TaskPayload(*task).summary());
}

DownloadTaskPointer TarnBridge::takeIn(const Path& file, const DownloadRequest& request) {
  auto task = downloadManager().takeIn(file, request, shared_from_this());
  if (task) watcher_->startCheckingProgress();
  return task;
}

void TarnBridge::cancel(const CAPPluginCallPointer& call) {
  auto id = call->getInt("id");
  if (!id) return call->reject("No such download");
  downloadManager().cancelDownloadFileBy(*id);
  call->resolve({{"id", *id}});
}

void TarnBridge::cancelAllDownloads(const CAPPluginCallPointer& call) {
  watcher_->stopCheckingProgress();
  downloadManager().cancelAll();
  call->resolve();
}

void TarnBridge::clearAllStates(const CAPPluginCallPointer& call) {
  downloadManager().clearAllStates();
  call->resolve();
}

void TarnBridge::setDownloadLimit(const CAPPluginCallPointer& call) {
  auto limit = call->getInt("limit");
  if (!limit) return call->reject("limit is required");
  downloadManager().setMaxConcurrentDownloads(*limit);
  call->resolve({{"limit", downloadManager().getMaxConcurrentDownloads()}});
}

void TarnBridge::getDownloadLimit(const CAPPluginCallPointer& call) {
  call->resolve({{"limit", downloadManager().getMaxConcurrentDownloads()},
                 {"queued", static_cast<int64_t>(downloadManager().getQueuedDownloadCount())}});
}

void TarnBridge::getActiveDownloads(const CAPPluginCallPointer& call) {
  JSObject downloads;
  for (const auto& task : downloadManager().getDownloads()) {
    downloads.set(std::to_string(task->id), TaskPayload(*task).withBytes());
  }
  call->resolve(std::move(downloads));
}

// --- Events ---

bool TarnBridge::sendProgress() {
  auto active = downloadManager().getActiveDownloads();
  if (active.empty()) return false;
  JSObject downloads;
  for (const auto& task : active) downloads.set(std::to_string(task->id), TaskPayload(*task).progressEntry());
  notifyListeners(downloadProgress, downloads);
  return true;
}

void TarnBridge::processingProgressUpdated(int64_t id, double progress, const std::string& stage) {
  notifyListeners(downloadProgress, {{std::to_string(id), stageUpdatePayload(id, progress, stage)}});
}

void TarnBridge::downloadDidFinish(const DownloadTaskPointer& download, const Path&) {
  handleDownloadComplete(download);
}

void TarnBridge::handleDownloadComplete(const DownloadTaskPointer& download) {
  notifyListeners(downloadComplete, TaskPayload(*download).completion());
  downloadManager().removeDownload(download->id);
}

void TarnBridge::downloadDidFailed(const DownloadTaskPointer& download) {
  logLine("Download did failed");
  notifyListeners(downloadComplete, TaskPayload(*download).failure());
  downloadManager().removeDownload(download->id);
}

// --- The application's life ---

void TarnBridge::appDidEnterBackground() {
  logLine("App entered background - downloads continue in background");
  downloadManager().handleAppDidEnterBackground();
  downloadManager().performPeriodicCleanup();
}

void TarnBridge::appWillEnterForeground() {
  logLine("App entering foreground - checking download and processing status");
  logLine("App entering foreground - ending background task if active");
  downloadManager().endBackgroundTask();
  downloadManager().checkAndResumePendingProcessing();
  checkAndUpdateDownloadStates();
}

void TarnBridge::appWillTerminate() {
  logLine("App will terminate - performing final cleanup");
  downloadManager().performPeriodicCleanup();
}

void TarnBridge::checkAndUpdateDownloadStates() {
  for (const auto& task : downloadManager().getDownloads()) {
    if (task->status() != DownloadStatus::completed) continue;
    if (task->claimNotification()) notifyListeners(downloadComplete, TaskPayload(*task).completion());
    downloadManager().removeDownload(task->id);
  }
}

}  // namespace tarn
