#include "platform/host/TransferLoop.h"

#include <curl/curl.h>
#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <new>
#include <utility>

#include "platform/Log.h"
#include "platform/host/TransferHandOver.h"

namespace tarn {
namespace {

using Phase = Transfer::Phase;

void* makeMulti() {
  static const CURLcode initialized = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (initialized != CURLE_OK) throw std::bad_alloc();
  return curl_multi_init();
}

/// libcurl leaves SIGPIPE to us: a write of the TLS library to a closed connection may raise it.
void blockPipeSignal() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

}  // namespace

void TransferLoop::MultiDeleter::operator()(void* multi) const {
  curl_multi_cleanup(multi);
}

TransferLoop::TransferLoop(FileManager& files, std::shared_ptr<TransferStore> store,
                           std::shared_ptr<DelegateQueue> delegateQueue, CurlURLSessionOptions options)
    : files_(files),
      store_(std::move(store)),
      delegateQueue_(std::move(delegateQueue)),
      options_(std::move(options)),
      multi_(makeMulti()) {
  if (!multi_) throw std::bad_alloc();
  thread_ = std::thread([this] { run(); });
}

TransferLoop::~TransferLoop() {
  stop();
}

void TransferLoop::stop() {
  if (!thread_.joinable()) return;
  post({Command::Kind::stop, nullptr});
  thread_.join();
}

void TransferLoop::start(std::shared_ptr<Transfer> transfer) {
  post({Command::Kind::start, std::move(transfer)});
}

void TransferLoop::suspend(std::shared_ptr<Transfer> transfer) {
  post({Command::Kind::suspend, std::move(transfer)});
}

void TransferLoop::describe(int64_t taskIdentifier, const std::string& text) {
  store_->setTaskDescription(taskIdentifier, text);
}

void TransferLoop::cancel(std::shared_ptr<Transfer> transfer) {
  store_->removeRecord(transfer->taskIdentifier());
  post({Command::Kind::cancel, std::move(transfer)});
}

void TransferLoop::post(Command command) {
  std::lock_guard guard(mutex_);
  commands_.push_back(std::move(command));
  curl_multi_wakeup(multi_.get());
}

void TransferLoop::run() {
  blockPipeSignal();
  while (obeyCommands()) {
    startDueJobs();
    letHeldGoOn();
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    endFinishedAttempts();
    endStalledAttempts();
    closeIdleConnections();
    curl_multi_poll(multi_.get(), nullptr, 0, millisecondsToNextDeadline(), nullptr);
  }
  for (auto& [identifier, job] : jobs_) detach(job);
  jobs_.clear();
}

/// False if the loop is to stop.
bool TransferLoop::obeyCommands() {
  std::vector<Command> commands;
  {
    std::lock_guard guard(mutex_);
    commands.swap(commands_);
  }
  for (const auto& command : commands) {
    if (command.kind == Command::Kind::stop) return false;
    if (command.kind == Command::Kind::start) take(command.transfer);
    if (command.kind == Command::Kind::suspend) putAside(command.transfer);
    if (command.kind == Command::Kind::cancel) drop(command.transfer);
  }
  return true;
}

void TransferLoop::take(const std::shared_ptr<Transfer>& transfer) {
  auto record = store_->record(transfer->taskIdentifier());
  // Meanwhile it may have been cancelled, or have come to its end before a suspension that this start follows.
  if (!record || transfer->phase() != Phase::running) return;
  Job& job = jobs_[transfer->taskIdentifier()];
  job.transfer = transfer;
  job.record = std::move(*record);
  job.record.started = true;  // stored before the first byte
  job.nextTry = Clock::now();
  if (!job.record.complete) return;

  const auto part = files_.attributes(store_->partFile(job.record.taskIdentifier));
  job.record.complete = part && part->size == job.record.expectedSize;
  if (job.record.complete) finish(job);
}

void TransferLoop::endJob(int64_t taskIdentifier) {
  const auto job = jobs_.find(taskIdentifier);
  if (job == jobs_.end()) return;
  detach(job->second);
  jobs_.erase(job);
}

/// What the transfer has fetched stays.
void TransferLoop::putAside(const std::shared_ptr<Transfer>& transfer) {
  endJob(transfer->taskIdentifier());
  auto record = store_->record(transfer->taskIdentifier());
  if (!record || !record->started) return;
  record->started = false;
  try {
    store_->save(*record);
  } catch (const Error& failure) {
    log("Transfer {} could not be stored as suspended: {}", transfer->taskIdentifier(), failure.description());
  }
}

void TransferLoop::drop(const std::shared_ptr<Transfer>& transfer) {
  endJob(transfer->taskIdentifier());
  store_->remove(transfer->taskIdentifier());
  delegateQueue_->post([transfer](NSURLSessionDownloadDelegate& delegate) {
    transfer->advance(Phase::canceling, Phase::completed);
    delegate.urlSessionDidComplete(transfer, URLError(URLError::cancelled, "cancelled"));
  });
}

void TransferLoop::startDueJobs() {
  const auto now = Clock::now();
  for (auto next = jobs_.begin(); next != jobs_.end();) {
    Job& job = next++->second;  // a job that cannot start leaves the map
    if (!job.attempt && job.nextTry <= now) startAttempt(job);
  }
}

void TransferLoop::letHeldGoOn() {
  const auto now = Clock::now();
  for (auto next = jobs_.begin(); next != jobs_.end();) {
    Job& job = next++->second;  // a job that ends leaves the map
    const auto until = job.attempt ? job.attempt->heldUntil() : std::nullopt;
    if (!until || *until > now) continue;
    if (const int code = job.attempt->goOn()) endAttempt(job, code);
  }
}

void TransferLoop::startAttempt(Job& job) {
  try {
    auto progress = [this, &job](uint64_t received, std::optional<uint64_t> expected) {
      report(job, received, expected);
    };
    job.attempt = std::make_unique<TransferAttempt>(files_, *store_, job.record, options_.userAgent, progress);
    // The connection of a try that has failed may be dead; over HTTP/2 it would be used again.
    if (job.tries > 0) curl_easy_setopt(job.attempt->easy(), CURLOPT_FRESH_CONNECT, 1L);
    job.transfer->setNextTry(std::nullopt);
    curl_multi_add_handle(multi_.get(), job.attempt->easy());
  } catch (const Error& failure) {
    fail(job, failure);
  }
}

void TransferLoop::detach(Job& job) {
  if (!job.attempt) return;
  curl_multi_remove_handle(multi_.get(), job.attempt->easy());
  idleConnectionsEnd_ = Clock::now() + options_.idleTime;
}

void TransferLoop::endFinishedAttempts() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    const void* easy = message->easy_handle;
    const int code = message->data.result;
    const auto ended = std::find_if(jobs_.begin(), jobs_.end(), [easy](const auto& entry) {
      return entry.second.attempt && entry.second.attempt->easy() == easy;
    });
    if (ended != jobs_.end()) endAttempt(ended->second, code);
  }
}

