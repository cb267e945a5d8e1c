#include "download/DownloadManager.h"

#include "download/detail/DownloadRemoval.h"
#include "download/detail/DownloadStarter.h"
#include "download/detail/EngineState.h"
#include "download/detail/ProcessingLine.h"
#include "download/detail/TransferEvents.h"
#include "download/detail/TransferPauses.h"
#include "platform/Log.h"

namespace tarn {

/// The parts of the engine. They refer to each other, and are made and destroyed together.
struct DownloadManager::Parts {
  Parts(const Platform& platform, const ProcessingSteps& steps, DownloadListener* listener)
      : engine(platform, listener), line(engine, starter, steps) {}

  EngineState engine;
  DownloadStarter starter{engine};
  ProcessingLine line;
  TransferEvents events{engine, starter, line};
  DownloadRemoval removal{engine, starter};
  TransferPauses pauses{engine, starter};
};

std::shared_ptr<DownloadManager> DownloadManager::create(const Platform& platform, const ProcessingSteps& steps,
                                                         const std::weak_ptr<DownloadManagerDelegate>& delegate,
                                                         DownloadListener* listener) {
  // NOLINTNEXTLINE: the constructor is private
  std::shared_ptr<DownloadManager> manager(new DownloadManager(platform, steps, listener));
  Parts& parts = *manager->parts_;
  parts.engine.posts.setEngine(manager);
  parts.starter.setSessionDelegate(std::shared_ptr<NSURLSessionDownloadDelegate>(manager, &parts.events));
  parts.starter.load(delegate);
  return manager;
}

DownloadManager::DownloadManager(const Platform& platform, const ProcessingSteps& steps, DownloadListener* listener)
    : parts_(std::make_unique<Parts>(platform, steps, listener)) {}

DownloadManager::~DownloadManager() = default;

DownloadTaskPointer DownloadManager::startDownloadFileBy(const DownloadRequest& request,
                                                         const DelegatePointer& delegate,
                                                         std::optional<int64_t> wantedId) {
  if (parts_->removal.isBlocking()) {
    log("startDownloadFileBy blocked - call clearAllStates() to resume. Rejecting: {}", request.filename.value_or(""));
    return nullptr;
  }
  return parts_->starter.start(request, delegate, wantedId);
}

DownloadTaskPointer DownloadManager::takeIn(const Path& file, const DownloadRequest& request,
                                            const DelegatePointer& delegate) {
  if (parts_->removal.isBlocking()) return nullptr;
  DownloadTaskPointer task = parts_->starter.takeWithoutTransfer(request, delegate);
  parts_->events.handOver(task, request, file);
  return task;
}

void DownloadManager::cancelDownloadFileBy(int64_t id) {
  parts_->removal.cancel(id);
}

void DownloadManager::cancelAll() {
  parts_->removal.cancelAll();
}

void DownloadManager::clearAllStates() {
  parts_->removal.clearAll();
}

std::map<int64_t, TransferState> DownloadManager::getTransferStates() {
  return parts_->pauses.states();
}

bool DownloadManager::pauseDownloadFileBy(int64_t id) {
  return parts_->pauses.pause(id);
}

bool DownloadManager::resumeDownloadFileBy(int64_t id) {
  return parts_->pauses.resume(id);
}

void DownloadManager::removeDownload(int64_t key) {
  parts_->removal.remove(key);
}

void DownloadManager::removeDelegate(int64_t key) {
  parts_->engine.registry.removeDelegate(key);
}

std::vector<DownloadTaskPointer> DownloadManager::getDownloads() const {
  return parts_->engine.registry.all();
}

std::vector<DownloadTaskPointer> DownloadManager::getActiveDownloads() const {
  std::vector<DownloadTaskPointer> tasks = getDownloads();
  std::erase_if(tasks, [](const DownloadTaskPointer& task) { return !isActive(task->status()); });
  return tasks;
}

int64_t DownloadManager::getMaxConcurrentDownloads() {
  return parts_->engine.queue.limit();
}

void DownloadManager::setMaxConcurrentDownloads(int64_t limit) {
  try {
    log("Max concurrent downloads set to: {}", parts_->engine.queue.setLimit(limit));
  } catch (const Error& error) {
    log("Max concurrent downloads could not be stored: {}", error.description());
  }
  parts_->starter.startNext();
}

size_t DownloadManager::getQueuedDownloadCount() const {
  return parts_->engine.queue.queuedCount();
}

void DownloadManager::performPeriodicCleanup() {
  parts_->removal.cleanUp();
}

void DownloadManager::checkAndResumePendingProcessing() {
  parts_->line.resumeOldest();
}

void DownloadManager::handleEventsForBackgroundURLSession() {
  parts_->starter.openSession();
}

bool DownloadManager::isProcessing() const {
  return parts_->engine.gate.activeRun().has_value();
}

void DownloadManager::handleAppDidEnterBackground() {
  parts_->line.didEnterBackground();
}

void DownloadManager::endBackgroundTask() {
  parts_->line.endBackgroundTime();
}

void DownloadManager::stopStarting() {
  parts_->starter.stop();
  parts_->engine.gate.close();
}

}  // namespace tarn
