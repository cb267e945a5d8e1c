#include <algorithm>

#include "download/DownloadManager.h"
#include "download/FirstRecord.h"
#include "download/TransferNote.h"
#include "platform/Log.h"

namespace tarn {
namespace {

/// The name that a page gave becomes one entry of the Documents directory, or the download fails.
std::string checkedFilename(const DownloadTask& task) {
  if (!task.filename) throw Error("TarnFetch", -1, "The download has no file name");
  const std::string& name = *task.filename;
  const bool leavesDirectory = name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
                               name.find('\0') != std::string::npos;
  if (leavesDirectory) throw Error("TarnFetch", -1, "Not a file name: \"" + name + "\"");
  return name;
}

Path withId(const Path& file, int64_t id) {
  Path name = file.stem();
  name += "-" + std::to_string(id);
  name += file.extension();
  return file.parent_path() / name;
}

}  // namespace

DownloadRegistry::Match DownloadManager::findTask(const TaskPointer& transfer) {
  auto note = TransferNote::parse(transfer->taskDescription());
  auto match = registry_.match(transfer->taskIdentifier(), transfer->originalRequestURL(),
                               note ? std::optional(note->id) : std::nullopt);
  if (match.task && match.isNew) {
    match.task->update([&](DownloadTask::Snapshot& fields) {
      if (fields.isEnded()) return;
      fields.downloadTask = transfer;
      if (!note) return;
      fields.skipVideoFix = note->skipVideoFix;
      fields.skipAudioFix = note->skipAudioFix;
    });
  }
  return match;
}

void DownloadManager::urlSessionDidWriteData(const TaskPointer& transfer, int64_t, int64_t totalBytesWritten,
                                             int64_t totalBytesExpectedToWrite) {
  auto match = findTask(transfer);
  if (!match.task) {
    log("Download not found for progress update, taskId: {}", transfer->taskIdentifier());
    return;
  }
  if (match.isNew) log("Re-established task mapping for download {}", match.task->id);
  match.task->update([&](DownloadTask::Snapshot& fields) {
    fields.totalBytes = totalBytesExpectedToWrite;
    fields.bytesDownloaded = totalBytesWritten;
    fields.progress = transfer->fractionCompleted();
  });
}

/// A kill between the hand-over and the end of the transfer's record makes the session deliver the file once more.
bool DownloadManager::wasHandedOver(const DownloadTaskPointer& task) {
  return task->status() == DownloadStatus::completed || gate_.holds(task->id) || store_.loadState(task->id).has_value();
}

void DownloadManager::urlSessionDidFinishDownloading(const TaskPointer& transfer, const Path& location) {
  DownloadTaskPointer task = findTask(transfer).task;
  if (!task) {
    log("Download not found for completion, taskId: {}", transfer->taskIdentifier());
    return;
  }
  if (wasHandedOver(task)) {
    log("Download {} was handed over before - not taking it again", task->id);
    return;
  }
  log("Download completed, starting post-processing for {}", task->id);
  const ProcessingGate::HandOver handOver(gate_, task->id);
  const auto state = takeFile(task, location);
  if (!state) return;
  task->update([](DownloadTask::Snapshot& fields) {
    if (!fields.isEnded()) fields.status = DownloadStatus::processing;
  });
  taskStore_.persist();
  queueOrStartProcessing(*state, task);
}

/// Moves the file into Documents and stores the record of its run. Nothing where that failed; the task then reads so.
std::optional<ProcessingState> DownloadManager::takeFile(const DownloadTaskPointer& task, const Path& location) {
  try {
    auto hold = holdDestination(task);
    log("Download finished for url {} moving to {}", location.string(), hold.path().string());
    if (!platform_.files.fileExists(location)) {
      // The page hears of this one with the transfer's last event.
      log("Source file does not exist {}", location.string());
      failHandOver(task, std::make_exception_ptr(Error("FileNotFound", 404, "Downloaded file not found")));
      return std::nullopt;
    }
    moveIntoPlace(location, hold.path());
    auto fields = task->snapshot();
    const ProcessingState state = makeFirstRecord(platform_.files, platform_.clock,
                                                  {.id = task->id,
                                                   .filename = *task->filename,
                                                   .album = task->album,
                                                   .fileURL = hold.path(),
                                                   .skipVideoFix = fields.skipVideoFix,
                                                   .skipAudioFix = fields.skipAudioFix});
    store_.saveState(state);
    return state;
  } catch (const std::exception&) {
    removeIfExists(platform_.files, location);
    failHandOver(task, std::current_exception());
    // The transfer's last event tells of it as well; this one does not wait for that.
    postToMain([task](DownloadManager& self) {
      auto delegate = self.registry_.delegate(task->id);
      if (delegate && !task->snapshot().notificationSent) delegate->downloadDidFailed(task);
    });
    return std::nullopt;
  }
}

/// The place for the task's file. Another download's pending file is never replaced, and none while nobody can tell
/// which are pending: the newcomer then gets its id in its name on disk.
NamesInTheMaking::Hold DownloadManager::holdDestination(const DownloadTaskPointer& task) {
  const Path destination = platform_.files.documentsDirectory(true) / checkedFilename(*task);
  const auto anothers = store_.filesInUse(task->id);
  // A record that could not be stored has its run all the same.
  const auto isAnothersRun = [&](const ProcessingState& run) {
    return run.downloadId != task->id && run.fileURL == destination;
  };
  if (anothers && !anothers->contains(destination) && std::ranges::none_of(gate_.runsInHand(), isAnothersRun)) {
    if (auto hold = names_.tryHold(destination)) return std::move(*hold);
  }
  return names_.hold(withId(destination, task->id));
}

void DownloadManager::moveIntoPlace(const Path& location, const Path& destination) {
  if (platform_.files.fileExists(destination)) {
    log("File exists at: {}", destination.string());
    registry_.forgetLocation(destination);
    platform_.files.removeItem(destination);
  }
  platform_.files.moveItem(location, destination);
  // The record that follows must not outlive the file that it names.
  platform_.files.synchronizeDirectory(destination.parent_path());
}

void DownloadManager::failHandOver(const DownloadTaskPointer& task, const std::exception_ptr& failure) {
  log("Download could not enter the pipeline {} {}", task->id, describe(failure));
  fail(task, RunOutcome::Where::handOver, failure);
  taskStore_.persist();
  releaseSlot(task->id);
}

void DownloadManager::urlSessionDidComplete(const TaskPointer& transfer, const std::optional<Error>& error) {
  DownloadTaskPointer task = findTask(transfer).task;
  registry_.forgetTransfer(transfer->taskIdentifier());
  if (!task || task->isEnded()) return;
  if (error) {
    log("Download completed with error {} {}", task->id, error->description());
    fail(task, RunOutcome::Where::transfer, std::make_exception_ptr(*error));
    task->update([](DownloadTask::Snapshot& fields) { fields.downloadTask = nullptr; });
    taskStore_.persist();
    releaseSlot(task->id);
    notifyFailed(task);
    return;
  }
  // The gate knows of a run whose record cannot be read just now.
  if (gate_.holds(task->id) || store_.mayHaveState(task->id)) {
    log("URLSession task completed but processing ongoing for {} - skipping notification", task->id);
    return;
  }
  // A file that could not enter the pipeline, or a run that was over before this event.
  notifyFinished(task, task->snapshot().location.value_or(Path()));
}

}  // namespace tarn
