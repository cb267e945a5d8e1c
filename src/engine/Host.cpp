#include "engine/Host.h"

#include <algorithm>

#include "download/DocumentsSweep.h"
#include "download/DownloadRequest.h"
#include "engine/AlbumsLink.h"
#include "engine/PosterProgram.h"
#include "kind/Kind.h"
#include "platform/Log.h"
#include "platform/Platform.h"

namespace tarn {
namespace {

/// The library takes what a player could show.
MediaCheck checkOfMedia(FileManager& files) {
  return [&files](const Path& file, const std::string& name) { return whyNoPlayerShows(files, file, name); };
}

}  // namespace

Host::Host(FileManager& files, const HostOptions& options)
    : home_(options.home),
      lock_(options.home),
      log_(options.keepsLog ? LogFile::ofHome(options.home) : nullptr),
      files_(files),
      history_(files_, clock_, options.home),
      application_(dispatch_, {.backgroundLimit = options.backgroundLimit}),
      hasBackgroundLimit_(options.backgroundLimit.has_value()),
      defaults_(files_, options.home / "Defaults"),
      store_(defaults_, files_, clock_),
      photos_(files_, dispatch_, options.home / "Photos", SQLitePhotoLibrary::Access::readWrite, checkOfMedia(files)),
      posters_(files_, options.home / "Posters", posterProgram()),
      transfers_(files_, dispatch_, options.home / "Transfers"),
      savingStep_(photos_, clock_) {
  removeLeftovers(files_, store_);
  sweepPosters();
  for (const char* directory : {"", "Defaults", "Documents"}) removeAbandonedSiblings(files_, options.home / directory);
  Platform platform{.files = files_,
                    .defaults = defaults_,
                    .clock = clock_,
                    .dispatch = dispatch_,
                    .application = application_,
                    .photos = photos_,
                    .transfers = transfers_};
  plugin_ = TarnBridge::create(platform, steps_.withLast(savingStep_), this);
}

Host::~Host() {
  interrupt();
  application_.terminate();
  // The main queue is serial: after this call the active run has been asked to stop, and stopping waits for it.
  dispatch_.mainQueue().sync([] {});
  // The plug-in's watcher ends with it; a run that still goes on keeps the engine until it ends.
  plugin_.reset();
  dispatch_.stop();
}

void Host::began(int64_t id, const DownloadRequest& request) noexcept {
  history_.began(id, request);
}

void Host::ended(const RunOutcome& outcome) noexcept {
  outcomes_.keep(outcome);
  history_.ended(outcome);
  if (outcome.kind == RunOutcome::Kind::saved) showAlbums();
}

void Host::start() {
  plugin_->load();
  settleHistory();
  if (!transfers_.storedTaskDescriptions().empty()) plugin_->downloadManager().handleEventsForBackgroundURLSession();
}

/// Unless a store cannot be read: what it holds may be under way then. A transfer that ends meanwhile becomes a run,
/// and a run that ends tells the history.
void Host::settleHistory() {
  try {
    const auto tasks = plugin_->downloadManager().getDownloads();
    const std::vector<int64_t> transfers = this->transfers();
    const auto runs = store_.allPendingStates();
    if (!runs || !storeProblems().empty()) return;
    History::Known known;
    for (const auto& task : tasks) {
      const DownloadStatus status = task->status();
      const bool isThere = status == DownloadStatus::queued ||
                           std::ranges::find(transfers, task->id) != transfers.end() ||
                           std::ranges::find(*runs, task->id, &ProcessingState::downloadId) != runs->end();
      if (isActive(status) && isThere) known.underWay.emplace_back(task->id, task->request);
      if (status == DownloadStatus::completed) known.saved.push_back(task->id);
    }
    for (const ProcessingState& run : *runs) {
      known.underWay.push_back({run.downloadId, {.url = "", .album = run.album, .filename = run.filename}});
    }
    history_.settle(known);
  } catch (const Error& error) {
    log("The history was not looked through: {}", error.description());
  }
}

void Host::interrupt() {
  plugin_->downloadManager().stopStarting();
  application_.enterBackground();
  application_.expireBackgroundTime();
}

void Host::setActive(bool isActive) {
  std::lock_guard guard(lifeMutex_);
  isActive ? application_.enterForeground() : application_.enterBackground();
}

void Host::takeUpStoredRun() {
  std::lock_guard guard(lifeMutex_);
  const bool isActive = application_.applicationState() == UIApplicationState::active;
  if (!isActive && hasBackgroundLimit_) return;
  application_.enterForeground();
  if (!isActive) application_.enterBackground();
}

void Host::sweepPosters() {
  try {
    std::set<std::string> ids;
    for (const PHAsset& asset : photos_.fetchAllAssets()) ids.insert(asset.localIdentifier);
    for (const PHAsset& asset : photos_.fetchDeletedAssets()) ids.insert(asset.localIdentifier);
    posters_.keepOnly(ids);
  } catch (const Error& error) {
    log("The posters were not looked through: {}", error.description());
  }
}

/// Makes the link to the albums of the default home once: one that the user has removed does not come back.
void Host::showAlbums() {
  constexpr const char* key = "Tarn_AlbumsLinked";
  try {
    if (!isDefaultHome(home_) || defaults_.integer(key) != 0) return;
    if (linkAlbums(home_ / "Photos")) defaults_.setInteger(key, 1);
  } catch (const Error& error) {
    log("The link to the albums was not noted: {}", error.description());
  }
}

std::vector<int64_t> Host::pendingRuns() {
  std::vector<int64_t> ids;
  for (const ProcessingState& state : store_.allPendingStates().value_or(std::vector<ProcessingState>())) {
    ids.push_back(state.downloadId);
  }
  return ids;
}

std::vector<std::string> Host::notices() const {
  const auto problem = history_.problem();
  return problem ? std::vector{*problem} : std::vector<std::string>();
}

std::vector<int64_t> Host::records() {
  std::vector<int64_t> ids;
  for (const ProcessingState& state : store_.allStates()) ids.push_back(state.downloadId);
  return ids;
}

bool Host::hasTransfers() {
  return std::ranges::any_of(transfers_.storedTaskDescriptions(), [](const std::string& text) {
    const auto note = NotedDownload::parse(text);
    return !note || !note->isPaused;
  });
}

std::vector<int64_t> Host::transfers() {
  std::vector<int64_t> ids;
  for (const std::string& text : transfers_.storedTaskDescriptions()) {
    if (const auto note = NotedDownload::parse(text)) ids.push_back(note->id);
  }
  return ids;
}

}  // namespace tarn
