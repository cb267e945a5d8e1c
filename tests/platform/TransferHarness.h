#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/Error.h"
#include "platform/host/AsioDispatch.h"
#include "platform/host/CurlURLSession.h"
#include "platform/host/PosixFileManager.h"
#include "support/FaultServer.h"
#include "support/FaultyFileManager.h"
#include "support/TempDirectory.h"

namespace tarn::test {

constexpr uint64_t videoSize = 300'000;

/// A version of a video: its bytes differ from those of another at nearly every place.
inline Bytes video(unsigned version) {
  std::mt19937 generator(version);
  Bytes bytes(videoSize);
  for (auto& byte : bytes) byte = static_cast<uint8_t>(generator());
  return bytes;
}

/// What a delegate has heard of one task.
struct Heard {
  std::shared_ptr<NSURLSessionDownloadTask> task;
  std::optional<Bytes> file;
  std::optional<Error> error;
  int code() const { return error ? error->code() : 0; }
  int64_t total = -1;  ///< of the last didWriteData
  int64_t expected = -1;
  std::string events;  ///< w for each report of what was written, f for the file, e for the end

  bool isOver() const { return events.ends_with('e'); }
  auto reports() const { return std::ranges::count(events, 'w'); }
  bool isInOrder() const {
    const std::string allReports(static_cast<size_t>(reports()), 'w');
    return events == allReports + (error ? "e" : "fe") && (error || !allReports.empty());
  }
};

/// Listens and remembers. The hooks run on the delegate queue, before the event is noted.
class Listener : public NSURLSessionDownloadDelegate {
 public:
  explicit Listener(FileManager& files) : files_(files) {}

  std::function<void(NSURLSessionDownloadTask&)> onWrite = [](auto&) {};
  std::function<void(NSURLSessionDownloadTask&, const Path&)> onFinish = [](auto&, auto&) {};

  void urlSessionDidWriteData(const TaskPointer& task, int64_t, int64_t total, int64_t expected) override {
    onWrite(*task);
    note(task, 'w', [&](Heard& heard) {
      heard.total = total;
      heard.expected = expected;
    });
  }

  void urlSessionDidFinishDownloading(const TaskPointer& task, const Path& location) override {
    onFinish(*task, location);
    note(task, 'f', [&](Heard& heard) { heard.file = readFile(files_, location); });
  }

  void urlSessionDidComplete(const TaskPointer& task, const std::optional<Error>& error) override {
    note(task, 'e', [&](Heard& heard) { heard.error = error; });
  }

  /// Waits until `isEnough` of a task; throws when that takes too long.
  Heard waitFor(int64_t taskIdentifier, const std::function<bool(const Heard&)>& isEnough) {
    std::unique_lock lock(mutex_);
    Heard& heard = heard_[taskIdentifier];
    const bool came = changed_.wait_for(lock, std::chrono::seconds(60), [&] { return isEnough(heard); });
    if (!came) throw std::runtime_error("waited too long for a transfer's event");
    return heard;
  }
  Heard waitForEnd(int64_t taskIdentifier) {
    return waitFor(taskIdentifier, [](const Heard& heard) { return heard.isOver(); });
  }
  Heard heard(int64_t taskIdentifier) {
    std::lock_guard guard(mutex_);
    return heard_[taskIdentifier];
  }

 private:
  void note(const TaskPointer& task, char event, const std::function<void(Heard&)>& change) {
    std::lock_guard guard(mutex_);
    Heard& heard = heard_[task->taskIdentifier()];
    heard.task = task;
    heard.events += event;
    change(heard);
    changed_.notify_all();
  }

  FileManager& files_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<int64_t, Heard> heard_;
};

/// A directory, and on it one process after another: a service, its session and its delegate.
struct Harness {
  ~Harness() { stop(); }

  const TempDirectory root;
  PosixFileManager disk{root.path()};
  FaultyFileManager files{disk};  ///< the disk as transfers see it
  AsioDispatch dispatch;
  CurlURLSessionOptions options{.initialPause = std::chrono::milliseconds(2),
                                .maximumPause = std::chrono::milliseconds(10),
                                .maximumTries = 5,
                                .stallTime = std::chrono::seconds(60),
                                .userAgent = {}};
  std::shared_ptr<Listener> listener;
  std::unique_ptr<CurlURLSessionService> service;
  std::unique_ptr<NSURLSession> session;

  Path directory() const { return root / "Transfers"; }
  Path part(int64_t taskIdentifier) const { return directory() / (std::to_string(taskIdentifier) + ".part"); }

  void start() {
    if (!listener) listener = std::make_shared<Listener>(disk);
    service = std::make_unique<CurlURLSessionService>(files, dispatch, directory(), options);
    session = service->makeBackgroundSession("downloads", listener);
  }

  /// As far as transfers can tell, the death of the process.
  void stop() {
    session.reset();
    service.reset();
    listener.reset();
  }

  std::shared_ptr<NSURLSessionDownloadTask> download(const std::string& url, const TransferOptions& wishes = {}) {
    auto task = session->downloadTask(url, "description of " + url, wishes);
    task->resume();
    return task;
  }
  /// Downloads, and waits for the first report of what was written.
  std::shared_ptr<NSURLSessionDownloadTask> fetchSome(const std::string& url, const TransferOptions& wishes = {}) {
    auto task = download(url, wishes);
    listener->waitFor(task->taskIdentifier(), [](const Heard& heard) { return heard.reports() > 0; });
    return task;
  }
  /// Downloads, and waits for the end.
  Heard fetch(const std::string& url, const TransferOptions& wishes = {}) {
    return listener->waitForEnd(download(url, wishes)->taskIdentifier());
  }

  /// Names in the transfers' directory.
  size_t filesLeft() { return disk.contentsOfDirectory(directory()).size(); }
};

/// The same beside a server that has one video.
struct ServedHarness : Harness {
  using Replies = std::vector<Reply>;
  explicit ServedHarness(Replies replies = {}, Reply afterwards = {}) {
    server.serve("/file", ServedFile::of(video(1)), std::move(replies), std::move(afterwards));
  }
  ~ServedHarness() { stop(); }

  FaultServer server;
  const std::string url = server.url("/file");
};

}  // namespace tarn::test
