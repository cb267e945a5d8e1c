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
      taskDescription_(record.taskDescription),
      owner_(std::move(owner)),
      phase_(phase),
      received_(static_cast<int64_t>(received)),
      expected_(countOf(record.expectedSize)),
      reported_(received_) {}

Transfer::Phase Transfer::phase() const {
  std::lock_guard guard(mutex_);
  return phase_;
}

NSURLSessionTaskState Transfer::state() const {
  switch (phase()) {
    case Phase::suspended:
      return NSURLSessionTaskState::suspended;
    case Phase::running:
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

void Transfer::resume() {
  const auto owner = owner_.lock();
  if (owner && advance(Phase::suspended, Phase::running)) owner->start(shared_from_this());
}

void Transfer::cancel() {
  const auto owner = owner_.lock();
  if (!owner) return;
  // In the order of life, so that a resume in between is not missed.
  if (advance(Phase::suspended, Phase::canceling) || advance(Phase::running, Phase::canceling)) {
    owner->cancel(shared_from_this());
  }
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
