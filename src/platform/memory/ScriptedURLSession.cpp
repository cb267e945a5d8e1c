#include "platform/memory/ScriptedURLSession.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "platform/TempFile.h"
#include "platform/URL.h"

namespace tarn {

using State = NSURLSessionTaskState;

ScriptedDownloadTask::ScriptedDownloadTask(int64_t taskIdentifier, std::string url, std::string taskDescription,
                                           TransferOptions options, State state)
    : taskIdentifier_(taskIdentifier),
      url_(std::move(url)),
      options_(std::move(options)),
      taskDescription_(std::move(taskDescription)),
      state_(state) {}

State ScriptedDownloadTask::state() const {
  std::lock_guard guard(mutex_);
  return state_;
}

double ScriptedDownloadTask::fractionCompleted() const {
  std::lock_guard guard(mutex_);
  return expected_ > 0 ? static_cast<double>(received_) / static_cast<double>(expected_) : 0;
}

std::string ScriptedDownloadTask::taskDescription() const {
  std::lock_guard guard(mutex_);
  return taskDescription_;
}

TransferState ScriptedDownloadTask::transferState() const {
  std::lock_guard guard(mutex_);
  TransferState state{.received = static_cast<uint64_t>(received_)};
  if (expected_ >= 0) state.expected = static_cast<uint64_t>(expected_);
  return state;
}

void ScriptedDownloadTask::setTaskDescription(const std::string& text) {
  std::lock_guard guard(mutex_);
  taskDescription_ = text;
}

std::optional<std::string> ScriptedDownloadTask::suggestedFilename() const {
  std::lock_guard guard(mutex_);
  return suggestedFilename_;
}

void ScriptedDownloadTask::resume() {
  std::lock_guard guard(mutex_);
  if (state_ == State::suspended) state_ = State::running;
}

void ScriptedDownloadTask::suspend() {
  std::lock_guard guard(mutex_);
  if (state_ == State::running && !isHandedOver_) state_ = State::suspended;
}

void ScriptedDownloadTask::cancel() {
  std::lock_guard guard(mutex_);
  if (state_ != State::completed && !isHandedOver_) state_ = State::canceling;
}

bool ScriptedDownloadTask::isStored() const {
  std::lock_guard guard(mutex_);
  return !isHandedOver_ && (state_ == State::suspended || state_ == State::running);
}

class ScriptedURLSessionService::Session : public NSURLSession {
 public:
  explicit Session(ScriptedURLSessionService& service) : service_(service) {}
  ~Session() override {
    std::lock_guard guard(service_.mutex_);
    service_.delegate_.reset();
  }

  std::shared_ptr<NSURLSessionDownloadTask> downloadTask(const std::string& url, const std::string& taskDescription,
                                                         const TransferOptions& options) override {
    if (!URL::parse(url)) throw URLError(-1, "not an http or https URL: " + url);
    return service_.make(url, taskDescription, options);
  }

  std::vector<std::shared_ptr<NSURLSessionDownloadTask>> allTasks() override {
    auto tasks = service_.tasks();
    return {tasks.begin(), tasks.end()};
  }

