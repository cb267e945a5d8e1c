#include "platform/host/Transfer.h"

#include <algorithm>
#include <utility>

namespace tarn {
namespace {

int64_t countOf(std::optional<uint64_t> size) {
  return size ? static_cast<int64_t>(*size) : -1;
}

}  // namespace

Transfer::Transfer(const TransferRecord& record, Phase phase, uint64_t received, std::weak_ptr<TransferOwner> owner)
    : taskIdentifier_(record.taskIdentifier),
      url_(record.url),
      owner_(std::move(owner)),
      taskDescription_(record.taskDescription),
      suggestedFilename_(record.suggestedFilename),
      phase_(phase),
      received_(static_cast<int64_t>(received)),
      expected_(countOf(record.expectedSize)),
      reported_(received_) {}

std::string Transfer::taskDescription() const {
  std::lock_guard guard(mutex_);
  return taskDescription_;
}

void Transfer::setTaskDescription(const std::string& text) {
  if (const auto owner = owner_.lock()) owner->describe(taskIdentifier_, text);
  std::lock_guard guard(mutex_);
  taskDescription_ = text;
}

std::optional<std::string> Transfer::suggestedFilename() const {
  std::lock_guard guard(mutex_);
  return suggestedFilename_.empty() ? std::nullopt : std::optional(suggestedFilename_);
}

void Transfer::setSuggestedFilename(const std::string& name) {
  std::lock_guard guard(mutex_);
  suggestedFilename_ = name;
}

Transfer::Phase Transfer::phase() const {
  std::lock_guard guard(mutex_);
  return phase_;
}

NSURLSessionTaskState Transfer::state() const {
  switch (phase()) {
    case Phase::suspended:
      return NSURLSessionTaskState::suspended;
    case Phase::running:
    case Phase::whole:
    case Phase::handedOver:
      return NSURLSessionTaskState::running;
    case Phase::canceling:
      return NSURLSessionTaskState::canceling;
    case Phase::completed:
      break;
  }
  return NSURLSessionTaskState::completed;
}

double Transfer::fractionCompleted() const {
  std::lock_guard guard(mutex_);
  if (expected_ <= 0) return 0;
  return std::clamp(static_cast<double>(received_) / static_cast<double>(expected_), 0.0, 1.0);
}

TransferState Transfer::transferState() const {
  std::lock_guard guard(mutex_);
  TransferState state{.received = static_cast<uint64_t>(received_)};
  if (expected_ >= 0) state.expected = static_cast<uint64_t>(expected_);
  if (nextTry_ && phase_ == Phase::running) {
    using std::chrono::milliseconds;
    const auto wait = std::chrono::ceil<milliseconds>(nextTry_->time - std::chrono::steady_clock::now());
    state.retry = {.number = nextTry_->number,
                   .most = nextTry_->most,
                   .in = std::max(wait, milliseconds(0)),
                   .why = nextTry_->why};
  }
  return state;
}

void Transfer::resume() {
  const auto owner = owner_.lock();
  if (owner && advance(Phase::suspended, Phase::running)) owner->start(shared_from_this());
}

void Transfer::suspend() {
  const auto owner = owner_.lock();
  if (owner && advance(Phase::running, Phase::suspended)) owner->suspend(shared_from_this());
}

void Transfer::cancel() {
  const auto owner = owner_.lock();
  if (!owner) return;
  {
    std::lock_guard guard(mutex_);
    const bool mayCancel = phase_ == Phase::suspended || phase_ == Phase::running || phase_ == Phase::whole;
    if (!mayCancel) return;
    phase_ = Phase::canceling;
  }
  owner->cancel(shared_from_this());
}

bool Transfer::advance(Phase from, Phase to) {
  std::lock_guard guard(mutex_);
  if (phase_ != from) return false;
  phase_ = to;
  return true;
}

void Transfer::setProgress(uint64_t received, std::optional<uint64_t> expected) {
  std::lock_guard guard(mutex_);
  received_ = static_cast<int64_t>(received);
  expected_ = countOf(expected);
}

void Transfer::setNextTry(std::optional<NextTry> next) {
  std::lock_guard guard(mutex_);
  nextTry_ = std::move(next);
}

bool Transfer::wantsReport() {
  std::lock_guard guard(mutex_);
  return !std::exchange(reportOnItsWay_, true);
}

Transfer::Progress Transfer::takeReport() {
  std::lock_guard guard(mutex_);
  reportOnItsWay_ = false;
  // A transfer that has started over counts anew.
  const int64_t before = received_ < reported_ ? 0 : reported_;
  reported_ = received_;
  return {received_ - before, received_, expected_};
}

}  // namespace tarn
