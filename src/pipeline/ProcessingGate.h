#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "pipeline/CancellationToken.h"
#include "pipeline/ProcessingState.h"
#include "pipeline/ProcessingStateManager.h"

namespace tarn {

/// One file is processed at a time: the active run and the line behind it. Every decision is one step under the gate's
/// lock, which may be held while the store's lock is taken, and while a caller's `isKnown` looks a task up.
/// Thread-safe.
///
/// A run is known by its token. A run whose token is no longer the current one (the page has cleared everything) can
/// neither store its record nor free the gate for another.
class ProcessingGate {
 public:
  using Token = std::shared_ptr<CancellationToken>;
  using IsKnown = std::function<bool(int64_t)>;

  explicit ProcessingGate(ProcessingStateManager& store);

  /// What became of a file that asked for its run.
  struct Admission {
    bool isRefused = false;  ///< nobody wants the run any more
    Token token = nullptr;   ///< set when the run starts now
    size_t position = 0;     ///< else its place in the line, 1-based
    int64_t currentId = 0;   ///< and the id of the active run, 0 when it has no record any more
  };
  /// `isWanted` is asked under the lock: whoever cancels the download first makes that answer false, and then cancels
  /// here.
  Admission admit(const ProcessingState& state, const std::function<bool()>& isWanted);

  /// A stored record that may start now, with the token of its run.
  struct Start {
    ProcessingState state;
    Token token;
  };

  /// Starts the stored record of `id` if no run is active and the record is still pending.
  std::optional<Start> resume(int64_t id);

  /// The next run of the line, taken from it.
  struct Next {
    std::optional<Start> start;
    std::vector<int64_t> skipped;  ///< ids of the line that nobody knows any more, in order
    std::vector<int64_t> waiting;  ///< ids that still wait, in order
    bool wasCurrent = false;       ///< the run that ended was the current one
  };

  /// Ends the run of this token: clears the run fields if they are its own, and takes the next known run off the line,
  /// in one step.
  Next endRun(const Token& token, const IsKnown& isKnown);

  /// Stores a run's record if the run is current and was not taken back; true when stored.
  bool saveRecord(const CancellationToken& token, const ProcessingState& state);

  /// Removes a run's record from the store, and takes it back from the run fields, so that nothing stores it again.
  void removeRecord(const CancellationToken& token, int64_t id);

  enum class Cancelled { nothing, activeRun, waiting };
  /// Takes a download out: cancels its run and takes its record back, or removes it from the line.
  Cancelled cancel(int64_t id);

  /// Empties the line and asks the active run to stop; its record is taken back.
  struct CancelledAll {
    size_t waiting = 0;
    bool activeRun = false;
  };
  CancelledAll cancelAll();

  /// Empties the line and forgets the active run, which goes on by itself.
  void clear();

  /// Background time is over: asks the active run to stop and stores its record as it stands. Its record.
  std::optional<ProcessingState> expire();

  /// The id of the active run; 0 when its record was taken back; nothing when no run is active.
  std::optional<int64_t> activeRun() const;

  /// True while a run of this id is active, waits, or has been forgotten and still goes on.
  bool holds(int64_t id) const;

  /// The records of the active run and of those that wait, as they began.
  std::vector<ProcessingState> runsInHand() const;

  /// No run starts any more; what is in the line stays in the store.
  void close();

 private:
  Token begin(const ProcessingState& state);
  bool isCurrent(const CancellationToken& token) const { return currentCancellationToken_.get() == &token; }

  ProcessingStateManager& store_;
  mutable std::mutex processingLock_;
  bool isProcessing_ = false;
  bool isClosed_ = false;
  std::optional<ProcessingState> currentProcessingState_;
  Token currentCancellationToken_;
  std::deque<ProcessingState> pendingProcessingQueue_;
  std::map<const CancellationToken*, int64_t> runsInFlight_;
};

}  // namespace tarn
