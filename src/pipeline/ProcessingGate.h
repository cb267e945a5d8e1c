#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "pipeline/CancellationToken.h"
#include "pipeline/ProcessingState.h"
#include "pipeline/ProcessingStateManager.h"
#include "pipeline/RunOutcome.h"

namespace tarn {

/// Lets one file be processed at a time: holds the active run and the line behind it. Each operation is one step under
/// the gate's lock. Under it the store is used, a token is set, and the caller's functions are called: they may look up
/// and change tasks, and must not call the gate. Thread-safe.
///
/// An id that runs, waits or is being handed over is never resumed. A run is known by its token. A run that the page
/// has taken away can neither store its record nor free the gate for another; its id stays taken until it ends.
class ProcessingGate {
 public:
  using Token = std::shared_ptr<CancellationToken>;
  using IsKnown = std::function<bool(int64_t)>;

  explicit ProcessingGate(ProcessingStateManager& store);

  /// Marks `id` as being handed over: from before its record is stored until its run was asked for. Must not outlive
  /// the gate.
  class HandOver {
   public:
    HandOver(ProcessingGate& gate, int64_t id);
    ~HandOver();
    HandOver(const HandOver&) = delete;
    HandOver& operator=(const HandOver&) = delete;

   private:
    ProcessingGate& gate_;
    const int64_t id_;
  };

  /// What became of a file that asked for its run.
  struct Admission {
    bool isRefused = false;  ///< nobody wants the run any more
    Token token = nullptr;   ///< set when the run starts now
    size_t position = 0;     ///< else its place in the line, 1-based
    int64_t currentId = 0;   ///< and the id of the active run
  };
  /// `isWanted` is asked under the lock: whoever cancels the download first makes that answer false, and then cancels
  /// here.
  Admission admit(const ProcessingState& state, const std::function<bool()>& isWanted);

  /// A stored record that may start now, with the token of its run.
  struct Start {
    ProcessingState state;
    Token token;
  };

  /// Starts the stored record of `id` if no run is active, the record is still pending, the id neither runs nor waits
  /// nor is being handed over, and `isWanted` agrees, which is asked last, under the lock.
  std::optional<Start> resume(int64_t id, const std::function<bool(const ProcessingState&)>& isWanted);

  /// What follows from the end of a run.
  struct Next {
    std::optional<Start> start;    ///< the next run of the line, taken from it
    std::vector<int64_t> skipped;  ///< ids of the line that nobody knows any more, in order
    std::vector<int64_t> waiting;  ///< ids that still wait, in order
    bool wasCurrent = false;       ///< the run that ended was the current one
    bool wasTakenAway = false;     ///< the page has no use for its files
  };

  /// Ends the run of this token: removes its record if the outcome is final, clears the run fields if they are its own,
  /// and takes the next known run off the line, in one step.
  Next endRun(const Token& token, const RunOutcome& outcome, const IsKnown& isKnown);

  /// Stores a run's record if the run is current and was not taken away; true if stored.
  bool saveRecord(const CancellationToken& token, const ProcessingState& state);

  /// What the page has taken away for good: out of the gate and out of the store, in one step.
  struct TakenAway {
    bool activeRun = false;                   ///< the active run was asked to stop; it deletes its own files at its end
    size_t waiting = 0;                       ///< how many runs have left the line
    std::vector<ProcessingState> files = {};  ///< records whose files nobody owns any more
  };
  TakenAway cancel(int64_t id);
  TakenAway cancelAll();
  /// Does the same as cancelAll, and frees the gate at once.
  TakenAway clear();

  /// Background time is over: asks the active run to stop, stores its record as it stands and returns it.
  std::optional<ProcessingState> expire();

  /// The id of the active run; nothing if no run is active.
  std::optional<int64_t> activeRun() const;

  /// Do what the store's functions of these names do, in one step with the gate: the record of a run that is being
  /// handed over, waits or goes on stays, since that run will end by itself, and no run begins with a record that goes.
  std::vector<int64_t> cleanupStaleStates(std::chrono::seconds maxAge);
  std::vector<int64_t> validateStates();

  /// True while a run of this id is being handed over, waits, or goes on.
  bool holds(int64_t id) const;

  /// The records of the active run and of those that wait, as they were stored last.
  std::vector<ProcessingState> runsInHand() const;

  /// No run starts any more; what is in the line stays in the store.
  void close();

 private:
  struct Run {
    int64_t id;
    bool isTakenAway = false;
  };

  // The callers of these hold the lock.
  Token begin(const ProcessingState& state);
  bool isCurrent(const CancellationToken& token) const { return currentCancellationToken_.get() == &token; }
  /// The ids of all runs that are being handed over, wait, or go on.
  std::set<int64_t> heldIds() const;
  /// Asks the active run to stop and takes its record back. Returns false if no run is active.
  bool stopActiveRun();
  TakenAway takeAllAway();

  ProcessingStateManager& store_;
  mutable std::mutex processingLock_;
  bool isProcessing_ = false;
  bool isClosed_ = false;
  std::optional<ProcessingState> currentProcessingState_;  ///< empty if it was taken back
  Token currentCancellationToken_;
  std::deque<ProcessingState> pendingProcessingQueue_;
  std::map<const CancellationToken*, Run> runsInFlight_;  ///< until they end, also when they are not current
  std::multiset<int64_t> beingHandedOver_;
};

}  // namespace tarn
