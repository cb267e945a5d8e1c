#include "pipeline/ProcessingGate.h"

#include <algorithm>

namespace tarn {

ProcessingGate::ProcessingGate(ProcessingStateManager& store) : store_(store) {}

ProcessingGate::Token ProcessingGate::begin(const ProcessingState& state) {
  isProcessing_ = true;
  currentProcessingState_ = state;
  currentCancellationToken_ = std::make_shared<CancellationToken>();
  runsInFlight_.emplace(currentCancellationToken_.get(), state.downloadId);
  return currentCancellationToken_;
}

ProcessingGate::Admission ProcessingGate::admit(const ProcessingState& state, const std::function<bool()>& isWanted) {
  std::lock_guard guard(processingLock_);
  if (!isWanted()) return {.isRefused = true};
  if (!isProcessing_ && !isClosed_) return {.token = begin(state)};
  pendingProcessingQueue_.push_back(state);
  return {.position = pendingProcessingQueue_.size(),
          .currentId = currentProcessingState_ ? currentProcessingState_->downloadId : 0};
}

std::optional<ProcessingGate::Start> ProcessingGate::resume(int64_t id) {
  std::lock_guard guard(processingLock_);
  if (isProcessing_ || isClosed_) return std::nullopt;
  auto state = store_.loadState(id);
  if (!state || isFinal(state->stage)) return std::nullopt;
  return Start{*state, begin(*state)};
}

ProcessingGate::Next ProcessingGate::endRun(const Token& token, const IsKnown& isKnown) {
  std::lock_guard guard(processingLock_);
  runsInFlight_.erase(token.get());
  Next next;
  if (!isCurrent(*token)) return next;
  next.wasCurrent = true;
  isProcessing_ = false;
  currentProcessingState_.reset();
  currentCancellationToken_.reset();
  while (!isClosed_ && !next.start && !pendingProcessingQueue_.empty()) {
    ProcessingState state = std::move(pendingProcessingQueue_.front());
    pendingProcessingQueue_.pop_front();
    if (isKnown(state.downloadId)) {
      Token nextToken = begin(state);
      next.start = Start{std::move(state), std::move(nextToken)};
    } else {
      next.skipped.push_back(state.downloadId);
    }
  }
  for (const ProcessingState& state : pendingProcessingQueue_) next.waiting.push_back(state.downloadId);
  return next;
}

bool ProcessingGate::saveRecord(const CancellationToken& token, const ProcessingState& state) {
  std::lock_guard guard(processingLock_);
  if (!isCurrent(token) || !currentProcessingState_ || currentProcessingState_->downloadId != state.downloadId) {
    return false;
  }
  currentProcessingState_ = state;
  store_.saveState(state);
  return true;
}

void ProcessingGate::removeRecord(const CancellationToken& token, int64_t id) {
  std::lock_guard guard(processingLock_);
  if (isCurrent(token)) currentProcessingState_.reset();
  store_.removeState(id);
}

ProcessingGate::Cancelled ProcessingGate::cancel(int64_t id) {
  std::lock_guard guard(processingLock_);
  if (currentProcessingState_ && currentProcessingState_->downloadId == id) {
    currentCancellationToken_->cancel();
    currentProcessingState_.reset();
    return Cancelled::activeRun;
  }
  size_t removed =
      std::erase_if(pendingProcessingQueue_, [id](const ProcessingState& state) { return state.downloadId == id; });
  return removed > 0 ? Cancelled::waiting : Cancelled::nothing;
}

ProcessingGate::CancelledAll ProcessingGate::cancelAll() {
  std::lock_guard guard(processingLock_);
  CancelledAll result{.waiting = pendingProcessingQueue_.size(), .activeRun = currentCancellationToken_ != nullptr};
  pendingProcessingQueue_.clear();
  currentProcessingState_.reset();
  if (currentCancellationToken_) currentCancellationToken_->cancel();
  return result;
}

void ProcessingGate::clear() {
  std::lock_guard guard(processingLock_);
  pendingProcessingQueue_.clear();
  isProcessing_ = false;
  currentProcessingState_.reset();
  currentCancellationToken_.reset();
}

std::optional<ProcessingState> ProcessingGate::expire() {
  std::lock_guard guard(processingLock_);
  if (currentCancellationToken_) currentCancellationToken_->cancel();
  if (currentProcessingState_) store_.saveState(*currentProcessingState_);
  return currentProcessingState_;
}

std::optional<int64_t> ProcessingGate::activeRun() const {
  std::lock_guard guard(processingLock_);
  if (!isProcessing_) return std::nullopt;
  return currentProcessingState_ ? currentProcessingState_->downloadId : 0;
}

bool ProcessingGate::holds(int64_t id) const {
  std::lock_guard guard(processingLock_);
  auto isId = [id](const auto& entry) { return entry.second == id; };
  auto waits = [id](const ProcessingState& state) { return state.downloadId == id; };
  return std::ranges::any_of(runsInFlight_, isId) || std::ranges::any_of(pendingProcessingQueue_, waits);
}

std::vector<ProcessingState> ProcessingGate::runsInHand() const {
  std::lock_guard guard(processingLock_);
  std::vector<ProcessingState> runs(pendingProcessingQueue_.begin(), pendingProcessingQueue_.end());
  if (currentProcessingState_) runs.push_back(*currentProcessingState_);
  return runs;
}

void ProcessingGate::close() {
  std::lock_guard guard(processingLock_);
  isClosed_ = true;
}

}  // namespace tarn
