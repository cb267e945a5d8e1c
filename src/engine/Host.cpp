#include "engine/Host.h"

#include <algorithm>

#include "download/DocumentsSweep.h"
#include "download/DownloadRequest.h"
#include "engine/AlbumsLink.h"
#include "engine/PosterProgram.h"
#include "kind/Kind.h"
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
      log_(options.keepsLog ? std::make_unique<LogFile>(options.home) : nullptr),
      files_(files),
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
  plugin_ = TarnBridge::create(platform, steps_.withLast(savingStep_), [this](const RunOutcome& outcome) {
    outcomes_.keep(outcome);
    if (outcome.kind == RunOutcome::Kind::saved) showAlbums();
  });
}

Host::~Host() {
  interrupt();
  application_.terminate();
  // The main queue is serial: behind this call the active run has been asked to stop, and stopping waits for it.
  dispatch_.mainQueue().sync([] {});
  // The plug-in's watcher ends with it; a run that still goes on keeps the engine until it ends.
  plugin_.reset();
  dispatch_.stop();
}

void Host::start() {
  plugin_->load();
  if (!transfers_.storedTaskDescriptions().empty()) plugin_->downloadManager().handleEventsForBackgroundURLSession();
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
  std::set<std::string> ids;
  for (const PHAsset& asset : photos_.fetchAllAssets()) ids.insert(asset.localIdentifier);
  for (const PHAsset& asset : photos_.fetchDeletedAssets()) ids.insert(asset.localIdentifier);
  posters_.keepOnly(ids);
}

/// Makes the link to the albums of the default home once: one that the user has removed does not come back.
void Host::showAlbums() {
  constexpr const char* key = "Tarn_AlbumsLinked";
  try {
    if (home_ != defaultHome() || defaults_.integer(key) != 0) return;
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
