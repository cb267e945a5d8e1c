#include "reliability/WholeRun.h"

#include <algorithm>

#include "download/DocumentsSweep.h"
#include "download/detail/TaskStore.h"
#include "mp4/MP4SampleTableParser.h"
#include "parameters/NALUnitParser.h"

namespace tarn::test {
namespace {

constexpr const char* url = "http://127.0.0.1/clip.mp4";
constexpr const char* album = "Trips";

}  // namespace

Bytes videoSamples(const Bytes& movie) {
  InMemoryFileManager files;
  writeFileAtomically(files, "/movie.mp4", movie);
  auto file = files.open("/movie.mp4", OpenMode::reading);
  MP4SampleTableParser table;
  table.parseSampleTable(
      *file, NALUnitParser::findVideoTrackStbl(*file, MP4BoxUtils::findBox(*file, "moov", UINT64_MAX).value()).value());
  Bytes samples;
  for (const SampleInfo& sample : table.allSamples()) {
    file->seek(sample.fileOffset);
    const Bytes bytes = file->read(sample.size);
    samples.insert(samples.end(), bytes.begin(), bytes.end());
  }
  return samples;
}

void WholeRun::WatchedSavingStep::run(ProcessingRun& run) {
  Bytes found = readFile(run.files, run.fileURL);
  SavingStep::run(run);
  if (run.outcome.kind == RunOutcome::Kind::saved) content = std::move(found);
}

WholeRun::WholeRun(const Bytes& recording) : recording_(recording) {
  disk.createDirectory("/home/delivered");
  photos_.authorization().setStatus(PHAuthorizationStatus::notDetermined);
}

void WholeRun::disarm() {
  files.disarm();
  calls.disarm();
}

void WholeRun::start() {
  // There the plug-in waits for its next look at the progress, in real time.
  dispatch_.hold(dispatch_.globalQueue(QualityOfService::background));
  application_.emplace(dispatch_);
  ProcessingStateManager store(defaults_, files, clock_);
  removeLeftovers(files, store);
  for (const char* directory : {"Defaults", "Documents"}) {
    if (files.fileExists(Path("/home") / directory)) removeAbandonedSiblings(files, Path("/home") / directory);
  }
  plugin_ = TarnBridge::create({files, defaults_, clock_, dispatch_, *application_, faultyPhotos_, faultyTransfers_},
                               steps_.withLast(savingStep_));
  plugin_->setEventListener([this](const std::string& event, const JSObject& data) {
    if (event == "downloadComplete" && data.find("assetId")) ++successesTold_;
  });
  plugin_->load();
  if (!faultyTransfers_.storedTaskDescriptions().empty())
    plugin_->downloadManager().handleEventsForBackgroundURLSession();
  dispatch_.runUntilIdle();
}

void WholeRun::die() {
  plugin_.reset();
  dispatch_.release(dispatch_.globalQueue(QualityOfService::background));
  dispatch_.runUntilIdle();
  application_.reset();
}

bool WholeRun::ask() {
  bool isTaken = false;
  if (!plugin_) start();
  auto call =
      std::make_shared<CAPPluginCall>("saveVideo", JSObject{{"url", url}, {"album", album}, {"filename", "clip.mp4"}},
                                      [&](const CAPPluginCall::Answer& answer) { isTaken = answer.resolved; });
  plugin_->call(call);
  dispatch_.runUntilIdle();
  return isTaken;
}

bool WholeRun::save() {
  bool isTaken = false;
  try {
    isTaken = ask();
    deliver();
  } catch (const Error&) {
    // A process that cannot go on ends here.
  }
  return isTaken;
}

void WholeRun::dieInMidTransfer() {
  ask();
  die();
}

bool WholeRun::hasRunningTransfer() const {
  return std::ranges::any_of(transfers_.tasks(),
                             [](const auto& task) { return task->state() == NSURLSessionTaskState::running; });
}

void WholeRun::deliver() {
  const auto size = static_cast<int64_t>(recording_.size());
  const std::function<void()> events[] = {
      [&] { transfers_.writeData(url, 0, -1); },
      [&] { transfers_.writeData(url, size / 2, size); },
      [&] { calls.nextFails() ? transfers_.finishWithoutFile(url) : transfers_.finish(url, recording_); },
      [&] { transfers_.complete(url); },
  };
  while (hasRunningTransfer()) {
    for (const auto& event : events) {
      if (calls.nextFails()) {
        transfers_.complete(url, URLError(56, "The connection was reset"));
        break;
      }
      event();
    }
    dispatch_.runUntilIdle();
  }
}

bool WholeRun::hasPendingWork() {
  const auto pending = ProcessingStateManager(defaults_, files, clock_).allPendingStates();
  return pending && !pending->empty();
}

void WholeRun::restart() {
  die();
  start();
  deliver();
  for (int i = 0; i < 10 && hasPendingWork(); ++i) {
    application_->enterForeground();
    dispatch_.runUntilIdle();
  }
}

size_t WholeRun::assetsInAlbum() {
  auto albums = photos_.fetchAssetCollections(album);
  return albums.empty() ? 0 : photos_.fetchAssets(albums.front(), std::nullopt).size();
}

std::string WholeRun::leftovers() {
  std::string found;
  for (const Path& directory : {disk.documentsDirectory(true), disk.temporaryDirectory()}) {
    for (const std::string& name : disk.contentsOfDirectory(directory)) found += (directory / name).string() + " ";
  }
  if (hasPendingWork()) found += "a record ";
  // A task without a file or a record may stay listed: it is cleared with the old ones, or by the page.
  if (auto tasks = defaults_.data(TaskStore::downloadsKey)) decodeDownloadTasks(*tasks);
  return found;
}

}  // namespace tarn::test