void TransferLoop::endStalledAttempts() {
  const auto silentSince = Clock::now() - options_.stallTime;
  for (auto next = jobs_.begin(); next != jobs_.end();) {
    Job& job = next++->second;
    if (job.attempt && job.attempt->lastHeard() <= silentSince) endAttempt(job, CURLE_OPERATION_TIMEDOUT);
  }
}

void TransferLoop::endAttempt(Job& job, int code) {
  detach(job);
  const auto outcome = job.attempt->finish(code);
  if (outcome.end == TransferAttempt::End::redirected) {
    curl_multi_add_handle(multi_.get(), job.attempt->easy());
    return;
  }
  const auto attempt = std::exchange(job.attempt, nullptr);
  job.tries = attempt->hasProgressed() ? 1 : job.tries + 1;
  if (attempt->hasStartedOver()) ++job.startOvers;

  switch (outcome.end) {
    case TransferAttempt::End::redirected:
      return;
    case TransferAttempt::End::whole:
      return finish(job);
    case TransferAttempt::End::transient:
      return retryOrFail(job, outcome);
    case TransferAttempt::End::final:
      return fail(job, *outcome.error);
  }
}

void TransferLoop::retryOrFail(Job& job, const TransferAttempt::Outcome& outcome) {
  const Error& error = *outcome.error;
  const int maximumTries = job.record.options.retries.value_or(options_.maximumTries - 1) + 1;
  if (job.tries >= maximumTries || job.startOvers >= maximumTries) return fail(job, error);
  auto pause = options_.initialPause;
  for (int i = 1; i < job.tries && pause < options_.maximumPause; ++i) pause *= 2;
  pause = std::min(pause, options_.maximumPause);
  job.nextTry = Clock::now() + pause;
  job.transfer->setNextTry({{.number = job.tries, .most = maximumTries - 1, .time = job.nextTry, .why = outcome.why}});
  log("Transfer {} tries again in {} ms: {}", job.record.taskIdentifier, pause.count(), error.description());
}

