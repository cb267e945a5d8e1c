#include "download/detail/TransferEvents.h"

#include <algorithm>
#include <string>

#include "download/FirstRecord.h"
#include "platform/Log.h"
#include "platform/SafeName.h"

namespace tarn {
namespace {

/// The file name that the page gave. Throws Error if it is not the name of one file in a directory.
std::string checkedFilename(const DownloadRequest& request) {
  if (!request.filename) throw Error("TarnFetch", -1, "The download has no file name");
  const std::string& name = *request.filename;
  const bool leavesDirectory = name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos ||
                               name.find('\0') != std::string::npos;
  if (leavesDirectory) throw Error("TarnFetch", -1, "Not a file name: \"" + name + "\"");
  return name;
}

Path withId(const Path& file, int64_t id) {
  return file.parent_path() / withSuffix(file.filename().native(), NameKind::file, "-" + std::to_string(id));
}

/// What was asked for, with the name that the server gives if the request has none of its own. The flags are those of
/// the transfer's note, if it has one: a task of an earlier process may have come back without them.
DownloadRequest requestOf(const DownloadTask& task, const NSURLSessionDownloadTask& transfer) {
  DownloadRequest request = task.request;
  if (const auto note = NotedDownload::parse(transfer.taskDescription())) request.takeFlagsOf(note->request);
  const auto serversName = request.takesServersName ? transfer.suggestedFilename() : std::nullopt;
  if (serversName) request.filename = videoName(*serversName);
  return request;
}

}  // namespace

DownloadRegistry::Match TransferEvents::findTask(const TaskPointer& transfer) {
  const auto note = NotedDownload::parse(transfer->taskDescription());
  auto match = engine_.registry.match(transfer->taskIdentifier(), transfer->originalRequestURL(),
                                      note ? std::optional(note->id) : std::nullopt);
  if (match.task && match.isNew) {
    match.task->update([&](DownloadTask::Snapshot& fields) {
      if (!fields.isEnded()) fields.downloadTask = transfer;
    });
  }
  return match;
}

// --- Bytes written ---

void TransferEvents::urlSessionDidWriteData(const TaskPointer& transfer, int64_t, int64_t totalBytesWritten,
                                            int64_t totalBytesExpectedToWrite) {
  const auto match = findTask(transfer);
  if (!match.task) {
    log("Download not found for progress update, taskId: {}", transfer->taskIdentifier());
    return;
  }
  if (match.isNew) log("Re-established task mapping for download {}", match.task->id);
  const double fraction = transfer->fractionCompleted();
  match.task->update([&](DownloadTask::Snapshot& fields) {
    fields.totalBytes = totalBytesExpectedToWrite;
    fields.bytesDownloaded = totalBytesWritten;
    fields.progress = fraction;
  });
}

// --- The hand-over of the file ---

/// After a kill between the hand-over and the end of the transfer's record, the session delivers the file once more.
bool TransferEvents::wasHandedOver(const DownloadTask& task) {
  return task.status() == DownloadStatus::completed || engine_.gate.holds(task.id) ||
         engine_.store.loadState(task.id).has_value();
}

void TransferEvents::urlSessionDidFinishDownloading(const TaskPointer& transfer, const Path& location) {
  const DownloadTaskPointer task = findTask(transfer).task;
  if (!task) {
    log("Download not found for completion, taskId: {}", transfer->taskIdentifier());
    return;
  }
  if (wasHandedOver(*task)) {
    log("Download {} was handed over before - not taking it again", task->id);
    return;
  }
  log("Download completed, starting post-processing for {}", task->id);
  handOver(task, requestOf(*task, *transfer), location);
}

void TransferEvents::handOver(const DownloadTaskPointer& task, const DownloadRequest& request, const Path& location) {
  const ProcessingGate::HandOver handOver(engine_.gate, task->id);
  const auto record = takeFile(task, request, location);
  if (!record) return;
  task->update([](DownloadTask::Snapshot& fields) {
    if (!fields.isEnded()) fields.status = DownloadStatus::processing;
  });
  engine_.taskStore.persist();
  line_.enter(*record, task);
}

/// Moves the file into Documents and stores the record of its run. Returns nothing if that fails; the task and its
/// outcome then say so.
std::optional<ProcessingState> TransferEvents::takeFile(const DownloadTaskPointer& task, const DownloadRequest& request,
                                                        const Path& location) {
  FileManager& files = engine_.platform.files;
  try {
    if (request.filename != task->request.filename) {
      task->update([&](DownloadTask::Snapshot& fields) { fields.serversName = request.filename; });
    }
    const auto hold = holdDestination(task->id, request);
    log("Download finished for url {} moving to {}", location.string(), hold.path().string());
    if (!files.fileExists(location)) {
      log("Source file does not exist {}", location.string());
      failHandOver(task, std::make_exception_ptr(Error("FileNotFound", 404, "Downloaded file not found")));
      // With a transfer the page hears of it by the transfer's last event.
      if (!task->snapshot().downloadTask) engine_.news.tellFailed(task);
      return std::nullopt;
    }
    moveIntoPlace(location, hold.path());
    const ProcessingState record = makeFirstRecord(files, engine_.platform.clock, task->id, hold.path(), request);
    engine_.store.saveState(record);
    return record;
  } catch (const std::exception&) {
    removeIfExists(files, location);
    failHandOver(task, std::current_exception());
    engine_.news.tellFailedHandOver(task);
    return std::nullopt;
  }
}

/// Holds the place for the task's file. If another download's pending file is there, or nobody can tell which files are
/// pending, the new file gets its download's id in its name.
NamesInTheMaking::Hold TransferEvents::holdDestination(int64_t id, const DownloadRequest& request) {
  const Path destination = engine_.platform.files.documentsDirectory(true) / checkedFilename(request);
  // Held first: while it is, no other hand-over can make a pending file of it.
  if (auto hold = engine_.names.tryHold(destination)) {
    const auto anothers = engine_.store.filesInUse(id);
    // A run whose record could not be stored counts too.
    const auto isAnothersRun = [&](const ProcessingState& run) {
      return run.downloadId != id && run.fileURL == destination;
    };
    if (anothers && !anothers->contains(destination) &&
        std::ranges::none_of(engine_.gate.runsInHand(), isAnothersRun)) {
      return std::move(*hold);
    }
  }
  return engine_.names.hold(withId(destination, id));
}

void TransferEvents::moveIntoPlace(const Path& location, const Path& destination) {
  FileManager& files = engine_.platform.files;
  if (files.fileExists(destination)) {
    log("File exists at: {}", destination.string());
    engine_.registry.forgetLocation(destination);
    files.removeItem(destination);
  }
  files.moveItem(location, destination);
  // The record that follows must not outlive the file that it names.
  files.synchronizeDirectory(destination.parent_path());
}

void TransferEvents::failHandOver(const DownloadTaskPointer& task, const std::exception_ptr& failure) {
  log("Download could not enter the pipeline {} {}", task->id, describe(failure));
  engine_.news.fail(task, RunOutcome::Where::handOver, failure);
  engine_.taskStore.persist();
  starter_.releaseSlot(task->id);
}

// --- The last event of a transfer ---

void TransferEvents::urlSessionDidComplete(const TaskPointer& transfer, const std::optional<Error>& error) {
  const DownloadTaskPointer task = findTask(transfer).task;
  engine_.registry.forgetTransfer(transfer->taskIdentifier());
  if (!task || task->isEnded()) return;
  if (error) {
    log("Download completed with error {} {}", task->id, error->description());
    engine_.news.fail(task, RunOutcome::Where::transfer, std::make_exception_ptr(*error));
    task->update([](DownloadTask::Snapshot& fields) { fields.downloadTask = nullptr; });
    engine_.taskStore.persist();
    starter_.releaseSlot(task->id);
    engine_.news.tellFailed(task);
    return;
  }
  // The gate also knows the runs whose records cannot be read just now.
  if (engine_.gate.holds(task->id) || engine_.store.mayHaveState(task->id)) {
    log("URLSession task completed but processing ongoing for {} - skipping notification", task->id);
    return;
  }
  // The file could not enter the pipeline, or its run was over before this event.
  engine_.news.tellFinished(task, task->snapshot().location.value_or(Path()));
}

}  // namespace tarn