 private:
  ScriptedURLSessionService& service_;
};

ScriptedURLSessionService::ScriptedURLSessionService(FileManager& files, Path directory,
                                                     std::shared_ptr<DispatchQueue> delegateQueue)
    : files_(files), directory_(std::move(directory)), delegateQueue_(std::move(delegateQueue)) {}

std::unique_ptr<NSURLSession> ScriptedURLSessionService::makeBackgroundSession(
    const std::string&, std::weak_ptr<NSURLSessionDownloadDelegate> delegate) {
  std::lock_guard guard(mutex_);
  delegate_ = std::move(delegate);
  std::erase_if(tasks_, [](const auto& task) { return !task->isStored(); });
  for (auto& task : tasks_) {
    const State state = task->state() == State::suspended ? State::suspended : State::running;
    task = std::make_shared<ScriptedDownloadTask>(task->taskIdentifier(), task->originalRequestURL(),
                                                  task->taskDescription(), task->options(), state);
  }
  return std::make_unique<Session>(*this);
}

std::vector<std::string> ScriptedURLSessionService::storedTaskDescriptions() {
  std::vector<std::string> descriptions;
  for (const auto& task : tasks()) {
    if (task->isStored()) descriptions.push_back(task->taskDescription());
  }
  return descriptions;
}

std::vector<ScriptedURLSessionService::TaskPointer> ScriptedURLSessionService::tasks() const {
  std::lock_guard guard(mutex_);
  return tasks_;
}

ScriptedURLSessionService::TaskPointer ScriptedURLSessionService::task(const std::string& url) const {
  const auto all = tasks();
  const auto found =
      std::find_if(all.rbegin(), all.rend(), [&url](const auto& task) { return task->originalRequestURL() == url; });
  if (found == all.rend()) throw std::out_of_range("no transfer of " + url);
  return *found;
}

ScriptedURLSessionService::TaskPointer ScriptedURLSessionService::make(const std::string& url,
                                                                       const std::string& taskDescription,
                                                                       const TransferOptions& options) {
  std::lock_guard guard(mutex_);
  return tasks_.emplace_back(
      std::make_shared<ScriptedDownloadTask>(++lastIdentifier_, url, taskDescription, options, State::suspended));
}

void ScriptedURLSessionService::call(const std::function<void(NSURLSessionDownloadDelegate&)>& event) {
  std::unique_lock lock(mutex_);
  const auto delegate = delegate_.lock();
  lock.unlock();
  if (!delegate) return;
  if (delegateQueue_) {
    delegateQueue_->sync([&] { event(*delegate); });
  } else {
    event(*delegate);
  }
}

void ScriptedURLSessionService::suggest(const std::string& url, const std::string& filename) {
  const auto named = task(url);
  std::lock_guard guard(named->mutex_);
  named->suggestedFilename_ = filename;
}

void ScriptedURLSessionService::writeData(const std::string& url, int64_t total, int64_t expected) {
  const auto writer = task(url);
  int64_t written = total;
  {
    std::lock_guard guard(writer->mutex_);
    written -= std::exchange(writer->received_, total);
    writer->expected_ = expected;
  }
  call([&](auto& delegate) { delegate.urlSessionDidWriteData(writer, written, total, expected); });
}

void ScriptedURLSessionService::finish(const std::string& url, ByteView bytes) {
  const auto finished = task(url);
  const TempFile location(files_, directory_ / fmt::format("{}.delivery", finished->taskIdentifier()));
  files_.createDirectory(directory_);
  writeFileAtomically(files_, location.path(), bytes);
  handOver(finished, location.path());
}

void ScriptedURLSessionService::finishWithoutFile(const std::string& url) {
  handOver(task(url), directory_ / "missing.delivery");
}

void ScriptedURLSessionService::handOver(const TaskPointer& task, const Path& location) {
  call([&](auto& delegate) {
    if (task->state() != State::running) return;
    delegate.urlSessionDidFinishDownloading(task, location);
    std::lock_guard guard(task->mutex_);
    task->isHandedOver_ = true;
  });
}

void ScriptedURLSessionService::complete(const std::string& url, const std::optional<Error>& error) {
  end(task(url), error);
}

void ScriptedURLSessionService::deliverCancellations() {
  for (const auto& task : tasks()) {
    if (task->state() == State::canceling) end(task, std::nullopt);
  }
}

void ScriptedURLSessionService::end(const TaskPointer& task, const std::optional<Error>& error) {
  std::optional<Error> told = error;
  {
    std::lock_guard guard(task->mutex_);
    const auto before = std::exchange(task->state_, State::completed);
    if (before == State::canceling) told = URLError(URLError::cancelled, "cancelled");
  }
  {
    std::lock_guard guard(mutex_);
    std::erase(tasks_, task);
  }
  call([&](auto& delegate) { delegate.urlSessionDidComplete(task, told); });
}

}  // namespace tarn