/// The job is gone when this returns.
void TransferLoop::fail(Job& job, const Error& error) {
  const auto transfer = job.transfer;
  jobs_.erase(transfer->taskIdentifier());
  if (!transfer->advance(Phase::running, Phase::completed)) return;  // a cancellation is on its way
  store_->remove(transfer->taskIdentifier());
  delegateQueue_->post(
      [transfer, error](NSURLSessionDownloadDelegate& delegate) { delegate.urlSessionDidComplete(transfer, error); });
}

/// The job is gone when this returns.
void TransferLoop::finish(Job& job) {
  job.transfer->setSuggestedFilename(job.record.suggestedFilename);
  if (!job.transfer->advance(Phase::running, Phase::whole)) {  // a suspension or a cancellation is on its way
    jobs_.erase(job.transfer->taskIdentifier());
    return;
  }
  delegateQueue_->post([&files = files_, store = store_, transfer = job.transfer,
                        record = job.record](NSURLSessionDownloadDelegate& delegate) {
    handOver(files, *store, transfer, record, delegate);
  });
  jobs_.erase(job.transfer->taskIdentifier());
}

void TransferLoop::report(Job& job, uint64_t received, std::optional<uint64_t> expected) {
  job.transfer->setProgress(received, expected);
  const auto now = Clock::now();
  if (now - job.lastReport < options_.reportInterval || !job.transfer->wantsReport()) return;
  job.lastReport = now;
  delegateQueue_->post([transfer = job.transfer](NSURLSessionDownloadDelegate& delegate) {
    if (transfer->phase() == Phase::running) tarn::report(transfer, delegate);
  });
}

/// libcurl keeps connections for the next transfer, and does not notice that a server closes them meanwhile.
void TransferLoop::closeIdleConnections() {
  if (!jobs_.empty() || !idleConnectionsEnd_ || *idleConnectionsEnd_ > Clock::now()) return;
  std::unique_ptr<void, MultiDeleter> fresh(makeMulti());
  std::lock_guard guard(mutex_);
  if (!commands_.empty()) return;  // whose wake-up the old one has
  if (fresh) multi_.swap(fresh);
  idleConnectionsEnd_.reset();
}

int TransferLoop::millisecondsToNextDeadline() const {
  using std::chrono::milliseconds;
  milliseconds wait(std::numeric_limits<int>::max());
  const auto now = Clock::now();
  const auto sleepUntil = [&](Clock::time_point deadline) {
    wait = std::clamp(std::chrono::ceil<milliseconds>(deadline - now), milliseconds(0), wait);
  };
  if (jobs_.empty() && idleConnectionsEnd_) sleepUntil(*idleConnectionsEnd_);
  for (const auto& [identifier, job] : jobs_) {
    auto deadline = job.attempt ? job.attempt->lastHeard() + options_.stallTime : job.nextTry;
    if (const auto until = job.attempt ? job.attempt->heldUntil() : std::nullopt) deadline = std::min(deadline, *until);
    sleepUntil(deadline);
  }
  return static_cast<int>(wait.count());
}

}  // namespace tarn
