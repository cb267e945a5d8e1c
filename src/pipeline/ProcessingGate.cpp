#include "pipeline/ProcessingGate.h"

#include <algorithm>
#include <iterator>

namespace tarn {

ProcessingGate::ProcessingGate(ProcessingStateManager& store) : store_(store) {}

ProcessingGate::HandOver::HandOver(ProcessingGate& gate, int64_t id) : gate_(gate), id_(id) {
  std::lock_guard guard(gate_.processingLock_);
  gate_.beingHandedOver_.insert(id_);
}

ProcessingGate::HandOver::~HandOver() {
  std::lock_guard guard(gate_.processingLock_);
  gate_.beingHandedOver_.erase(gate_.beingHandedOver_.find(id_));
}

ProcessingGate::Token ProcessingGate::begin(const ProcessingState& state) {
  isProcessing_ = true;
  currentProcessingState_ = state;
  currentCancellationToken_ = std::make_shared<CancellationToken>();
  runsInFlight_.emplace(currentCancellationToken_.get(), Run{state.downloadId});
  return currentCancellationToken_;
}

ProcessingGate::Admission ProcessingGate::admit(const ProcessingState& state, const std::function<bool()>& isWanted) {
  std::lock_guard guard(processingLock_);
  if (!isWanted()) return {.isRefused = true};
  if (!isProcessing_ && !isClosed_) return {.token = begin(state)};
  pendingProcessingQueue_.push_back(state);
  const int64_t current = isProcessing_ ? runsInFlight_.at(currentCancellationToken_.get()).id : 0;
  return {.position = pendingProcessingQueue_.size(), .currentId = current};
}

std::optional<ProcessingGate::Start> ProcessingGate::resume(
    int64_t id, const std::function<bool(const ProcessingState&)>& isWanted) {
  std::lock_guard guard(processingLock_);
  if (isProcessing_ || isClosed_ || heldIds().contains(id)) return std::nullopt;
  auto state = store_.loadState(id);
  if (!state || isFinal(state->stage) || !isWanted(*state)) return std::nullopt;
  Token token = begin(*state);
  return Start{std::move(*state), std::move(token)};
}

ProcessingGate::Next ProcessingGate::endRun(const Token& token, const RunOutcome& outcome, const IsKnown& isKnown) {
  std::lock_guard guard(processingLock_);
  Next next;
  const auto run = runsInFlight_.extract(token.get());
  if (run.empty()) return next;
  next.wasTakenAway = run.mapped().isTakenAway;
  if (outcome.isFinal() && !next.wasTakenAway) store_.removeState(run.mapped().id);
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

bool ProcessingGate::stopActiveRun() {
  if (!isProcessing_) return false;
  currentCancellationToken_->cancel();
  currentProcessingState_.reset();
  runsInFlight_.at(currentCancellationToken_.get()).isTakenAway = true;
  return true;
}

ProcessingGate::TakenAway ProcessingGate::cancel(int64_t id) {
  std::lock_guard guard(processingLock_);
  TakenAway taken;
  const bool isActive = isProcessing_ && runsInFlight_.at(currentCancellationToken_.get()).id == id;
  if (isActive) taken.activeRun = stopActiveRun();
  const auto isId = [id](const ProcessingState& state) { return state.downloadId == id; };
  std::ranges::copy_if(pendingProcessingQueue_, std::back_inserter(taken.files), isId);
  taken.waiting = std::erase_if(pendingProcessingQueue_, isId);
  const auto record = store_.loadState(id);
  store_.removeState(id);
  if (record && taken.files.empty() && !heldIds().contains(id)) taken.files.push_back(*record);
  return taken;
}

ProcessingGate::TakenAway ProcessingGate::takeAllAway() {
  TakenAway taken{.activeRun = stopActiveRun(), .waiting = pendingProcessingQueue_.size()};
  std::ranges::move(pendingProcessingQueue_, std::back_inserter(taken.files));
  pendingProcessingQueue_.clear();
  const auto held = heldIds();
  for (ProcessingState& record : store_.takeAllStates()) {
    if (!held.contains(record.downloadId)) taken.files.push_back(std::move(record));
  }
  return taken;
}

ProcessingGate::TakenAway ProcessingGate::cancelAll() {
  std::lock_guard guard(processingLock_);
  return takeAllAway();
}

ProcessingGate::TakenAway ProcessingGate::clear() {
  std::lock_guard guard(processingLock_);
  TakenAway taken = takeAllAway();
  isProcessing_ = false;
  currentProcessingState_.reset();
  currentCancellationToken_.reset();
  return taken;
}

std::optional<ProcessingState> ProcessingGate::expire() {
  std::lock_guard guard(processingLock_);
  if (currentCancellationToken_) currentCancellationToken_->cancel();
  if (currentProcessingState_) store_.saveState(*currentProcessingState_);
  return currentProcessingState_;
}

std::vector<int64_t> ProcessingGate::cleanupStaleStates(std::chrono::seconds maxAge) {
  std::lock_guard guard(processingLock_);
  return store_.cleanupStaleStates(maxAge, heldIds());
}

std::vector<int64_t> ProcessingGate::validateStates() {
  std::lock_guard guard(processingLock_);
  return store_.validateStates(heldIds());
}

std::optional<int64_t> ProcessingGate::activeRun() const {
  std::lock_guard guard(processingLock_);
  if (!isProcessing_) return std::nullopt;
  return runsInFlight_.at(currentCancellationToken_.get()).id;
}

std::set<int64_t> ProcessingGate::heldIds() const {
  std::set<int64_t> ids(beingHandedOver_.begin(), beingHandedOver_.end());
  for (const auto& [token, run] : runsInFlight_) ids.insert(run.id);
  for (const ProcessingState& state : pendingProcessingQueue_) ids.insert(state.downloadId);
  return ids;
}

bool ProcessingGate::holds(int64_t id) const {
  std::lock_guard guard(processingLock_);
  return heldIds().contains(id);
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
